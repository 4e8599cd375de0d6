// Descriptors of the frame buffers the two renderers create in an image object.
#pragma once

namespace zrcommon {

inline constexpr const char* kRenderOutDescriptor =
    "default render out frame buffer Out : defined in zerpha_inbuilt_renderercpu module";
inline constexpr const char* kRenderBackupDescriptor =
    "default render out frame buffer Backup : defined in zerpha_inbuilt_renderercpu module";
inline constexpr const char* kSampleOutDescriptor =
    "sample render out frame buffer Backup : defined in zerpha_inbuilt_renderercpu module";
inline constexpr const char* kSampleBackDescriptor =
    "sample render back frame buffer Backup : defined in zerpha_inbuilt_renderercpu module";
inline constexpr const char* kDepthDescriptor =
    "1st hit screen depth frame buffer OUT : defined in zerpha_inbuilt_renderercpu module";
inline constexpr const char* kAntialiasingDescriptor =
    "default custom frame buffer for antialiasing : defined in zerpha_inbuilt_renderercpu module";

}  // namespace zrcommon
