#include "smoothing_kernel.h"

#include <cmath>
#include <cstdint>

#include "mesh/bvh/tracked_heap.h"

namespace zrmesh {

SmoothingKernel& CachedSmoothingKernel() {
    static SmoothingKernel kernel;
    return kernel;
}

void ReleaseSmoothingKernel() {
    SmoothingKernel& kernel = CachedSmoothingKernel();
    if (kernel.weights) zrbvh::Free(kernel.weights);
    kernel = SmoothingKernel{};
}

const SmoothingKernel& BuildSmoothingKernel(int radius, float sigma) {
    SmoothingKernel& kernel = CachedSmoothingKernel();
    if (kernel.weights && kernel.radius == radius && kernel.sigma == sigma) return kernel;

    ReleaseSmoothingKernel();
    kernel.radius = radius;
    kernel.sigma = sigma;
    const int64_t side = radius >= 0 ? 2 * static_cast<int64_t>(radius) + 1 : 0;
    // At least one float, so that a held kernel always has storage.
    const int64_t entries = side > 0 ? side * side : 1;
    kernel.weights = static_cast<float*>(zrbvh::Allocate(static_cast<size_t>(entries) * sizeof(float)));
    kernel.weights[0] = 0.0f;
    if (side == 0) return kernel;

    const float twoSigmaSquared = 2.0f * sigma * sigma;
    const auto gauss = [&](int64_t index) {
        const float k = static_cast<float>(index - radius);
        return std::exp(-(k * k) / twoSigmaSquared);
    };
    // The sum of the two one-dimensional weights rather than their product: a
    // cross-shaped kernel with wide shoulders, which keeps thin lines bold.
    for (int64_t i = 0; i < side; ++i)
        for (int64_t j = 0; j < side; ++j) kernel.weights[i * side + j] = gauss(i) + gauss(j);
    // Scaled so the centre weight is 1; the kernel is deliberately not
    // normalised to a unit sum.
    const float centre = kernel.weights[radius * side + radius];
    for (int64_t e = 0; e < side * side; ++e) kernel.weights[e] /= centre;
    return kernel;
}

}  // namespace zrmesh
