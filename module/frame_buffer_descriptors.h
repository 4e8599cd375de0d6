// Descriptors of the frame buffers the module creates in an image object.
#pragma once

namespace zrmodule {

inline constexpr const char* kRenderOutDescriptor =
    "default render out frame buffer Out : defined in zerpha_inbuilt_renderercpu module";
inline constexpr const char* kRenderBackupDescriptor =
    "default render out frame buffer Backup : defined in zerpha_inbuilt_renderercpu module";
inline constexpr const char* kSampleOutDescriptor =
    "sample render out frame buffer Backup : defined in zerpha_inbuilt_renderercpu module";
inline constexpr const char* kSampleBackDescriptor =
    "sample render back frame buffer Backup : defined in zerpha_inbuilt_renderercpu module";

}  // namespace zrmodule
