// What a volume holds at a point, as a host reads it for a user: the voxel
// under an LPS position with its real value, and the trilinear sample between
// voxels. Values are real values (stored word - the volume's offset), the
// numbers a user sees everywhere else.
#pragma once

#include <optional>

#include <glm/glm.hpp>

#include "host/zr_visual.h"
#include "voxel_grid.h"

namespace zrio {

// Voxel coordinates (voxel centres at integers) of an LPS world point, for a
// volume placed in the scene with `worldToObject` (the scene entry's).
glm::dvec3 WorldToVoxel(const zrobjects::ZrVObjectVolume& volume, const glm::mat4& worldToObject,
                        const glm::dvec3& world);
glm::dvec3 VoxelToWorld(const zrobjects::ZrVObjectVolume& volume, const glm::mat4& objectToWorld,
                        const glm::dvec3& voxel);

struct VoxelProbe {
    glm::ivec3 index{0};  // the nearest voxel
    double value = 0.0;   // its real value
};

// The nearest voxel to voxel coordinates `voxel`; none when the point lies
// outside the grid (-0.5 .. d - 0.5 on every axis).
std::optional<VoxelProbe> ProbeVoxel(const LoadedVolume& volume, const glm::dvec3& voxel);

// The trilinear sample at voxel coordinates `voxel` in stored words, with
// indices clamped to the grid; none outside the grid.
std::optional<double> SampleStored(const zrobjects::ZrVObjectVolume& volume, const glm::dvec3& voxel);

}  // namespace zrio
