// The vectorised row loops of the mask-selected slice, the label overlay and
// the float grey slice, as plain records beside those of lane_rows.h (same
// lane machinery, same rules: whole lane groups, the caller's per-pixel code
// draws the rest; every lane does the per-pixel arithmetic in the same order,
// without fused multiply-add).
//
// Each loop draws pixels from .. to - 1 of one row of a strip, pixel x at
// (1 - tx) start + tx end, tx = x / (width - 1), and prefetches the cells of a
// row some way below while it draws. Nothing is clipped on these paths: the
// callers take them only when no clip box or plane is on.
#pragma once

#include <cstdint>

#include <glm/glm.hpp>

#include "volume/kernels/lane_rows.h"
#include "volume/kernels/slice_walk.h"

namespace zrvolume {

// The pixels of one strip row and the row whose cells are prefetched.
struct SliceSpanLanes {
    float start[3];
    float end[3];
    int width = 0;
    int from = 0;  // pixels drawn: from .. to - 1
    int to = 0;
    bool prefetch = false;
    float prefetchStart[3];
    float prefetchEnd[3];
    uint32_t* colourRow = nullptr;
};

// Columns from .. to - 1 of row y of the plane with voxel-space corners
// `corners`, prefetching row y + ahead when there is one.
inline SliceSpanLanes MakeSliceSpan(const glm::vec3 corners[4], int width, int height, int y, int from, int to,
                                    int ahead, uint32_t* colourRow) {
    SliceSpanLanes span;
    const SliceRow ends = RowEnds(corners, y, height);
    for (int k = 0; k < 3; ++k) {
        span.start[k] = ends.start[k];
        span.end[k] = ends.end[k];
    }
    span.width = width;
    span.from = from;
    span.to = to;
    if (y + ahead < height) {
        const SliceRow later = RowEnds(corners, y + ahead, height);
        span.prefetch = true;
        for (int k = 0; k < 3; ++k) {
            span.prefetchStart[k] = later.start[k];
            span.prefetchEnd[k] = later.end[k];
        }
    }
    span.colourRow = colourRow;
    return span;
}

// Mask-selected tables: the main volume's sample (its kind in volume.kind),
// the 8-bit mask read at the same corners with the main volume's indices.
// Table row r starts rowOffsets[r] entries after row 0 (every one of the 256
// rows a label can pick, each offset small enough that offset + 65535 fits
// in 32 bits).
struct MaskedSliceRowJob {
    SliceSpanLanes span;
    LaneVolume volume;
    LaneVolume mask;
    const uint32_t* row0 = nullptr;
    const int32_t* rowOffsets = nullptr;
    bool channelSwitch = false;
    uint16_t* valueRow = nullptr;  // may be null
};

// The label overlay's tint: 205/255 of the existing pixel, 50/255 of the label colour.
constexpr float kOverlayKeptWeight = 0.8039216f;
constexpr float kOverlayLabelWeight = 0.19607845f;

// Label overlay: the labels' kind in volume.kind; the tinted pixels of the
// colour row are read and written, the others left as they are.
struct LabelOverlayRowJob {
    SliceSpanLanes span;
    LaneVolume volume;
    const uint32_t* row0 = nullptr;
    float length = 0.0f;
    uint32_t backgroundEntry = 0;  // the entry of label 0
};

// Float grey slice: volume.kind is Float32. With `curve` null the window
// (low, high, scale) maps the sample, otherwise the curve of `curveCount`
// (at least 2) points (x, y) at curve[2 i], curve[2 i + 1].
struct FloatGreyRowJob {
    SliceSpanLanes span;
    LaneVolume volume;
    const double* curve = nullptr;
    int curveCount = 0;
    float windowLow = 0.0f;
    float windowHigh = 0.0f;
    float windowScale = 0.0f;
};

namespace lanes_avx512 {
int MaskedSliceRow(const MaskedSliceRowJob& job);
int LabelOverlayRow(const LabelOverlayRowJob& job);
int FloatGreyRow(const FloatGreyRowJob& job);
}  // namespace lanes_avx512

namespace lanes_avx2 {
int MaskedSliceRow(const MaskedSliceRowJob& job);
int LabelOverlayRow(const LabelOverlayRowJob& job);
int FloatGreyRow(const FloatGreyRowJob& job);
}  // namespace lanes_avx2

// The row loops of the active target; they return where they stopped (from
// on the baseline target).
inline int MaskedSliceLanes(SimdTarget target, const MaskedSliceRowJob& job) {
    switch (target) {
        case SimdTarget::Avx512: return lanes_avx512::MaskedSliceRow(job);
        case SimdTarget::Avx2: return lanes_avx2::MaskedSliceRow(job);
        default: return job.span.from;
    }
}

inline int LabelOverlayLanes(SimdTarget target, const LabelOverlayRowJob& job) {
    switch (target) {
        case SimdTarget::Avx512: return lanes_avx512::LabelOverlayRow(job);
        case SimdTarget::Avx2: return lanes_avx2::LabelOverlayRow(job);
        default: return job.span.from;
    }
}

inline int FloatGreyLanes(SimdTarget target, const FloatGreyRowJob& job) {
    switch (target) {
        case SimdTarget::Avx512: return lanes_avx512::FloatGreyRow(job);
        case SimdTarget::Avx2: return lanes_avx2::FloatGreyRow(job);
        default: return job.span.from;
    }
}

}  // namespace zrvolume
