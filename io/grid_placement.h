// A voxel-to-world matrix as a file states it, turned into the placement of a
// grid. The reference host places a volume by a general affine matrix, so a
// sheared grid (a non-orthogonal NIfTI sform, a DICOM gantry tilt) is drawn
// exactly as it was written, without resampling.
#pragma once

#include <string>
#include <vector>

#include <glm/glm.hpp>

#include "host/volume_builder.h"

namespace zrio {

// NIfTI and MGH state RAS (x to the patient's right, y anterior); our world is
// LPS. Negates the first two rows.
glm::dmat4 RasToLps(const glm::dmat4& voxelToRas);

// The placement of a grid whose voxel (i, j, k) centre lies at
// voxelToLps * (i, j, k, 1). Throws InputError naming `path` when the matrix is
// not finite or singular (relative to its own scale). Appends a note naming
// the angles between the axes when they are not at right angles.
zrobjects::VolumeGeometry GeometryFromMatrix(const glm::dmat4& voxelToLps, const std::string& path,
                                             std::vector<std::string>& notes);

// The largest distance, in millimetres, between where two voxel-to-world
// matrices put the eight corner voxels of a grid of `dims`.
double LargestCornerDistance(const glm::dmat4& a, const glm::dmat4& b, const glm::ivec3& dims);

}  // namespace zrio
