// VTK polygonal data (legacy .vtk and XML .vtp files, as segmentation tools
// export surfaces): points and cell arrays as the file gives them, and the
// mesh they make. Polygons become triangle fans, strips their triangles; a
// file with vertices but no faces becomes a point set.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/mesh_builder.h"

namespace zrio {

struct VtkCells {
    std::vector<int64_t> offsets;       // cell c is connectivity[offsets[c] .. offsets[c + 1])
    std::vector<int64_t> connectivity;  // point indices
    size_t Count() const { return offsets.empty() ? 0 : offsets.size() - 1; }
};

struct VtkPolyData {
    std::vector<double> points;  // three per point
    VtkCells verts, lines, polys, strips;
};

bool IsVtkMeshFile(const std::string& path);

// Reads a legacy .vtk or XML .vtp polydata file. Throws InputError naming the
// file: another dataset kind, a damaged or truncated file, an index past the
// points.
zrobjects::MeshArrays ReadVtkMeshFile(const std::string& path);

VtkPolyData ReadVtkLegacyPolyData(const std::string& path);
VtkPolyData ReadVtkXmlPolyData(const std::string& path);

}  // namespace zrio
