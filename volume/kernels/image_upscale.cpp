#include "image_upscale.h"

#include <cstddef>
#include <cstring>
#include <vector>

#include "common/float_convert.h"
#include "volume/kernels/otf_lookup.h"
#include "volume/kernels/parallel_for.h"
#include "volume/kernels/pixel_bytes.h"
#include "volume/kernels/upscale_lanes.h"
#include "volume/kernels/voxel_sampling.h"

namespace zrvolume {

using zrcommon::TruncateToInt32;

namespace {

// The source column and fraction of every destination column x0 .. x1 - 1: fx
// starts at 0; when fx >= 1, fx -= 1 and the column advances by one (at most
// once per destination pixel, hence sx <= 1); then fx += sx. The same for
// every row, so it is run once per image, in this order, giving the same bits.
struct ColumnSteps {
    std::vector<int32_t> column;
    std::vector<float> fx;
};

ColumnSteps StepColumns(const ImageUpscaleArgs& a) {
    ColumnSteps steps;
    const int count = a.x1 > a.x0 ? a.x1 - a.x0 : 0;
    steps.column.resize(static_cast<size_t>(count));
    steps.fx.resize(static_cast<size_t>(count));
    float fx = 0.0f;
    int32_t col = 0;
    for (int i = 0; i < count; ++i) {
        if (fx >= 1.0f) {
            fx -= 1.0f;
            ++col;
        }
        steps.column[i] = col;
        steps.fx[i] = fx;
        fx += a.sx;
    }
    return steps;
}

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

// Clears the pixels of destination row `row` left and right of the drawn
// columns.
void ClearBesideColumns(const ImageUpscaleArgs& a, int row) {
    uint32_t* start = a.destination + static_cast<ptrdiff_t>(row) * a.pitch;
    std::memset(start, 0, static_cast<size_t>(a.x0) * 4);
    std::memset(start + a.x1, 0, static_cast<size_t>(a.pitch - a.x1) * 4);
}

void UpscaleRow(const ImageUpscaleArgs& a, const ColumnSteps& steps, SimdTarget target, int r) {
    const SourceRows rows = RowsFor(a, r);
    uint32_t* destination = a.destination + static_cast<ptrdiff_t>(a.rowOffset + r) * a.pitch + a.x0;
    const int count = static_cast<int>(steps.column.size());
    UpscaleRowJob job;
    job.upper = rows.upper;
    job.lower = rows.lower;
    job.columns = steps.column.data();
    job.fx = steps.fx.data();
    job.fy = rows.fy;
    job.count = count;
    job.destination = destination;
    for (int i = UpscaleLanes(target, job); i < count; ++i) {
        float bytes[4];
        InterpolatedBytes(rows, steps.column[i], steps.fx[i], bytes);
        destination[i] = TruncatedByte(bytes[0]) | (TruncatedByte(bytes[1]) << 8) |
                         (TruncatedByte(bytes[2]) << 16) | (TruncatedByte(bytes[3]) << 24);
    }
    if (rows.upperValues != nullptr && a.destinationValues != nullptr) {
        uint16_t* values = a.destinationValues + static_cast<ptrdiff_t>(a.rowOffset + r) * a.pitch + a.x0;
        for (int i = 0; i < count; ++i) values[i] = InterpolatedValue(rows, steps.column[i], steps.fx[i]);
    }
}

void UpscaleAndMergeRow(const ImageUpscaleArgs& a, const ColumnSteps& steps, int r) {
    const SourceRows rows = RowsFor(a, r);
    const ptrdiff_t rowStart = static_cast<ptrdiff_t>(a.rowOffset + r) * a.pitch + a.x0;
    const bool values = rows.upperValues != nullptr && a.destinationValues != nullptr;
    const float w = a.weight;
    const int count = static_cast<int>(steps.column.size());
    for (int i = 0; i < count; ++i) {
        const int col = steps.column[i];
        const float fx = steps.fx[i];
        float s[4];
        InterpolatedBytes(rows, col, fx, s);
        for (float& c : s) c *= kInverse255;
        if (s[3] <= 0.0f) continue;  // nothing sampled here: keep what the output holds

        const ptrdiff_t index = rowStart + i;
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
        if (values) a.destinationValues[index] = InterpolatedValue(rows, col, fx);
    }
}

}  // namespace

void UpscaleImage(const ImageUpscaleArgs& args) {
    if (args.source == nullptr || args.destination == nullptr) return;
    const ColumnSteps steps = StepColumns(args);
    const SimdTarget target = ActiveSimdTarget();
    if (args.clearRows <= 0) {
        ParallelFor(0, args.rowCount, [&](int r) { UpscaleRow(args, steps, target, r); });
        return;
    }
    // Every row of the cleared destination, each written once: the drawn rows
    // with zeros beside them, the others all zeros.
    const int firstDrawn = args.rowOffset, endDrawn = args.rowOffset + args.rowCount;
    ParallelFor(0, args.clearRows, [&](int row) {
        if (row >= firstDrawn && row < endDrawn) {
            ClearBesideColumns(args, row);
            UpscaleRow(args, steps, target, row - firstDrawn);
        } else {
            std::memset(args.destination + static_cast<ptrdiff_t>(row) * args.pitch, 0,
                        static_cast<size_t>(args.pitch) * 4);
        }
    });
}

void UpscaleAndMergeImage(const ImageUpscaleArgs& args) {
    if (args.source == nullptr || args.destination == nullptr) return;
    const ColumnSteps steps = StepColumns(args);
    ParallelFor(0, args.rowCount, [&](int r) { UpscaleAndMergeRow(args, steps, r); });
}

}  // namespace zrvolume
