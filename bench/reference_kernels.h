// Plain scalar forms of the optimised kernels: the straightforward loops, one
// pixel at a time, single-threaded, written with the shared sampling, walk and
// lookup helpers. They document what a pixel is, serve as the baseline the
// benchmarks time next to each kernel, and are the oracle of the lane identity
// tests (the optimised kernels must give the same bytes on every path).
//
// Header-only so that the tests can use them without linking the benchmarks.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <glm/glm.hpp>

#include "volume/kernels/curved_reformation.h"
#include "volume/kernels/float_convert.h"
#include "volume/kernels/otf_lookup.h"
#include "volume/kernels/slab_projection.h"
#include "volume/kernels/slice_clip.h"
#include "volume/kernels/slice_walk.h"
#include "volume/kernels/voxel_sampling.h"

namespace zrreference {

// Output of a reference kernel: `pitch` pixels per row.
struct ReferenceTarget {
    uint32_t* colour = nullptr;
    uint16_t* values = nullptr;  // may be null
    int pitch = 0;
};

// Single-table slice (W1): corners in voxel coordinates (first and last pixel of
// the first row, first and last of the last row).
template <class T>
void OtfSlice(const zrvolume::VoxelGrid<T>& grid, const glm::vec3 corners[4], int width, int height,
              const uint32_t* row0, float length, bool channelSwitch, const zrvolume::SliceClipState& clip,
              const ReferenceTarget& out) {
    for (int y = 0; y < height; ++y) {
        const zrvolume::SliceRow ends = zrvolume::RowEnds(corners, y, height);
        for (int x = 0; x < width; ++x) {
            const glm::vec3 p = zrvolume::PixelPoint(ends, x, width);
            if (zrvolume::Clipped(clip, p)) continue;
            const bool inside = zrvolume::InsideGrid(p, grid.dims);
            const float v = inside ? zrvolume::SampleTrilinear(grid, p) : 0.0f;
            const auto value = static_cast<uint16_t>(zrvolume::TruncateToInt32(v));
            const size_t index = static_cast<size_t>(y) * out.pitch + x;
            if (out.values) out.values[index] = value;
            out.colour[index] = zrvolume::PremultipliedPixel(row0[zrvolume::ScaledOtfIndex(value, length)],
                                                             channelSwitch, inside);
        }
    }
}

// Slab maximum (10), minimum (11) and average (12) of a planar slab (W2-W4).
template <class T>
void SlabProjection(const zrvolume::VoxelGrid<T>& grid, const zrvolume::SlabGeometry& g, int code, int width,
                    int height, const uint32_t* row0, bool channelSwitch, const zrvolume::SliceClipState& clip,
                    const ReferenceTarget& out) {
    const bool clipActive = clip.clipBox || clip.clipPlane;
    for (int r = 0; r < height; ++r) {
        const float t = static_cast<float>(r) / static_cast<float>(height - 1);
        const glm::vec3 left = (1.0f - t) * g.topLeft + t * g.bottomLeft;
        const glm::vec3 right = (1.0f - t) * g.topRight + t * g.bottomRight;
        for (int c = 0; c < width; ++c) {
            const float s = static_cast<float>(c) / static_cast<float>(width - 1);
            glm::vec3 x = (1.0f - s) * left + s * right;
            bool covered = false;
            float maximum = 0.0f, minimum = 3.4028235e38f, sum = 0.0f;
            int count = 0;
            for (int m = 0; m < g.layerCount; ++m) {
                if (clipActive && zrvolume::Clipped(clip, x)) continue;  // the point does not advance
                float sample = 0.0f;
                if (zrvolume::InsideGrid(x, grid.dims)) {
                    sample = zrvolume::SampleTrilinear(grid, x);
                    covered = true;
                }
                maximum = sample > maximum ? sample : maximum;
                minimum = sample < minimum ? sample : minimum;
                if (sample > 0.0f) {
                    sum += sample;
                    ++count;
                }
                x += g.layerStep;
            }
            int32_t value = 0;
            if (code == 10) value = zrvolume::TruncateToInt32(maximum + 0.5f);
            if (code == 11) value = zrvolume::TruncateToInt32(minimum + 0.5f);
            if (code == 12) value = zrvolume::TruncateToInt32(sum / static_cast<float>(count));
            const auto value16 = static_cast<uint16_t>(value);
            const size_t index = static_cast<size_t>(r) * out.pitch + c;
            if (out.values) out.values[index] = value16;
            out.colour[index] = zrvolume::PremultipliedPixel(row0[value16], channelSwitch, covered);
        }
    }
}

inline glm::vec3 UnitOrZero(const glm::vec3& v) {
    const float length = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
    return length > 2.220446e-16f ? v / length : glm::vec3(0.0f);
}

// Thin curved reformation (W6), column by column.
template <class T>
void CurvedThin(const zrvolume::VoxelGrid<T>& grid, const zrvolume::CurvedReformationArgs& args,
                const zrvolume::CurvedSectionGeometry& g, const uint32_t* row0, float length, bool channelSwitch,
                const ReferenceTarget& out) {
    const int n = args.curveCount;
    const int width = args.width, height = args.height;
    const bool clipActive = args.clip.clipBox || args.clip.clipPlane;
    for (int i = 0; i < width; ++i) {
        const float t = static_cast<float>(i) / static_cast<float>(width - 1);
        const float u = (1.0f - t) * g.firstColumnPosition + t * g.lastColumnPosition;
        const float lo = (1.0f - t) * g.firstColumnTop + t * g.lastColumnTop;
        const float hi = (1.0f - t) * g.firstColumnBottom + t * g.lastColumnBottom;
        if (!(u >= 0.0f) || u >= static_cast<float>(n - 1)) continue;
        const int k = zrvolume::FloorToInt(u);
        const float f = u - static_cast<float>(k);
        const int k0 = glm::clamp(k, 0, n - 1), k1 = glm::clamp(k + 1, 0, n - 1);
        const glm::vec3 p = (1.0f - f) * args.curvePoints[k0] + f * args.curvePoints[k1];
        const glm::vec3 up = (1.0f - f) * args.upVectors[k0] + f * args.upVectors[k1];
        const glm::vec3 tangent = (1.0f - f) * args.tangents[k0] + f * args.tangents[k1];
        const glm::vec3 upUnit = UnitOrZero(up);
        glm::vec3 depth = UnitOrZero(glm::cross(upUnit, tangent));
        if (args.rightSide) depth = -depth;
        const glm::vec3 surface = p + g.depthScale * depth;
        const glm::vec3 lateralStep = g.lateralScale * upUnit;
        const float rows = static_cast<float>(height - 1);
        for (int j = 0; j < height; ++j) {
            const float s =
                (static_cast<float>(height - 1 - j) / rows) * lo + (static_cast<float>(j) / rows) * hi;
            if (!(s >= 0.0f) || s > g.lateralExtent) continue;
            const glm::vec3 v =
                zrvolume::TransformPoint(args.worldToVoxel, surface + (s - g.lateralCentre) * lateralStep);
            if (clipActive && zrvolume::Clipped(args.clip, v)) continue;
            const bool inside = zrvolume::InsideGrid(v, grid.dims);
            const float sample = inside ? zrvolume::SampleTrilinear(grid, v) : 0.0f;
            const auto value = static_cast<uint16_t>(zrvolume::TruncateToInt32(sample + 0.5f));
            const size_t index = static_cast<size_t>(j) * out.pitch + i;
            if (out.values) out.values[index] = value;
            out.colour[index] = zrvolume::PremultipliedPixel(row0[zrvolume::ScaledOtfIndex(value, length)],
                                                             channelSwitch, inside);
        }
    }
}

}  // namespace zrreference
