// The frame buffers of one sectional volume request: the blending decision,
// buffers created when missing, and the target cleared before drawing.
#pragma once

#include "volume/render_settings.h"

namespace zrvolume {

struct RenderTargets {
    int width = 0;
    int height = 0;
    bool blending = false;  // drawing over the result of earlier renderers
    int targetIndex = 1;    // usage-1 buffer the kernels draw into: 2 when blending
};

// Blends when this is not the first renderer, unless both skip flags are set.
// Creates render-out 0 and 1 (and 2 when blending), and the 16-bit sample
// buffers when asked to store sample values (index 1 only in fast quality
// mode); clears the target and every existing usage-3 buffer.
RenderTargets PrepareRenderTargets(const VolumeRenderSettings& settings, zrobjects::ZrIObject& image);

// The usage-3 buffer the kernels write sample values into, or -1 for none.
int SampleBufferIndex(const VolumeRenderSettings& settings, bool reducedImage);

}  // namespace zrvolume
