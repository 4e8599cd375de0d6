// Front-to-back shaded compositing of slab layers, shared by the planar slab
// projection and the curved reformation so that a planar and a curved slab of
// the same data look alike.
//
// Per pixel, the layers are visited in order (no early termination). Each layer
// at voxel-space point p with trilinear sample v:
//   e = row[trunc(v * L * (1/65535) + 0.5)]; a layer whose entry has opacity 0
//   adds nothing. alpha = opacity(e) / 255.
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
// coverage byte (255 when any layer point lay inside the volume), not A.
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
// - The value buffer of a composited pixel receives the rounded sample of the
//   middle layer (index (layers - 1) / 2), the layer on the section surface, so
//   value read-outs agree with a thin slice; 0 when that layer was clipped or
//   not reached.
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

// Adds one layer at voxel-space point `p` whose trilinear sample is `sample`
// (0 for a point outside the volume).
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

    const glm::vec3* s = shading.gradientSteps;
    const float gx = ClampedSample(grid, p + s[0]) - ClampedSample(grid, p - s[0]);
    const float gy = ClampedSample(grid, p + s[1]) - ClampedSample(grid, p - s[1]);
    const float gz = ClampedSample(grid, p + s[2]) - ClampedSample(grid, p - s[2]);
    const float magnitude = std::sqrt(gx * gx + gy * gy + gz * gz);
    if (shading.magnitudeWeighted) alpha *= magnitude / shading.magnitudeScale;

    const float norm = magnitude + 0.01f;  // keeps a flat region (g = 0) finite
    const glm::vec3& l = shading.lightDirection;
    const float d = std::fabs(gx / norm * l.x + gy / norm * l.y + gz / norm * l.z);
    const float shade = shading.ambient + shading.diffuse * d + shading.specular * std::pow(d, shading.exponent);

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
