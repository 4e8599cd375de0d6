#include "image_upscale.h"

#include <cstddef>
#include <cstring>
#include <vector>

#include <omp.h>

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

// Destination rows first .. first + count - 1 (counted from the first drawn
// row) read source rows y0 and y0 + 1.
struct Band {
    int first;
    int count;
    int y0;
};

std::vector<Band> SourceRowBands(const ImageUpscaleArgs& a) {
    std::vector<Band> bands;
    for (int r = 0; r < a.rowCount; ++r) {
        const int y0 = FloorToInt(static_cast<float>(r) * a.sy);
        if (bands.empty() || bands.back().y0 != y0)
            bands.push_back({r, 1, y0});
        else
            ++bands.back().count;
    }
    return bands;
}

// The horizontal terms of one source row, byte by byte (upscale_lanes.h).
void SourceRowTerms(const uint32_t* row, const ColumnSteps& steps, SimdTarget target, float* const terms[4]) {
    UpscaleTermsJob job;
    job.source = row;
    job.columns = steps.column.data();
    job.fx = steps.fx.data();
    job.count = static_cast<int>(steps.column.size());
    for (int b = 0; b < 4; ++b) job.terms[b] = terms[b];
    for (int i = UpscaleTermsLanes(target, job); i < job.count; ++i) {
        const int col = steps.column[i];
        const float fx = steps.fx[i];
        for (int b = 0; b < 4; ++b) terms[b][i] = Byte(row[col], b) * (1.0f - fx) + Byte(row[col + 1], b) * fx;
    }
}

// Destination row r from the terms of its two source rows.
void BlendRow(const ImageUpscaleArgs& a, const ColumnSteps& steps, SimdTarget target, int r,
              const float* const upper[4], const float* const lower[4]) {
    const SourceRows rows = RowsFor(a, r);
    UpscaleBlendJob job;
    for (int b = 0; b < 4; ++b) {
        job.upper[b] = upper[b];
        job.lower[b] = lower[b];
    }
    job.fy = rows.fy;
    job.count = static_cast<int>(steps.column.size());
    job.destination = a.destination + static_cast<ptrdiff_t>(a.rowOffset + r) * a.pitch + a.x0;
    const float gy = 1.0f - rows.fy;
    for (int i = UpscaleBlendLanes(target, job); i < job.count; ++i) {
        uint32_t pixel = 0;
        for (int b = 0; b < 4; ++b) pixel |= TruncatedByte(upper[b][i] * gy + lower[b][i] * rows.fy) << (8 * b);
        job.destination[i] = pixel;
    }
    if (rows.upperValues != nullptr && a.destinationValues != nullptr) {
        uint16_t* values = a.destinationValues + static_cast<ptrdiff_t>(a.rowOffset + r) * a.pitch + a.x0;
        for (int i = 0; i < job.count; ++i) values[i] = InterpolatedValue(rows, steps.column[i], steps.fx[i]);
    }
}

// Clears the pixels of destination row `row` left and right of the drawn
// columns.
void ClearBesideColumns(const ImageUpscaleArgs& a, int row) {
    uint32_t* start = a.destination + static_cast<ptrdiff_t>(row) * a.pitch;
    std::memset(start, 0, static_cast<size_t>(a.x0) * 4);
    std::memset(start + a.x1, 0, static_cast<size_t>(a.pitch - a.x1) * 4);
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
    const std::vector<Band> bands = SourceRowBands(args);
    const SimdTarget target = ActiveSimdTarget();
    // Each thread keeps the terms of two source rows.
    const size_t count = steps.column.size();
    std::vector<float> scratch(static_cast<size_t>(omp_get_max_threads()) * 8 * count);
    const auto drawBand = [&](const Band& band) {
        float* own = scratch.data() + static_cast<size_t>(omp_get_thread_num()) * 8 * count;
        float* upper[4];
        float* lower[4];
        for (int b = 0; b < 4; ++b) {
            upper[b] = own + b * count;
            lower[b] = own + (4 + b) * count;
        }
        const uint32_t* row = args.source + static_cast<ptrdiff_t>(band.y0) * args.pitch;
        SourceRowTerms(row, steps, target, upper);
        SourceRowTerms(row + args.pitch, steps, target, lower);  // not clamped: the caller keeps it readable
        for (int r = band.first; r < band.first + band.count; ++r) {
            if (args.clearRows > 0) ClearBesideColumns(args, args.rowOffset + r);
            BlendRow(args, steps, target, r, upper, lower);
        }
    };
    // With clearing, the rows above and below the drawn ones are items of the
    // same loop, so every destination row is written once.
    const int above = args.clearRows > 0 ? args.rowOffset : 0;
    const int below = args.clearRows > 0 ? args.clearRows - (args.rowOffset + args.rowCount) : 0;
    const int drawn = static_cast<int>(bands.size());
    ParallelFor(0, above + drawn + below, [&](int k) {
        if (k >= above && k < above + drawn) {
            drawBand(bands[k - above]);
            return;
        }
        const int row = k < above ? k : args.rowOffset + args.rowCount + (k - above - drawn);
        std::memset(args.destination + static_cast<ptrdiff_t>(row) * args.pitch, 0,
                    static_cast<size_t>(args.pitch) * 4);
    });
}

void UpscaleAndMergeImage(const ImageUpscaleArgs& args) {
    if (args.source == nullptr || args.destination == nullptr) return;
    const ColumnSteps steps = StepColumns(args);
    ParallelFor(0, args.rowCount, [&](int r) { UpscaleAndMergeRow(args, steps, r); });
}

}  // namespace zrvolume
