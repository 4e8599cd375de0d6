// Binary PLY (either byte order) by our own code: a text header naming the
// elements and their properties, then every element's records packed in
// order. Vertices are taken as stored (x, y, z, and nx, ny, nz when all three
// are there; other properties such as colours are skipped), faces from their
// "vertex_indices" (or "vertex_index") list, polygons as triangle fans. A file
// without faces is a point set.
#pragma once

#include <optional>
#include <string>

#include "host/mesh_builder.h"
#include "load_progress.h"

namespace zrio {

// The mesh of a binary PLY, or nothing when the file is an ASCII PLY, which the
// general importer reads. Refused with an InputError naming the file: a header
// that is not PLY or that the data cannot follow (no x, y, z; face indices
// that are not integers), a file that ends before its elements do, a face
// naming a vertex that does not exist, faces with fewer than three corners
// only.
std::optional<zrobjects::MeshArrays> ReadBinaryPly(const std::string& path, LoadProgress* progress = nullptr);

}  // namespace zrio
