#include "smoothing_kernel.h"

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

}  // namespace zrmesh
