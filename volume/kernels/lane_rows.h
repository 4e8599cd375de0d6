// The vectorised row loops of the thin-slice, slab and curved kernels, as plain
// records so that the per-instruction-set files need nothing but intrinsics.
//
// Each loop computes whole groups of lanes (16 pixels with AVX-512, 8 with AVX2)
// and returns where it stopped; the caller's per-pixel code draws the rest. The
// thin-slice and slab loops draw pixels from .. to - 1 of their row (a strip of
// the image), the curved loop the whole row from its start. A lane does exactly
// what the per-pixel code does, in the same order (trilinear corners 0..7,
// weights (wx * wy) * wz, no fused multiply-add), so both give the same bytes.
//
// Voxels are read through byte offsets from one base pointer. A 32-bit load at
// corner x0 brings x0 and x0 + 1 together (one gather per corner pair; a 64-bit
// load for float voxels); LaneVolume is only made when the storage allows it:
// slices at one constant stride, the whole grid within 2 GiB of the base, and a
// margin of at least one voxel on every axis, so that the read one element past
// a row, and the slices -1 and dz the sampling rule may read for points just
// outside the grid, stay inside the storage.
#pragma once

#include <cstdint>
#include <type_traits>

#include "volume/kernels/simd_dispatch.h"
#include "volume/kernels/voxel_sampling.h"

namespace zrvolume {

enum class LaneVoxel { Int8, UInt8, Int16, UInt16, Float32 };

// log2 of the element size in bytes.
constexpr int LaneElementShift(LaneVoxel kind) {
    return kind == LaneVoxel::Float32 ? 2 : (kind == LaneVoxel::Int16 || kind == LaneVoxel::UInt16 ? 1 : 0);
}

struct LaneVolume {
    const unsigned char* base = nullptr;  // voxel (0, 0, 0)
    int32_t rowBytes = 0;
    int32_t sliceBytes = 0;
    int32_t dims[3] = {0, 0, 0};
    LaneVoxel kind = LaneVoxel::UInt16;
};

template <class T>
constexpr LaneVoxel LaneVoxelOf() {
    if constexpr (std::is_same_v<T, float>) {
        return LaneVoxel::Float32;
    } else if constexpr (sizeof(T) == 1) {
        return static_cast<T>(-1) < T(0) ? LaneVoxel::Int8 : LaneVoxel::UInt8;
    } else {
        return static_cast<T>(-1) < T(0) ? LaneVoxel::Int16 : LaneVoxel::UInt16;
    }
}

// False when the storage does not allow the lane reads (see above).
template <class T>
bool MakeLaneVolume(const VoxelGrid<T>& grid, LaneVolume& out) {
    static_assert(sizeof(T) <= 2 || std::is_same_v<T, float>, "lane reads serve 8- and 16-bit and float voxels");
    if (grid.dims.x < 1 || grid.dims.y < 1 || grid.dims.z < 1) return false;
    if (grid.margins.x < 1 || grid.margins.y < 1 || grid.margins.z < 1) return false;
    const int slices = grid.dims.z + 2 * grid.margins.z;
    const auto* first = static_cast<const unsigned char*>(grid.slices[0]);
    const int64_t rowBytes = static_cast<int64_t>(grid.pitch) * static_cast<int64_t>(sizeof(T));
    const int64_t sliceBytes =
        slices > 1 ? static_cast<const unsigned char*>(grid.slices[1]) - first
                   : rowBytes * (grid.dims.y + 2 * grid.margins.y);
    if (sliceBytes < rowBytes * (grid.dims.y + 2 * grid.margins.y)) return false;
    for (int s = 1; s < slices; ++s)
        if (static_cast<const unsigned char*>(grid.slices[s]) - first != sliceBytes * s) return false;
    // Largest offset formed: the slice and the row past the last ones (reads
    // reach the slice, prefetches also the row), one element past the last
    // voxel; the smallest is one slice before the first.
    const int64_t last = sliceBytes * grid.dims.z + rowBytes * grid.dims.y +
                         static_cast<int64_t>(grid.dims.x + 2) * static_cast<int64_t>(sizeof(T));
    if (last >= (int64_t(1) << 31) - 64) return false;
    out.base = reinterpret_cast<const unsigned char*>(grid.Row(0, 0));
    out.rowBytes = static_cast<int32_t>(rowBytes);
    out.sliceBytes = static_cast<int32_t>(sliceBytes);
    out.dims[0] = grid.dims.x;
    out.dims[1] = grid.dims.y;
    out.dims[2] = grid.dims.z;
    out.kind = LaneVoxelOf<T>();
    return true;
}

// Premultiplied table colour (see otf_lookup.h) of each lane.
struct LaneColour {
    const uint32_t* table = nullptr;
    bool channelSwitch = false;
};

// Single-table slice row: pixel x at (1 - tx) start + tx end, tx = x / (width - 1).
struct OtfSliceRowJob {
    LaneVolume volume;
    float start[3];
    float end[3];
    int width = 0;
    int from = 0;  // pixels drawn: from .. to - 1
    int to = 0;
    float length = 0.0f;  // the scaled lookup's L
    LaneColour colour;
    uint32_t* colourRow = nullptr;
    uint16_t* valueRow = nullptr;  // may be null
    // Ends of a row some way below, whose cells are prefetched.
    bool prefetch = false;
    float prefetchStart[3];
    float prefetchEnd[3];
};

enum class LaneReduction { Maximum, Minimum, Average };

// Planar slab row without clipping: pixel c starts at (1 - s) left + s right,
// s = c / (width - 1), and advances by step after each of `layers` layers.
struct SlabRowJob {
    LaneVolume volume;
    float left[3];
    float right[3];
    float step[3];
    int layers = 0;
    int width = 0;
    int from = 0;  // pixels drawn: from .. to - 1
    int to = 0;
    LaneReduction reduction = LaneReduction::Maximum;
    LaneColour colour;
    uint32_t* colourRow = nullptr;
    uint16_t* valueRow = nullptr;
    // Ends of a row some way below, whose cells are prefetched layer by layer.
    bool prefetch = false;
    float prefetchLeft[3];
    float prefetchRight[3];
};

// Thin curved-section row without clipping. Column i has its surface point,
// lateral step, top and bottom coordinates and a flag (structure of arrays);
// s = a * top + b * bottom, the point is surface + (s - centre) * lateral step,
// mapped to voxels by the record; a row coordinate outside [0, extent] or an
// unused column leaves the pixel untouched.
struct CurvedRowJob {
    LaneVolume volume;
    const float* surface[3];
    const float* lateralStep[3];
    const float* top;
    const float* bottom;
    const int32_t* used;  // 0 or -1
    float a = 0.0f;
    float b = 0.0f;
    // Weights of a row some way below, whose cells are prefetched.
    bool prefetch = false;
    float prefetchA = 0.0f;
    float prefetchB = 0.0f;
    float centre = 0.0f;
    float extent = 0.0f;
    float toVoxel[16];
    // The record's last row is (0, 0, 0, 1): w is exactly 1 for every finite
    // point, so the divisions change nothing and are skipped. (A non-finite
    // point gives a non-finite coordinate either way and lies outside.)
    bool affine = false;
    int width = 0;
    float length = 0.0f;
    LaneColour colour;
    uint32_t* colourRow = nullptr;
    uint16_t* valueRow = nullptr;
};

// One row of the contour grid: point i lies at origin + i u + row v. The
// inside pass flags the points inside the grid (1) or not (0); the sample pass
// stores the truncated trilinear sample of every point flagged in `needed`
// (the other entries get unspecified values).
struct ContourRowJob {
    LaneVolume volume;
    float origin[3];
    float u[3];
    float v[3];
    float row = 0.0f;
    int count = 0;
    bool prefetch = false;  // prefetch the cells of the points of prefetchRow
    float prefetchRow = 0.0f;
    uint8_t* inside = nullptr;
    const uint8_t* needed = nullptr;
    int32_t* samples = nullptr;
};

namespace lanes_avx512 {
int OtfSliceRow(const OtfSliceRowJob& job);
int SlabRow(const SlabRowJob& job);
int CurvedRow(const CurvedRowJob& job);
int ContourInsideRow(const ContourRowJob& job);
int ContourSampleRow(const ContourRowJob& job);
}  // namespace lanes_avx512

namespace lanes_avx2 {
int OtfSliceRow(const OtfSliceRowJob& job);
int SlabRow(const SlabRowJob& job);
int CurvedRow(const CurvedRowJob& job);
int ContourInsideRow(const ContourRowJob& job);
int ContourSampleRow(const ContourRowJob& job);
}  // namespace lanes_avx2

// The row loops of the active target; 0 pixels on the baseline target.
inline int OtfSliceLanes(SimdTarget target, const OtfSliceRowJob& job) {
    switch (target) {
        case SimdTarget::Avx512: return lanes_avx512::OtfSliceRow(job);
        case SimdTarget::Avx2: return lanes_avx2::OtfSliceRow(job);
        default: return 0;
    }
}

inline int SlabLanes(SimdTarget target, const SlabRowJob& job) {
    switch (target) {
        case SimdTarget::Avx512: return lanes_avx512::SlabRow(job);
        case SimdTarget::Avx2: return lanes_avx2::SlabRow(job);
        default: return 0;
    }
}

inline int CurvedLanes(SimdTarget target, const CurvedRowJob& job) {
    switch (target) {
        case SimdTarget::Avx512: return lanes_avx512::CurvedRow(job);
        case SimdTarget::Avx2: return lanes_avx2::CurvedRow(job);
        default: return 0;
    }
}

inline int ContourInsideLanes(SimdTarget target, const ContourRowJob& job) {
    switch (target) {
        case SimdTarget::Avx512: return lanes_avx512::ContourInsideRow(job);
        case SimdTarget::Avx2: return lanes_avx2::ContourInsideRow(job);
        default: return 0;
    }
}

inline int ContourSampleLanes(SimdTarget target, const ContourRowJob& job) {
    switch (target) {
        case SimdTarget::Avx512: return lanes_avx512::ContourSampleRow(job);
        case SimdTarget::Avx2: return lanes_avx2::ContourSampleRow(job);
        default: return 0;
    }
}

}  // namespace zrvolume
