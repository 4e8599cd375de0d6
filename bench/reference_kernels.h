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
#include <algorithm>
#include <cstdint>
#include <map>
#include <vector>

#include <glm/glm.hpp>

#include "common/float_convert.h"
#include "common/slice_clip.h"
#include "common/unit_vector.h"
#include "volume/kernels/curved_reformation.h"
#include "volume/kernels/image_upscale.h"
#include "volume/kernels/otf_lookup.h"
#include "volume/kernels/pixel_bytes.h"
#include "volume/kernels/slab_compositing.h"
#include "volume/kernels/slab_projection.h"
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
              const uint32_t* row0, float length, bool channelSwitch, const zrcommon::SliceClipState& clip,
              const ReferenceTarget& out) {
    for (int y = 0; y < height; ++y) {
        const zrvolume::SliceRow ends = zrvolume::RowEnds(corners, y, height);
        for (int x = 0; x < width; ++x) {
            const glm::vec3 p = zrvolume::PixelPoint(ends, x, width);
            if (zrcommon::Clipped(clip, p)) continue;
            const bool inside = zrvolume::InsideGrid(p, grid.dims);
            const float v = inside ? zrvolume::SampleTrilinear(grid, p) : 0.0f;
            const auto value = static_cast<uint16_t>(zrcommon::TruncateToInt32(v));
            const size_t index = static_cast<size_t>(y) * out.pitch + x;
            if (out.values) out.values[index] = value;
            out.colour[index] = zrvolume::PremultipliedPixel(row0[zrvolume::ScaledOtfIndex(value, length)],
                                                             channelSwitch, inside);
        }
    }
}

// Mask-selected tables (W7): the main volume's sample rounded and used as the
// index itself; the mask, read at the same eight neighbours with the main
// grid's layout, labels the pixel when its labelled corners weigh more than
// half, with the first non-zero label from corner 7 down to corner 0.
template <class T>
void MaskedOtfSlice(const zrvolume::VoxelGrid<T>& grid, const zrvolume::VoxelGrid<unsigned char>& mask,
                    const glm::vec3 corners[4], int width, int height, const uint32_t* const* rows,
                    bool channelSwitch, const zrcommon::SliceClipState& clip, const ReferenceTarget& out) {
    for (int y = 0; y < height; ++y) {
        const zrvolume::SliceRow ends = zrvolume::RowEnds(corners, y, height);
        for (int x = 0; x < width; ++x) {
            const glm::vec3 p = zrvolume::PixelPoint(ends, x, width);
            if (zrcommon::Clipped(clip, p)) continue;
            const bool inside = zrvolume::InsideGrid(p, grid.dims);
            float v = 0.0f;
            int label = 0;
            if (inside) {
                const zrvolume::TrilinearCell cell = zrvolume::MakeTrilinearCell(p, grid.dims);
                v = zrvolume::SampleCell(grid, cell);
                float labelled = 0.0f;
                for (int k = 0; k < 8; ++k)
                    if (zrvolume::CornerValue(mask, cell, k) != 0) labelled += cell.weight[k];
                if (labelled > 0.5f)
                    for (int k = 7; k >= 0 && label == 0; --k) label = zrvolume::CornerValue(mask, cell, k);
            }
            const auto index = static_cast<uint16_t>(zrcommon::TruncateToInt32(v + 0.5f));
            const size_t at = static_cast<size_t>(y) * out.pitch + x;
            if (out.values) out.values[at] = index;
            const uint32_t e = rows[label][index];
            if (label == 0) {
                out.colour[at] = zrvolume::PremultipliedPixel(e, channelSwitch, inside);
                continue;
            }
            const uint32_t b = rows[0][index];
            const float ae = static_cast<float>(e >> 24) / 255.0f;
            uint32_t word = 0xff000000u;
            for (int c = 0; c < 3; ++c) {
                const float baseChannel = static_cast<float>((b >> (8 * c)) & 0xffu);
                const float entryChannel = static_cast<float>((e >> (8 * c)) & 0xffu);
                const float sum = baseChannel * (1.0f - ae) * static_cast<float>(b >> 24) +
                                  entryChannel * static_cast<float>(e >> 24);
                const auto byte = static_cast<uint32_t>(zrcommon::TruncateToInt32(sum * zrvolume::kInverse255)) & 0xffu;
                word |= byte << (8 * (2 - c));  // c2 to byte 0, c0 to byte 2
            }
            out.colour[at] = word;
        }
    }
}

// Label overlay (W8): the label with the largest summed weight among the
// eight neighbours (ties to the smaller label), kept when it weighs more than
// half, looked up with the factor before the row length; a visible entry
// tints the existing pixel by 50/255, its bytes 0 and 2 crossed.
template <class T>
void LabelOverlay(const zrvolume::VoxelGrid<T>& grid, const glm::vec3 corners[4], int width, int height,
                  const uint32_t* row0, float length, const zrcommon::SliceClipState& clip, const ReferenceTarget& out) {
    for (int y = 0; y < height; ++y) {
        const zrvolume::SliceRow ends = zrvolume::RowEnds(corners, y, height);
        for (int x = 0; x < width; ++x) {
            const glm::vec3 p = zrvolume::PixelPoint(ends, x, width);
            if (zrcommon::Clipped(clip, p) || !zrvolume::InsideGrid(p, grid.dims)) continue;
            const zrvolume::TrilinearCell cell = zrvolume::MakeTrilinearCell(p, grid.dims);
            std::map<T, float> sums;
            for (int k = 0; k < 8; ++k) sums[zrvolume::CornerValue(grid, cell, k)] += cell.weight[k];
            T label = 0;
            float best = -1.0f;
            for (const auto& [value, sum] : sums)
                if (sum > best) {
                    label = value;
                    best = sum;
                }
            if (!(best > 0.5f)) label = 0;
            const auto s = static_cast<uint16_t>(zrcommon::TruncateToInt32(static_cast<float>(label) + 0.5f));
            const int32_t index = zrcommon::TruncateToInt32(static_cast<float>(s) * zrvolume::kInverse65535 * length + 0.5f);
            const uint32_t e = row0[index];
            if ((e >> 24) == 0) continue;
            uint32_t& pixel = out.colour[static_cast<size_t>(y) * out.pitch + x];
            const uint32_t old = pixel;
            uint32_t word = 0xff000000u;
            for (int b = 0; b < 3; ++b) {
                const float sum = static_cast<float>((old >> (8 * (2 - b))) & 0xffu) * 0.8039216f +
                                  static_cast<float>((e >> (8 * (2 - b))) & 0xffu) * 0.19607845f;
                word |= (static_cast<uint32_t>(zrcommon::TruncateToInt32(sum)) & 0xffu) << (8 * b);
            }
            pixel = word;
        }
    }
}

// Float grey slice (W9, W9c): the sample mapped through the window (single
// precision) or, when `curve` is not null, the piecewise-linear curve (double
// precision, normalised by its first and last points).
inline void FloatGreySlice(const zrvolume::VoxelGrid<float>& grid, const glm::vec3 corners[4], int width, int height,
                           const std::vector<glm::dvec2>* curve, float centre, float windowWidth,
                           const ReferenceTarget& out) {
    const float lo = centre - windowWidth * 0.5f, hi = centre + windowWidth * 0.5f;
    const float scale = 255.0f / windowWidth;
    for (int y = 0; y < height; ++y) {
        const zrvolume::SliceRow ends = zrvolume::RowEnds(corners, y, height);
        for (int x = 0; x < width; ++x) {
            const glm::vec3 p = zrvolume::PixelPoint(ends, x, width);
            const bool inside = zrvolume::InsideGrid(p, grid.dims);
            const float v = inside ? zrvolume::SampleTrilinear(grid, p) : 0.0f;
            int32_t g = 0;
            if (curve) {
                const std::vector<glm::dvec2>& c = *curve;
                const double d = v;
                if (d <= c.front().x) {
                    g = 0;
                } else if (d >= c.back().x) {
                    g = 255;
                } else {
                    size_t upper = 1;
                    while (upper + 1 < c.size() && c[upper].x < d) ++upper;
                    const glm::dvec2 lo = c[upper - 1], hi = c[upper];
                    double m = (d - lo.x) * (hi.y - lo.y) / (hi.x - lo.x) + lo.y;
                    m = std::min(std::max(m, c.front().y), c.back().y);
                    g = zrcommon::TruncateToInt32((m - c.front().y) / (c.back().y - c.front().y) * 255.0);
                }
            } else if (v > lo) {
                g = zrcommon::TruncateToInt32(std::min((v - lo) * scale, 255.0f));
            } else {
                g = v > hi ? 255 : 0;
            }
            const uint32_t grey = static_cast<uint32_t>(g) & 0xffu;
            out.colour[static_cast<size_t>(y) * out.pitch + x] =
                grey | (grey << 8) | (grey << 16) | (inside ? 0xff000000u : 0u);
        }
    }
}

// Slab maximum (10), minimum (11) and average (12) of a planar slab (W2-W4).
template <class T>
void SlabProjection(const zrvolume::VoxelGrid<T>& grid, const zrvolume::SlabGeometry& g, int code, int width,
                    int height, const uint32_t* row0, bool channelSwitch, const zrcommon::SliceClipState& clip,
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
                if (clipActive && zrcommon::Clipped(clip, x)) continue;  // the point does not advance
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
            if (code == 10) value = zrcommon::TruncateToInt32(maximum + 0.5f);
            if (code == 11) value = zrcommon::TruncateToInt32(minimum + 0.5f);
            if (code == 12) value = zrcommon::TruncateToInt32(sum / static_cast<float>(count));
            const auto value16 = static_cast<uint16_t>(value);
            const size_t index = static_cast<size_t>(r) * out.pitch + c;
            if (out.values) out.values[index] = value16;
            out.colour[index] = zrvolume::PremultipliedPixel(row0[value16], channelSwitch, covered);
        }
    }
}

// Planar shaded compositing (codes 0 and 1, W10) without clipping: the planar
// member of slab_compositing.h, pixel by pixel.
template <class T>
void SlabCompositing(const zrvolume::VoxelGrid<T>& grid, const zrvolume::SlabGeometry& g,
                     const zrvolume::CompositingShading& shading, int width, int height, const uint32_t* row0,
                     bool channelSwitch, const ReferenceTarget& out) {
    for (int r = 0; r < height; ++r) {
        const float t = static_cast<float>(r) / static_cast<float>(height - 1);
        const glm::vec3 left = (1.0f - t) * g.topLeft + t * g.bottomLeft;
        const glm::vec3 right = (1.0f - t) * g.topRight + t * g.bottomRight;
        for (int c = 0; c < width; ++c) {
            const float s = static_cast<float>(c) / static_cast<float>(width - 1);
            const glm::vec3 start = (1.0f - s) * left + s * right;
            const size_t index = static_cast<size_t>(r) * out.pitch + c;
            if (out.values) {
                const glm::vec3 p = start + (0.5f * static_cast<float>(g.layerCount - 1)) * g.layerStep;
                const float v = zrvolume::InsideGrid(p, grid.dims) ? zrvolume::SampleTrilinear(grid, p) : 0.0f;
                out.values[index] = static_cast<uint16_t>(zrcommon::TruncateToInt32(v + 0.5f));
            }
            glm::vec3 x = start + zrvolume::PlanarLayerJitter(r, c) * g.layerStep;
            bool covered = false;
            zrvolume::CompositeAccumulator acc;
            for (int m = 0; m < g.layerCount && acc.opacity < zrvolume::kPlanarOpaqueEnough; ++m) {
                float sample = 0.0f;
                if (zrvolume::InsideGrid(x, grid.dims)) {
                    sample = zrvolume::SampleTrilinear(grid, x);
                    covered = true;
                }
                zrvolume::CompositePlanarLayer(shading, grid, zrvolume::PlanarLayerEntry<T>(row0, sample), x, acc);
                x += g.layerStep;
            }
            out.colour[index] = zrvolume::CompositedPixel(acc, channelSwitch, covered);
        }
    }
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
        const glm::vec3 upUnit = zrcommon::UnitOrZero(up);
        glm::vec3 depth = zrcommon::UnitOrZero(glm::cross(upUnit, tangent));
        if (args.rightSide) depth = -depth;
        const glm::vec3 surface = p + g.depthScale * depth;
        const glm::vec3 lateralStep = g.lateralScale * upUnit;
        const float rows = static_cast<float>(height - 1);
        for (int j = 0; j < height; ++j) {
            const float s =
                (static_cast<float>(height - 1 - j) / rows) * lo + (static_cast<float>(j) / rows) * hi;
            if (!(s >= 0.0f) || s > g.lateralExtent) continue;
            const glm::vec3 v =
                zrcommon::TransformPoint(args.worldToVoxel, surface + (s - g.lateralCentre) * lateralStep);
            if (clipActive && zrcommon::Clipped(args.clip, v)) continue;
            const bool inside = zrvolume::InsideGrid(v, grid.dims);
            const float sample = inside ? zrvolume::SampleTrilinear(grid, v) : 0.0f;
            const auto value = static_cast<uint16_t>(zrcommon::TruncateToInt32(sample + 0.5f));
            const size_t index = static_cast<size_t>(j) * out.pitch + i;
            if (out.values) out.values[index] = value;
            out.colour[index] = zrvolume::PremultipliedPixel(row0[zrvolume::ScaledOtfIndex(value, length)],
                                                             channelSwitch, inside);
        }
    }
}

// Curved slab maximum (10, W11), minimum (11) and average (12), column by
// column.
template <class T>
void CurvedSlab(const zrvolume::VoxelGrid<T>& grid, const zrvolume::CurvedReformationArgs& args,
                const zrvolume::CurvedSectionGeometry& g, int code, const uint32_t* row0, float length,
                bool channelSwitch, const ReferenceTarget& out) {
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
        const glm::vec3 upUnit = zrcommon::UnitOrZero(up);
        glm::vec3 depth = zrcommon::UnitOrZero(glm::cross(upUnit, tangent));
        if (args.rightSide) depth = -depth;
        const glm::vec3 surface = p + g.depthScale * depth;
        const glm::vec3 front = surface - (0.5f * g.slabSpan) * depth;
        const glm::vec3 lateralStep = g.lateralScale * upUnit;
        const float rows = static_cast<float>(height - 1);
        for (int j = 0; j < height; ++j) {
            const float s =
                (static_cast<float>(height - 1 - j) / rows) * lo + (static_cast<float>(j) / rows) * hi;
            if (!(s >= 0.0f) || s > g.lateralExtent) continue;
            const glm::vec3 base = front + (s - g.lateralCentre) * lateralStep;
            bool covered = false;
            float maximum = 0.0f, minimum = 3.4028235e38f, sum = 0.0f;
            int counted = 0;
            for (int m = 0; m <= g.lastLayer; ++m) {
                const glm::vec3 v = zrcommon::TransformPoint(
                    args.worldToVoxel, base + (static_cast<float>(m) * g.layerStep) * depth);
                if (clipActive && zrcommon::Clipped(args.clip, v)) continue;  // not counted
                float sample = 0.0f;
                if (zrvolume::InsideGrid(v, grid.dims)) {
                    sample = zrvolume::SampleTrilinear(grid, v);
                    covered = true;
                }
                maximum = sample > maximum ? sample : maximum;
                minimum = sample < minimum ? sample : minimum;
                sum += sample;
                ++counted;
            }
            int32_t value = 0;
            if (code == 10) value = zrcommon::TruncateToInt32(maximum + 0.5f);
            if (code == 11)
                value = zrcommon::TruncateToInt32((minimum == 3.4028235e38f ? 0.0f : minimum) + 0.5f);
            if (code == 12) value = zrcommon::TruncateToInt32(sum / static_cast<float>(counted));
            const auto value16 = static_cast<uint16_t>(value);
            const size_t index = static_cast<size_t>(j) * out.pitch + i;
            if (out.values) out.values[index] = value16;
            out.colour[index] = zrvolume::PremultipliedPixel(row0[zrvolume::ScaledOtfIndex(value16, length)],
                                                             channelSwitch, covered);
        }
    }
}

// Iso-contour lists (W5): marching squares over a one-voxel grid laid from the
// plane's first corner, every cell sampling its own four corners; the segment
// ends projected by `voxelToScreen` and appended as x0, y0, x1, y1.
template <class T>
std::vector<double> IsoContourList(const zrvolume::VoxelGrid<T>& grid, const zrcommon::Matrix16& planeToVoxel,
                                   const glm::vec3 planeCorners[4], int iso,
                                   const zrcommon::Matrix16& voxelToScreen) {
    // Case index (bit 0: P00 below, bit 1: P10, bit 2: P01, bit 3: P11) to the
    // crossed edge pairs (0: P00-P10, 1: P00-P01, 2: P10-P11, 3: P01-P11).
    static constexpr int kRule[16] = {0, 1, 2, 5, 3, 6, 8, 4, 4, 7, 6, 3, 5, 2, 1, 0};
    static constexpr int kPairs[9][2][2] = {{}, {{0, 1}}, {{0, 2}}, {{1, 3}}, {{2, 3}},
                                            {{1, 2}}, {{0, 3}}, {{0, 1}, {2, 3}}, {{0, 2}, {1, 3}}};
    static constexpr int kCount[9] = {0, 1, 1, 1, 1, 1, 1, 2, 2};
    const glm::vec3 origin = zrcommon::TransformPoint(planeToVoxel, planeCorners[0]);
    const glm::vec3 rowEnd = zrcommon::TransformPoint(planeToVoxel, planeCorners[1]);
    const glm::vec3 lastPixel = zrcommon::TransformPoint(planeToVoxel, planeCorners[3]);
    const glm::vec3 across = rowEnd - origin, down = lastPixel - rowEnd;
    const float acrossLength = std::sqrt(across.x * across.x + across.y * across.y + across.z * across.z);
    const float downLength = std::sqrt(down.x * down.x + down.y * down.y + down.z * down.z);
    const glm::vec3 u(across.x / acrossLength, across.y / acrossLength, across.z / acrossLength);
    const glm::vec3 v(down.x / downLength, down.y / downLength, down.z / downLength);
    const int cellsAcross = zrcommon::TruncateToInt32(acrossLength);
    const int cellsDown = zrcommon::TruncateToInt32(downLength);
    const auto gridPoint = [&](int i, int j) {
        return origin + static_cast<float>(i) * u + static_cast<float>(j) * v;
    };
    const auto crossing = [&](const glm::vec3& pa, const glm::vec3& pb, int sa, int sb) {
        const float t = static_cast<float>(sa - iso) / static_cast<float>(sa - sb);
        return glm::vec3((1.0f - t) * pa.x + t * pb.x, (1.0f - t) * pa.y + t * pb.y, (1.0f - t) * pa.z + t * pb.z);
    };
    const auto toScreen = [&](const glm::vec3& p, std::vector<double>& out) {
        const float w = zrcommon::RecordRow(voxelToScreen, 3, p);
        out.push_back(double(zrcommon::RecordRow(voxelToScreen, 0, p) / w));
        out.push_back(double(zrcommon::RecordRow(voxelToScreen, 1, p) / w));
    };
    std::vector<double> list;
    for (int j = 0; j < cellsDown; ++j) {
        for (int i = 0; i < cellsAcross; ++i) {
            const glm::vec3 p[4] = {gridPoint(i, j), gridPoint(i + 1, j), gridPoint(i, j + 1), gridPoint(i + 1, j + 1)};
            if (!zrvolume::InsideGrid(p[0], grid.dims)) continue;
            int s[4];
            for (int k = 0; k < 4; ++k) s[k] = zrcommon::TruncateToInt32(zrvolume::SampleTrilinear(grid, p[k]));
            const int rule = kRule[(s[0] < iso ? 1 : 0) | (s[1] < iso ? 2 : 0) | (s[2] < iso ? 4 : 0) |
                                   (s[3] < iso ? 8 : 0)];
            // Edge e joins corners kEnds[e][0] and kEnds[e][1].
            static constexpr int kEnds[4][2] = {{0, 1}, {0, 2}, {1, 3}, {2, 3}};
            for (int k = 0; k < kCount[rule]; ++k)
                for (int end = 0; end < 2; ++end) {
                    const int e = kPairs[rule][k][end];
                    const int a = kEnds[e][0], b = kEnds[e][1];
                    toScreen(crossing(p[a], p[b], s[a], s[b]), list);
                }
        }
    }
    return list;
}

// Bilinear enlargement (the fast quality mode's up-scale) on a cleared
// destination: destination row r reads source rows floor(r sy) and the one
// below with fy = r sy - floor(r sy); along the row a fraction fx starts at 0,
// the source column advances by one whenever fx >= 1 (fx -= 1), and fx += sx
// after each pixel; each byte (and the value) is
// (s00 (1 - fx) + s01 fx)(1 - fy) + (s10 (1 - fx) + s11 fx) fy, truncated.
inline void UpscaleImage(const zrvolume::ImageUpscaleArgs& a) {
    const auto bilinear = [](float s00, float s01, float s10, float s11, float fx, float fy) {
        return (s00 * (1.0f - fx) + s01 * fx) * (1.0f - fy) + (s10 * (1.0f - fx) + s11 * fx) * fy;
    };
    for (int r = 0; r < a.rowCount; ++r) {
        const float y = static_cast<float>(r) * a.sy;
        const int y0 = zrvolume::FloorToInt(y);
        const float fy = y - static_cast<float>(y0);
        const ptrdiff_t upper = static_cast<ptrdiff_t>(y0) * a.pitch, lower = upper + a.pitch;
        const ptrdiff_t rowStart = static_cast<ptrdiff_t>(a.rowOffset + r) * a.pitch;
        float fx = 0.0f;
        int col = 0;
        for (int x = a.x0; x < a.x1; ++x) {
            if (fx >= 1.0f) {
                fx -= 1.0f;
                ++col;
            }
            uint32_t pixel = 0;
            for (int b = 0; b < 4; ++b) {
                const float v = bilinear(
                    zrvolume::Byte(a.source[upper + col], b), zrvolume::Byte(a.source[upper + col + 1], b),
                    zrvolume::Byte(a.source[lower + col], b), zrvolume::Byte(a.source[lower + col + 1], b), fx, fy);
                pixel |= zrvolume::TruncatedByte(v) << (8 * b);
            }
            a.destination[rowStart + x] = pixel;
            if (a.sourceValues && a.destinationValues) {
                const float v = bilinear(a.sourceValues[upper + col], a.sourceValues[upper + col + 1],
                                         a.sourceValues[lower + col], a.sourceValues[lower + col + 1], fx, fy);
                a.destinationValues[rowStart + x] = static_cast<uint16_t>(zrcommon::TruncateToInt32(v));
            }
            fx += a.sx;
        }
    }
}

}  // namespace zrreference
