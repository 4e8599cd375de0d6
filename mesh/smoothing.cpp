#include "smoothing.h"

#include <algorithm>
#include <cstring>

#include <omp.h>

#include "common/float_convert.h"

namespace zrmesh {

namespace {

inline uint32_t LimitedByte(float sum) {
    const float limited = sum > 255.0f ? 255.0f : sum;
    return static_cast<uint32_t>(static_cast<uint8_t>(zrcommon::TruncateToInt32(limited)));
}

}  // namespace

void SmoothImage(const uint32_t* source, uint32_t* destination, int width, int height,
                 const SmoothingKernel& kernel) {
    if (width <= 0 || height <= 0) return;
    std::memset(destination, 0, static_cast<size_t>(width) * height * sizeof(uint32_t));
    const int r = kernel.radius;
    const int side = 2 * r + 1;
    const float* weights = kernel.weights;

#pragma omp parallel
    {
        // Carried from pixel to pixel within this thread, on purpose.
        float sums[4] = {0.0f, 0.0f, 0.0f, 0.0f};
#pragma omp for schedule(dynamic, 1)
        for (int y = 0; y < height; ++y) {
            uint32_t* out = destination + static_cast<size_t>(y) * width;
            for (int x = 0; x < width; ++x) {
                for (int ky = -r; ky <= r; ++ky) {
                    const int sy = std::clamp(y + ky, 0, height - 1);
                    const uint32_t* sourceRow = source + static_cast<size_t>(sy) * width;
                    const float* weightRow = weights + static_cast<size_t>(ky + r) * side + r;
                    for (int kx = -r; kx <= r; ++kx) {
                        const uint32_t pixel = sourceRow[std::clamp(x + kx, 0, width - 1)];
                        const float w = weightRow[kx];
                        sums[0] += static_cast<float>(pixel & 0xffu) * w;
                        sums[1] += static_cast<float>((pixel >> 8) & 0xffu) * w;
                        sums[2] += static_cast<float>((pixel >> 16) & 0xffu) * w;
                        sums[3] += static_cast<float>(pixel >> 24) * w;
                    }
                }
                if (sums[3] > 0.0f)
                    out[x] = LimitedByte(sums[0]) | (LimitedByte(sums[1]) << 8) | (LimitedByte(sums[2]) << 16) |
                             (LimitedByte(sums[3]) << 24);
            }
        }
    }
}

}  // namespace zrmesh
