// The vectorised row loop of the bilinear enlargement (image_upscale.cpp), as a
// plain record so that the per-instruction-set files need nothing but
// intrinsics.
//
// Destination pixel i of the row (0 <= i < count) reads source columns
// columns[i] and columns[i] + 1 of the two source rows with the fraction fx[i]:
// the per-pixel code's carried column and fraction, tabled once per image. A
// column advances by at most one per pixel, so a lane group reads at most
// kLanes + 1 neighbouring source pixels, which are loaded once and spread over
// the lanes by permutes. Each byte is computed as in the per-pixel code,
// (s00 (1 - fx) + s01 fx)(1 - fy) + (s10 (1 - fx) + s11 fx) fy without fused
// multiply-add, then truncated. The loop draws whole lane groups from the
// start of the row and returns how many pixels it drew; the per-pixel code
// draws the rest.
#pragma once

#include <cstdint>

#include "volume/kernels/simd_dispatch.h"

namespace zrvolume {

struct UpscaleRowJob {
    const uint32_t* upper = nullptr;  // source row y0, column 0
    const uint32_t* lower = nullptr;  // source row y0 + 1
    const int32_t* columns = nullptr;
    const float* fx = nullptr;
    float fy = 0.0f;
    int count = 0;
    uint32_t* destination = nullptr;  // destination pixel 0 of the row
};

namespace lanes_avx512 {
int UpscaleRow(const UpscaleRowJob& job);
}

namespace lanes_avx2 {
int UpscaleRow(const UpscaleRowJob& job);
}

// The row loop of the active target; 0 pixels on the baseline target.
inline int UpscaleLanes(SimdTarget target, const UpscaleRowJob& job) {
    switch (target) {
        case SimdTarget::Avx512: return lanes_avx512::UpscaleRow(job);
        case SimdTarget::Avx2: return lanes_avx2::UpscaleRow(job);
        default: return 0;
    }
}

}  // namespace zrvolume
