// Builds volume objects from dense voxel arrays (x fastest, then y, then z).
#pragma once

#include <functional>
#include <memory>
#include <span>

#include <glm/glm.hpp>

#include "zr_visual.h"

namespace zrobjects {

// Placement of the grid in reference space: voxel (i, j, k) is centred at
// origin + direction * (spacing * (i, j, k)). The columns of `direction` are the
// unit axes of the grid; they need not be perpendicular, so a sheared grid (a
// DICOM gantry tilt, whose k axis is the step between slice positions) is
// placed exactly, and `spacing` is the length of each axis's step.
struct VolumeGeometry {
    glm::dvec3 spacing{1.0};
    glm::dvec3 origin{0.0};
    glm::dmat3 direction{1.0};
    // Voxels stored around the grid on each side, filled by repeating the faces.
    // Two on every axis keep every read the kernels can form inside the storage.
    glm::ivec3 margins{2};
};

// Copies `voxels` (dims.x * dims.y * dims.z values) into a new volume object.
// Throws std::invalid_argument for non-positive or too large dimensions, a
// voxel count that does not match, non-positive spacing, or negative margins.
template <class T>
std::shared_ptr<ZrVObjectVolume> MakeVolume(std::span<const T> voxels, glm::ivec3 dims,
                                            const VolumeGeometry& geometry = {});

// The same, with the grid's rows written by `fillRow(z, y, row)` (dims.x
// voxels, in z-major order) straight into the volume's storage: a volume made
// from a file or a conversion needs no second copy of its voxels.
template <class T>
std::shared_ptr<ZrVObjectVolume> MakeVolumeByRows(glm::ivec3 dims, const VolumeGeometry& geometry,
                                                  const std::function<void(int z, int y, T* row)>& fillRow);

// The object-to-reference matrix of a grid placement.
glm::mat4 VolumeObjectToReference(const VolumeGeometry& geometry);

// Voxel (x, y, z) of a volume built by MakeVolume (no bounds test).
template <class T>
T& VoxelAt(VolumeData& data, int x, int y, int z) {
    auto* slice = static_cast<T*>(data.slices[z + data.margins.z]);
    return slice[(x + data.margins.x) + static_cast<size_t>(y + data.margins.y) * data.RowPitch()];
}

}  // namespace zrobjects
