#include "image_upscale.h"

#include <cstddef>

#include "common/float_convert.h"
#include "volume/kernels/otf_lookup.h"
#include "volume/kernels/parallel_for.h"
#include "volume/kernels/pixel_bytes.h"
#include "volume/kernels/voxel_sampling.h"

namespace zrvolume {

using zrcommon::TruncateToInt32;

namespace {

// One destination row's source rows and vertical weight.
struct SourceRows {
    const uint32_t* upper;
    const uint32_t* lower;
    const uint16_t* upperValues;  // null without a source value buffer
    const uint16_t* lowerValues;
    float fy;
};

SourceRows RowsFor(const ImageUpscaleArgs& a, int r) {
    const float y = static_cast<float>(r) * a.sy;
    const int y0 = FloorToInt(y);
    const ptrdiff_t start = static_cast<ptrdiff_t>(y0) * a.pitch;
    SourceRows rows;
    rows.upper = a.source + start;
    rows.lower = rows.upper + a.pitch;  // not clamped: the caller keeps the row below readable
    rows.upperValues = a.sourceValues ? a.sourceValues + start : nullptr;
    rows.lowerValues = rows.upperValues ? rows.upperValues + a.pitch : nullptr;
    rows.fy = y - static_cast<float>(y0);
    return rows;
}

inline float Bilinear(float s00, float s01, float s10, float s11, float fx, float fy) {
    return (s00 * (1.0f - fx) + s01 * fx) * (1.0f - fy) + (s10 * (1.0f - fx) + s11 * fx) * fy;
}

// The four interpolated bytes of source column `col`, before truncation.
inline void InterpolatedBytes(const SourceRows& rows, int col, float fx, float out[4]) {
    const uint32_t p00 = rows.upper[col], p01 = rows.upper[col + 1];
    const uint32_t p10 = rows.lower[col], p11 = rows.lower[col + 1];
    for (int b = 0; b < 4; ++b)
        out[b] = Bilinear(Byte(p00, b), Byte(p01, b), Byte(p10, b), Byte(p11, b), fx, rows.fy);
}

inline uint16_t InterpolatedValue(const SourceRows& rows, int col, float fx) {
    const float v = Bilinear(rows.upperValues[col], rows.upperValues[col + 1], rows.lowerValues[col],
                             rows.lowerValues[col + 1], fx, rows.fy);
    return static_cast<uint16_t>(TruncateToInt32(v));
}

void UpscaleRow(const ImageUpscaleArgs& a, int r) {
    const SourceRows rows = RowsFor(a, r);
    const ptrdiff_t rowStart = static_cast<ptrdiff_t>(a.rowOffset + r) * a.pitch;
    const bool values = rows.upperValues != nullptr && a.destinationValues != nullptr;
    float fx = 0.0f;
    int col = 0;
    for (int x = a.x0; x < a.x1; ++x) {
        // At most one source column per destination pixel, hence sx <= 1.
        if (fx >= 1.0f) {
            fx -= 1.0f;
            ++col;
        }
        float bytes[4];
        InterpolatedBytes(rows, col, fx, bytes);
        a.destination[rowStart + x] = TruncatedByte(bytes[0]) | (TruncatedByte(bytes[1]) << 8) |
                                      (TruncatedByte(bytes[2]) << 16) | (TruncatedByte(bytes[3]) << 24);
        if (values) a.destinationValues[rowStart + x] = InterpolatedValue(rows, col, fx);
        fx += a.sx;
    }
}

void UpscaleAndMergeRow(const ImageUpscaleArgs& a, int r) {
    const SourceRows rows = RowsFor(a, r);
    const ptrdiff_t rowStart = static_cast<ptrdiff_t>(a.rowOffset + r) * a.pitch;
    const bool values = rows.upperValues != nullptr && a.destinationValues != nullptr;
    const float w = a.weight;
    float fx = 0.0f;
    int col = 0;
    for (int x = a.x0; x < a.x1; ++x) {
        if (fx >= 1.0f) {
            fx -= 1.0f;
            ++col;
        }
        float s[4];
        InterpolatedBytes(rows, col, fx, s);
        for (float& c : s) c *= kInverse255;
        const float currentFx = fx;
        fx += a.sx;
        if (s[3] <= 0.0f) continue;  // nothing sampled here: keep what the output holds

        const ptrdiff_t index = rowStart + x;
        const uint32_t existing = a.destination[index];
        uint32_t out;
        if ((existing >> 24) == 0) {
            out = TruncatedByte(s[0] * 255.0f) | (TruncatedByte(s[1] * 255.0f) << 8) |
                  (TruncatedByte(s[2] * 255.0f) << 16) | (TruncatedByte(s[3] * 255.0f) << 24);
        } else {
            float d[4];
            for (int b = 0; b < 4; ++b) d[b] = Byte(existing, b) * kInverse255;
            const bool weighted = a.mask != nullptr && a.mask[index] > 0.0f;
            out = 0xff000000u;
            for (int b = 0; b < 3; ++b) {
                // Weighted: a constant mix; otherwise the existing content over the
                // new layer by its own opacity.
                const float mixed = weighted ? (1.0f - w) * d[b] + w * s[b] : d[3] * d[b] + (1.0f - d[3]) * s[b];
                out |= TruncatedByte(mixed * 255.0f) << (8 * b);
            }
        }
        a.destination[index] = out;
        if (values) a.destinationValues[index] = InterpolatedValue(rows, col, currentFx);
    }
}

}  // namespace

void UpscaleImage(const ImageUpscaleArgs& args) {
    if (args.source == nullptr || args.destination == nullptr) return;
    ParallelFor(0, args.rowCount, [&args](int r) { UpscaleRow(args, r); });
}

void UpscaleAndMergeImage(const ImageUpscaleArgs& args) {
    if (args.source == nullptr || args.destination == nullptr) return;
    ParallelFor(0, args.rowCount, [&args](int r) { UpscaleAndMergeRow(args, r); });
}

}  // namespace zrvolume
