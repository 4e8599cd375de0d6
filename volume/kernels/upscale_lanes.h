// The vectorised loops of the bilinear enlargement (image_upscale.cpp), as
// plain records so that the per-instruction-set files need nothing but
// intrinsics.
//
// Each byte of a destination pixel is (s00 (1 - fx) + s01 fx)(1 - fy) +
// (s10 (1 - fx) + s11 fx) fy. Its two bracketed terms depend only on the
// source row and the destination column, so they are computed once per source
// row (the horizontal pass) and shared by every destination row that reads
// that row; the vertical pass weighs them by 1 - fy and fy. The operations and
// their order are those of the per-pixel form, without fused multiply-add, so
// the bytes are the same.
//
// Destination column i (0 <= i < count) reads source columns columns[i] and
// columns[i] + 1 with the fraction fx[i] (the per-pixel form's carried column
// and fraction, tabled once per image). A column advances by at most one per
// pixel, so a lane group reads at most kLanes + 1 neighbouring source pixels,
// which are loaded once and spread over the lanes by permutes. Both loops work
// in whole lane groups from the start and return how many columns they did;
// the per-pixel code does the rest.
#pragma once

#include <cstdint>

#include "volume/kernels/simd_dispatch.h"

namespace zrvolume {

// Horizontal pass: terms[b][i] = s(col) (1 - fx) + s(col + 1) fx for byte b.
struct UpscaleTermsJob {
    const uint32_t* source = nullptr;  // source row, column 0
    const int32_t* columns = nullptr;
    const float* fx = nullptr;
    int count = 0;
    float* terms[4] = {nullptr, nullptr, nullptr, nullptr};
};

// Vertical pass: byte b of destination[i] = trunc(upper[b][i] (1 - fy) + lower[b][i] fy).
struct UpscaleBlendJob {
    const float* upper[4] = {nullptr, nullptr, nullptr, nullptr};
    const float* lower[4] = {nullptr, nullptr, nullptr, nullptr};
    float fy = 0.0f;
    int count = 0;
    uint32_t* destination = nullptr;  // destination pixel 0 of the row
};

namespace lanes_avx512 {
int UpscaleTerms(const UpscaleTermsJob& job);
int UpscaleBlend(const UpscaleBlendJob& job);
}  // namespace lanes_avx512

namespace lanes_avx2 {
int UpscaleTerms(const UpscaleTermsJob& job);
int UpscaleBlend(const UpscaleBlendJob& job);
}  // namespace lanes_avx2

// The loops of the active target; 0 columns on the baseline target.
inline int UpscaleTermsLanes(SimdTarget target, const UpscaleTermsJob& job) {
    switch (target) {
        case SimdTarget::Avx512: return lanes_avx512::UpscaleTerms(job);
        case SimdTarget::Avx2: return lanes_avx2::UpscaleTerms(job);
        default: return 0;
    }
}

inline int UpscaleBlendLanes(SimdTarget target, const UpscaleBlendJob& job) {
    switch (target) {
        case SimdTarget::Avx512: return lanes_avx512::UpscaleBlend(job);
        case SimdTarget::Avx2: return lanes_avx2::UpscaleBlend(job);
        default: return 0;
    }
}

}  // namespace zrvolume
