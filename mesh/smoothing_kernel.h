// The module-wide cached smoothing kernel of the antialiasing pass: a
// (2r + 1) x (2r + 1) float table kept between requests and rebuilt only when
// the radius or sigma changes. DeInitModule releases it.
#pragma once

namespace zrmesh {

struct SmoothingKernel {
    int radius = -1;
    float sigma = 0.0f;
    float* weights = nullptr;  // row-major, from the tracked heap
};

// The cached kernel (weights null when none is held).
SmoothingKernel& CachedSmoothingKernel();

// Frees the cached kernel, if any, and leaves the holder empty.
void ReleaseSmoothingKernel();

}  // namespace zrmesh
