#include "vtk_poly_data.h"

#include <algorithm>
#include <cctype>

#include "input_error.h"

namespace zrio {

namespace {

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Checks that the offsets rise from 0 to the connectivity's end and that every
// index names a point.
void CheckCells(const VtkCells& cells, size_t pointCount, const char* kind, const std::string& path) {
    if (cells.offsets.empty()) return;
    if (cells.offsets.front() != 0 || cells.offsets.back() != static_cast<int64_t>(cells.connectivity.size()) ||
        !std::is_sorted(cells.offsets.begin(), cells.offsets.end()))
        throw InputError(path, std::string("its ") + kind + " offsets do not run through the connectivity list");
    for (const int64_t index : cells.connectivity)
        if (index < 0 || static_cast<uint64_t>(index) >= pointCount)
            throw InputError(path, std::string("a ") + kind + " cell names point " + std::to_string(index) +
                                       ", past the " + std::to_string(pointCount) + " points");
}

}  // namespace

bool IsVtkMeshFile(const std::string& path) {
    const std::string lower = Lower(path);
    return EndsWith(lower, ".vtk") || EndsWith(lower, ".vtp");
}

zrobjects::MeshArrays ReadVtkMeshFile(const std::string& path) {
    const VtkPolyData data = EndsWith(Lower(path), ".vtp") ? ReadVtkXmlPolyData(path) : ReadVtkLegacyPolyData(path);
    const size_t pointCount = data.points.size() / 3;
    if (pointCount == 0) throw InputError(path, "holds no points");
    if (pointCount > UINT32_MAX) throw InputError(path, "holds more points than a mesh can index");
    CheckCells(data.verts, pointCount, "vertex", path);
    CheckCells(data.lines, pointCount, "line", path);
    CheckCells(data.polys, pointCount, "polygon", path);
    CheckCells(data.strips, pointCount, "strip", path);

    zrobjects::MeshArrays mesh;
    mesh.positions.assign(data.points.begin(), data.points.end());
    auto triangle = [&](int64_t a, int64_t b, int64_t c) {
        mesh.indices.insert(mesh.indices.end(),
                            {static_cast<uint32_t>(a), static_cast<uint32_t>(b), static_cast<uint32_t>(c)});
    };
    const auto& polys = data.polys;
    for (size_t cell = 0; cell < polys.Count(); ++cell) {
        const int64_t first = polys.offsets[cell], end = polys.offsets[cell + 1];
        for (int64_t k = first + 1; k + 1 < end; ++k)
            triangle(polys.connectivity[first], polys.connectivity[k], polys.connectivity[k + 1]);
    }
    const auto& strips = data.strips;
    for (size_t cell = 0; cell < strips.Count(); ++cell) {
        const int64_t first = strips.offsets[cell], end = strips.offsets[cell + 1];
        // Every other triangle of a strip turns the other way round.
        for (int64_t k = first; k + 2 < end; ++k) {
            const auto& c = strips.connectivity;
            if ((k - first) % 2 == 0)
                triangle(c[k], c[k + 1], c[k + 2]);
            else
                triangle(c[k + 1], c[k], c[k + 2]);
        }
    }
    if (!mesh.indices.empty()) return mesh;
    if (data.verts.Count() > 0 || (data.lines.Count() == 0 && data.strips.Count() == 0)) {
        mesh.topology = 3;  // a point set
        return mesh;
    }
    throw InputError(path, "holds lines but no faces or vertices; only surfaces and point sets can be drawn");
}

}  // namespace zrio
