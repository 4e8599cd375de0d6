// Mesh S2 of the third workload set: the latitude-longitude sphere of radius
// 80 mm (1200 longitudes, 900 latitudes: 1,077,602 vertices, 2,155,200
// triangles) that a CT segmentation exports in size, as the two files users
// bring: binary STL (every corner repeated per triangle, 107,760,084 bytes) and
// binary PLY (shared vertices, float32 coordinates, int32 indices).
//
// The files are written once into the build tree's bench-data folder
// (ZR_BENCH_DATA_DIR) and reused; they are never part of the source tree.
#pragma once

#include <string>

#include "host/mesh_builder.h"

namespace zrbench {

inline constexpr size_t kSphereS2Vertices = 1077602;
inline constexpr size_t kSphereS2Triangles = 2155200;

// S2 as arrays, from the host's sphere generator (899 stacks of 1200 slices).
zrobjects::MeshArrays SphereS2Arrays();

// Paths of the cached files, written first when missing or of the wrong size
// (through a temporary name, so an interrupted run leaves no partial file).
// Throw std::runtime_error naming the file when it cannot be written.
std::string SphereS2StlPath();
std::string SphereS2PlyPath();

}  // namespace zrbench
