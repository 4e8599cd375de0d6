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

// The kernel for (radius, sigma): the cached one when it was built for exactly
// these values, otherwise the old one is freed and a new one built. With the
// Gaussian g[k] = exp(-k^2 / (2 sigma^2)), k = -r .. r, entry [i][j] is
// (g[i] + g[j]) / 2: the sum, not the product, scaled so the centre weight is 1.
// A negative radius gives a kernel without weights.
const SmoothingKernel& BuildSmoothingKernel(int radius, float sigma);

// Frees the cached kernel, if any, and leaves the holder empty.
void ReleaseSmoothingKernel();

}  // namespace zrmesh
