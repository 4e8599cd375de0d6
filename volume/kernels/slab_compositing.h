// Front-to-back shaded compositing of slab layers: the scheme the curved
// reformation's slab and the planar slab projection share, and the two members
// built on it.
//
// Shared per-layer rule, at voxel-space point p with trilinear sample v and
// table entry e (how e is found is the member's):
//   a layer whose entry has opacity 0 adds nothing (its gradient is not taken).
//   alpha = opacity(e) / 255.
//   g = (f(p + sx) - f(p - sx), f(p + sy) - f(p - sy), f(p + sz) - f(p - sz)),
//   unhalved central differences over one voxel along each voxel axis, where f
//   samples the volume at the point clamped into [0, d - 1] on each axis (so a
//   gradient never reads outside the voxel grid and falls off to zero across
//   the volume's faces).
//   With magnitude weighting, alpha *= |g| / G.
//   d = |(g / (|g| + 0.01)) . Ldir|, shade = k0 + k1 d + k2 d^k3.
//   Each accumulated channel += c * alpha * shade * (1 - A), c = entry byte / 255;
//   then A += alpha * (1 - A).
// Output: channel and A bytes = min(255, trunc(x * 255)) (negative results give
// 0), colour bytes then multiplied by A_byte / 255 and truncated; byte 3 is the
// coverage byte (255 when a visited layer point lay inside the volume), not A.
//
// Curved member (curved_reformation.h), exactly as above: e = row[trunc(v * L
// * (1/65535) + 0.5)], the weighted alpha is not limited, every layer is
// visited.
//
// Planar member (slab_projection.h), defined for looks and speed:
// - e = row[round(v)]: the rounded sample indexes the row directly, as the
//   family's maximum, minimum and average do (rows hold 65536 entries);
// - the weighted alpha is limited to 1 (a steep edge is opaque, not more);
// - the specular term is left out when k2 is 0;
// - pixel (r, c) starts its march PlanarLayerJitter(r, c) layer steps (in
//   [-0.5, 0.5)) from the slab's first layer, a fixed R2 dither pattern:
//   without it the layers sit at the same depth in every pixel and draw
//   contour bands across any surface the slab cuts at an angle;
// - the march stops after the layer that brings A to 511/512 or more.
// The value buffer of a planar composited pixel receives the rounded sample on
// the section plane (the slab's middle, start + (layers - 1) / 2 steps, without
// the offset), so value read-outs agree with a thin slice; 0 when that point is
// clipped or outside the volume. The curved member stores the rounded sample
// of its middle layer (index (layers - 1) / 2), 0 when that layer was clipped.
//
// Choices made by this scheme:
// - Ldir is the viewing direction in voxel space, normalised (planar slab: the
//   layer step; curved: see curved_reformation.h). Only |cos| enters, so its
//   sign does not matter.
// - G is the second component (the maximum) of the volume object's
//   "_float2_GraidentMagMinMax" (a glm::vec2), so the steepest edge of the
//   volume keeps its table opacity. When the parameter is absent, or its maximum
//   is not a positive finite number, the magnitude weighting is switched off
//   (alpha stays the table opacity) instead of dividing by a made-up scale. A
//   value of another type throws std::bad_any_cast.
#pragma once

#include <cmath>
#include <cstdint>
#include <type_traits>

#include <glm/glm.hpp>

#include "common/float_convert.h"
#include "host/zr_image.h"
#include "host/zr_object.h"
#include "volume/kernels/otf_lookup.h"
#include "volume/kernels/voxel_sampling.h"

namespace zrvolume {

// Everything a layer needs, captured once per kernel call.
struct CompositingShading {
    float ambient = 0.2f;   // k0
    float diffuse = 1.0f;   // k1
    float specular = 0.5f;  // k2
    float exponent = 5.0f;  // k3
    glm::vec3 lightDirection{0.0f, 0.0f, 1.0f};  // Ldir, voxel space, unit length (or zero)
    glm::vec3 gradientSteps[3] = {{1.0f, 0.0f, 0.0f}, {0.0f, 1.0f, 0.0f}, {0.0f, 0.0f, 1.0f}};
    bool magnitudeWeighted = false;  // alpha *= |g| / magnitudeScale
    float magnitudeScale = 1.0f;     // G
};

// Set-up: `phong` = (ambient, diffuse, specular, exponent); `gradientMagnitude`
// asks for the magnitude weighting, which is enabled only when `volume` carries
// a usable "_float2_GraidentMagMinMax"; `viewDirectionVoxel` is normalised here
// (a zero vector stays zero, giving d = 0 and shade = k0).
CompositingShading MakeCompositingShading(zrobjects::ZrObject& volume, const glm::vec4& phong,
                                          bool gradientMagnitude, const glm::vec3& viewDirectionVoxel);

// Running sums of one pixel.
struct CompositeAccumulator {
    float channel[3] = {0.0f, 0.0f, 0.0f};  // entry channels c0, c1, c2
    float opacity = 0.0f;                   // A
};

// A coordinate limited to [0, last]; not-a-number gives 0, so a degenerate
// point (a one-pixel image axis, a singular matrix) still reads inside the grid.
inline float ClampedCoordinate(float v, int last) {
    const float upper = static_cast<float>(last);
    return v > 0.0f ? (v < upper ? v : upper) : 0.0f;
}

// The trilinear sample at `p` moved into the grid: each coordinate clamped to
// [0, d - 1], which keeps every index (z included) inside the voxel grid.
template <class T>
inline float ClampedSample(const VoxelGrid<T>& grid, const glm::vec3& p) {
    const glm::vec3 q(ClampedCoordinate(p.x, grid.dims.x - 1), ClampedCoordinate(p.y, grid.dims.y - 1),
                      ClampedCoordinate(p.z, grid.dims.z - 1));
    return SampleTrilinear(grid, q);
}

// The unhalved central-difference gradient g at `p` (each of its six samples
// clamped into the grid, see ClampedSample), its length |g| and the facing
// d = |(g / (|g| + 0.01)) . Ldir| that the shading uses; the +0.01 keeps a flat
// region (g = 0) finite.
struct SurfaceFacing {
    float magnitude = 0.0f;  // |g|
    float facing = 0.0f;     // d
};

template <class T>
inline SurfaceFacing FacingAt(const CompositingShading& shading, const VoxelGrid<T>& grid, const glm::vec3& p) {
    const glm::vec3* s = shading.gradientSteps;
    const float gx = ClampedSample(grid, p + s[0]) - ClampedSample(grid, p - s[0]);
    const float gy = ClampedSample(grid, p + s[1]) - ClampedSample(grid, p - s[1]);
    const float gz = ClampedSample(grid, p + s[2]) - ClampedSample(grid, p - s[2]);
    SurfaceFacing f;
    f.magnitude = std::sqrt(gx * gx + gy * gy + gz * gz);
    const float norm = f.magnitude + 0.01f;
    const glm::vec3& l = shading.lightDirection;
    f.facing = std::fabs(gx / norm * l.x + gy / norm * l.y + gz / norm * l.z);
    return f;
}

// Curved member: adds one layer at voxel-space point `p` whose trilinear sample
// is `sample` (0 for a point outside the volume), through the scaled lookup,
// with the magnitude weight unlimited and every layer visited.
template <class T>
inline void CompositeLayer(const CompositingShading& shading, const VoxelGrid<T>& grid,
                           const uint32_t* otfRow, float otfLength, const glm::vec3& p, float sample,
                           CompositeAccumulator& acc) {
    // A signed volume can sample below zero; such samples read entry 0 instead
    // of an index in front of the row. Unsigned samples are never negative.
    float v = sample;
    if constexpr (std::is_signed_v<T>) v = v < 0.0f ? 0.0f : v;
    const uint32_t entry = otfRow[zrcommon::TruncateToInt32(v * otfLength * kInverse65535 + 0.5f)];
    if (EntryOpacity(entry) == 0) return;
    float alpha = static_cast<float>(EntryOpacity(entry)) * kInverse255;

    const SurfaceFacing f = FacingAt(shading, grid, p);
    if (shading.magnitudeWeighted) alpha *= f.magnitude / shading.magnitudeScale;
    const float d = f.facing;
    const float shade = shading.ambient + shading.diffuse * d + shading.specular * std::pow(d, shading.exponent);

    const float transmitted = 1.0f - acc.opacity;
    for (int c = 0; c < 3; ++c) {
        const float colour = static_cast<float>(EntryChannel(entry, c)) * kInverse255;
        acc.channel[c] += colour * alpha * shade * transmitted;
    }
    acc.opacity += alpha * transmitted;
}

// ---- Planar member (planar slab, codes 0 and 1) ----

// The march of a pixel stops once A reaches this (511/512): the layers behind
// could still add at most 1/512 of opacity and of shaded colour, less than one
// step of an output byte for shade factors up to 2.
constexpr float kPlanarOpaqueEnough = 0.998046875f;

// Multipliers of the layer-start offset: 2^32 / g and 2^32 / g^2 (g = 1.3247...,
// the plastic number) as odd 32-bit integers, the two-dimensional R2
// low-discrepancy sequence in fixed point.
constexpr uint32_t kJitterColumn = 0xC13FA9A9u;
constexpr uint32_t kJitterRow = 0x91E10DA5u;

// The offset of pixel (row, column)'s first layer, in layer steps, in
// [-0.5, 0.5): h = column * kJitterColumn + row * kJitterRow (mod 2^32), offset
// = (h >> 8) / 2^24 - 0.5. Neighbouring pixels get well spread offsets, so the
// fixed layer depths that would draw contour bands ("wood grain") on a surface
// cut at an angle become fine, even grain instead; the pattern is fixed, the
// same for every frame and thread count. Every step is exact in float.
inline float PlanarLayerJitter(int row, int column) {
    const uint32_t h = static_cast<uint32_t>(column) * kJitterColumn + static_cast<uint32_t>(row) * kJitterRow;
    return static_cast<float>(h >> 8) * 0x1p-24f - 0.5f;
}

// The table entry of a planar layer: the rounded sample's low 16 bits index the
// row directly, as for the family's other members (negative samples of signed
// volumes read entry 0).
template <class T>
inline uint32_t PlanarLayerEntry(const uint32_t* otfRow, float sample) {
    float v = sample;
    if constexpr (std::is_signed_v<T>) v = v < 0.0f ? 0.0f : v;
    return otfRow[static_cast<uint16_t>(zrcommon::TruncateToInt32(v + 0.5f))];
}

// Adds one planar layer at `p` with table entry `entry`: nothing (and no
// gradient) when its opacity is 0. alpha = opacity / 255, with magnitude
// weighting min(1, alpha * (|g| / G)), so that a steep edge is opaque but never
// more than opaque. shade = k0 + k1 d, plus k2 d^k3 when k2 is not 0.
template <class T>
inline void CompositePlanarLayer(const CompositingShading& shading, const VoxelGrid<T>& grid, uint32_t entry,
                                 const glm::vec3& p, CompositeAccumulator& acc) {
    if (EntryOpacity(entry) == 0) return;
    float alpha = static_cast<float>(EntryOpacity(entry)) * kInverse255;
    const SurfaceFacing f = FacingAt(shading, grid, p);
    if (shading.magnitudeWeighted) {
        alpha *= f.magnitude / shading.magnitudeScale;
        alpha = alpha < 1.0f ? alpha : 1.0f;
    }
    const float d = f.facing;
    float shade = shading.ambient + shading.diffuse * d;
    if (shading.specular != 0.0f) shade = shade + shading.specular * std::pow(d, shading.exponent);

    const float transmitted = 1.0f - acc.opacity;
    for (int c = 0; c < 3; ++c) {
        const float colour = static_cast<float>(EntryChannel(entry, c)) * kInverse255;
        acc.channel[c] += colour * alpha * shade * transmitted;
    }
    acc.opacity += alpha * transmitted;
}

// The output pixel of a finished accumulation.
uint32_t CompositedPixel(const CompositeAccumulator& acc, bool channelSwitch, bool covered);

// The output buffers of the two thick-section families, resolved once per call.
struct ThickSectionTarget {
    uint32_t* colour = nullptr;
    uint16_t* values = nullptr;  // null when absent
    int pitch = 0;               // pixels per row of both buffers
};

// Colour buffer (usage 1, colourIndex) and value buffer (usage 3, valueIndex when
// >= 0; ignored unless it holds 2-byte elements with the colour buffer's pitch).
// False when the colour buffer is missing or smaller than width x height.
bool ResolveThickSectionTarget(zrobjects::ZrIObject& image, int colourIndex, int valueIndex, int width,
                               int height, ThickSectionTarget& target);

}  // namespace zrvolume
