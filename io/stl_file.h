// Binary STL by our own code: an 80-byte header, a 32-bit triangle count and
// 50 bytes per triangle (normal, three corners, attribute word), every corner
// repeated per triangle and welded here into shared vertices
// (corner_welding.h). The facet normals are not kept: a welded vertex belongs
// to several facets.
#pragma once

#include <optional>
#include <string>

#include "host/mesh_builder.h"
#include "load_progress.h"

namespace zrio {

// The mesh of a binary STL, or nothing when the file is an ASCII STL (text
// beginning with "solid"), which the general importer reads. A binary file
// must be exactly as long as its triangle count says; anything else, a corner
// that is not a finite number or a file without triangles is refused with an
// InputError naming the file.
std::optional<zrobjects::MeshArrays> ReadBinaryStl(const std::string& path, LoadProgress* progress = nullptr);

}  // namespace zrio
