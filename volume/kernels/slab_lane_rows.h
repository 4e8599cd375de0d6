// The vectorised row loops of the planar shaded compositing and of the curved
// slab reductions, as plain records (the conventions of lane_rows.h: whole lane
// groups, the caller's per-pixel code draws the rest; a lane does exactly what
// the per-pixel code does, in the same order). Their loops live in
// slab_compositing_lanes.inc and curved_slab_lanes.inc, compiled once per
// instruction set by lanes_avx2.cpp and lanes_avx512.cpp.
#pragma once

#include <cstdint>

#include "volume/kernels/lane_rows.h"

namespace zrvolume {

// Planar shaded-compositing row without clipping (the planar member of
// slab_compositing.h): pixel c starts at (1 - s) left + s right + jitter(row,
// c) * step, s = c / (width - 1), and advances by step after each layer until
// its opacity is high enough or the layers run out.
struct SlabCompositingRowJob {
    LaneVolume volume;
    float left[3];
    float right[3];
    float step[3];
    int layers = 0;
    int width = 0;
    int row = 0;
    int from = 0;  // pixels drawn: from .. to - 1
    int to = 0;
    // (0.5 * (layers - 1)) * step: from the unjittered start to the section
    // plane, whose sample goes to the value row.
    float toPlane[3];
    // Shading (CompositingShading).
    float ambient = 0.0f;
    float diffuse = 0.0f;
    float specular = 0.0f;
    float exponent = 0.0f;
    float light[3];
    float gradientSteps[3][3];
    bool magnitudeWeighted = false;
    float magnitudeScale = 1.0f;
    LaneColour colour;  // table read by the rounded sample
    uint32_t* colourRow = nullptr;
    uint16_t* valueRow = nullptr;  // may be null
    // Ends of a row some way below, whose cells are prefetched layer by layer.
    bool prefetch = false;
    float prefetchLeft[3];
    float prefetchRight[3];
};

// Curved slab row without clipping (maximum, minimum or average of
// curved_reformation.h). Column i has its slab front point, lateral step, depth
// axis, top and bottom coordinates and a flag (structure of arrays); s = a * top
// + b * bottom, base = front + (s - centre) * lateral step, layer m at base +
// (m * layerStep) * depth, mapped to voxels by the record; a row coordinate
// outside [0, extent] or an unused column leaves the pixel untouched.
struct CurvedSlabRowJob {
    LaneVolume volume;
    const float* front[3];
    const float* lateralStep[3];
    const float* depth[3];
    const float* top;
    const float* bottom;
    const int32_t* used;  // 0 or -1
    float a = 0.0f;
    float b = 0.0f;
    float centre = 0.0f;
    float extent = 0.0f;
    float toVoxel[16];
    bool affine = false;  // last row (0, 0, 0, 1): the divisions by w are skipped
    // With an affine record the layer points of a pixel lie on a line, within
    // this distance (voxels) of it after rounding: a group whose first and last
    // layers lie this far inside the box 0 <= c < d - 1 is interior throughout.
    // Negative: no interior shortcut.
    float interiorMargin = -1.0f;
    int layers = 0;  // K + 1, at least 1
    float layerStep = 0.0f;
    LaneReduction reduction = LaneReduction::Maximum;
    int from = 0;  // columns drawn: from .. to - 1
    int to = 0;
    float length = 0.0f;  // the scaled lookup's L
    LaneColour colour;
    uint32_t* colourRow = nullptr;
    uint16_t* valueRow = nullptr;
    // Weights of a row some way below, whose first layer's cells are prefetched.
    bool prefetch = false;
    float prefetchA = 0.0f;
    float prefetchB = 0.0f;
};

namespace lanes_avx512 {
int SlabCompositingRow(const SlabCompositingRowJob& job);
int CurvedSlabRow(const CurvedSlabRowJob& job);
}  // namespace lanes_avx512

namespace lanes_avx2 {
int SlabCompositingRow(const SlabCompositingRowJob& job);
int CurvedSlabRow(const CurvedSlabRowJob& job);
}  // namespace lanes_avx2

inline int SlabCompositingLanes(SimdTarget target, const SlabCompositingRowJob& job) {
    switch (target) {
        case SimdTarget::Avx512: return lanes_avx512::SlabCompositingRow(job);
        case SimdTarget::Avx2: return lanes_avx2::SlabCompositingRow(job);
        default: return 0;
    }
}

inline int CurvedSlabLanes(SimdTarget target, const CurvedSlabRowJob& job) {
    switch (target) {
        case SimdTarget::Avx512: return lanes_avx512::CurvedSlabRow(job);
        case SimdTarget::Avx2: return lanes_avx2::CurvedSlabRow(job);
        default: return 0;
    }
}

}  // namespace zrvolume
