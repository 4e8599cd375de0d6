// Voxel addressing with margins and the trilinear sampling rule every slice
// kernel shares. Voxel (x, y, z) is element (x + mx) + (y + my) * pitch of slice
// z + mz, pitch = dx + 2 mx.
//
// The eight corners are numbered bit 0 = x, bit 1 = y, bit 2 = z; the sample is
// the sum of value * weight over corners 0..7 in that order, each weight being
// (wx * wy) * wz. Every family (and every SIMD path) keeps this order, so the
// same position gives the same bits everywhere.
#pragma once

#include <glm/glm.hpp>

#include "host/zr_types.h"

namespace zrvolume {

template <class T>
struct VoxelGrid {
    void* const* slices = nullptr;  // dz + 2 mz slice pointers
    glm::ivec3 dims{0};
    glm::ivec3 margins{0};
    int pitch = 0;

    const T* Row(int y, int z) const {
        return static_cast<const T*>(slices[z + margins.z]) + margins.x + static_cast<ptrdiff_t>(y + margins.y) * pitch;
    }
};

template <class T>
VoxelGrid<T> MakeVoxelGrid(const zrobjects::VolumeData& data) {
    return {data.slices.data(), data.dims, data.margins, data.RowPitch()};
}

// Floor as truncation, minus one for negative non-integral values.
inline int FloorToInt(float v) {
    const int t = static_cast<int>(v);
    return v < static_cast<float>(t) ? t - 1 : t;
}

// Inside the grid: -0.5 < c < d - 0.5 on every axis, strictly.
inline bool InsideGrid(const glm::vec3& p, const glm::ivec3& dims) {
    return p.x > -0.5f && p.x < static_cast<float>(dims.x) - 0.5f && p.y > -0.5f &&
           p.y < static_cast<float>(dims.y) - 0.5f && p.z > -0.5f && p.z < static_cast<float>(dims.z) - 0.5f;
}

// The eight neighbours of a position and their weights.
struct TrilinearCell {
    int x[2], y[2], z[2];  // clamped indices (z as the sampler rule gives it)
    float weight[8];       // corner k: x[k & 1], y[(k >> 1) & 1], z[k >> 2]
};

inline TrilinearCell MakeTrilinearCell(const glm::vec3& p, const glm::ivec3& dims) {
    TrilinearCell cell;
    const int fx = FloorToInt(p.x), fy = FloorToInt(p.y), fz = FloorToInt(p.z);
    cell.x[0] = glm::clamp(fx, 0, dims.x - 1);
    cell.x[1] = glm::clamp(fx + 1, 0, dims.x - 1);
    cell.y[0] = glm::clamp(fy, 0, dims.y - 1);
    cell.y[1] = glm::clamp(fy + 1, 0, dims.y - 1);
    if (fz >= 0) {
        // No upper clamp of z0: callers test the position first, and the
        // volume's margins keep a read one slice past the end in storage.
        cell.z[0] = fz;
        cell.z[1] = fz < dims.z - 1 ? fz + 1 : fz;
    } else {
        cell.z[0] = cell.z[1] = fz + 1;
    }
    const float ax = p.x - static_cast<float>(fx);
    const float ay = p.y - static_cast<float>(fy);
    const float az = p.z - static_cast<float>(fz);
    const float wx[2] = {1.0f - ax, ax}, wy[2] = {1.0f - ay, ay}, wz[2] = {1.0f - az, az};
    for (int k = 0; k < 8; ++k) cell.weight[k] = wx[k & 1] * wy[(k >> 1) & 1] * wz[k >> 2];
    return cell;
}

template <class T>
inline T CornerValue(const VoxelGrid<T>& grid, const TrilinearCell& cell, int k) {
    return grid.Row(cell.y[(k >> 1) & 1], cell.z[k >> 2])[cell.x[k & 1]];
}

template <class T>
inline float SampleCell(const VoxelGrid<T>& grid, const TrilinearCell& cell) {
    float sum = 0.0f;
    for (int k = 0; k < 8; ++k) sum += static_cast<float>(CornerValue(grid, cell, k)) * cell.weight[k];
    return sum;
}

template <class T>
inline float SampleTrilinear(const VoxelGrid<T>& grid, const glm::vec3& p) {
    return SampleCell(grid, MakeTrilinearCell(p, grid.dims));
}

}  // namespace zrvolume
