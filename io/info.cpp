#include "info.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>

#include "mesh_files.h"
#include "volume_files.h"

namespace zrio {

namespace {

std::string Format(const char* format, double a, double b, double c) {
    char text[160];
    std::snprintf(text, sizeof(text), format, a, b, c);
    return text;
}

}  // namespace

bool IsMeshFileName(const std::string& path) {
    std::string ext = std::filesystem::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    for (const char* known : {".stl", ".obj", ".ply", ".gltf", ".glb", ".off", ".fbx", ".dae", ".3ds"})
        if (ext == known) return true;
    return false;
}

std::string DescribeFile(const std::string& path) {
    std::string text = path + "\n";
    if (IsMeshFileName(path)) {
        const MeshFileInfo info = ReadMeshFileInfo(path);
        text += "  kind:      mesh\n";
        text += "  meshes:    " + std::to_string(info.meshes) + "\n";
        text += "  vertices:  " + std::to_string(info.vertices) + "\n";
        text += "  triangles: " + std::to_string(info.triangles) + (info.triangles ? "" : " (point set)") + "\n";
        text += std::string("  normals:   ") + (info.hasNormals ? "yes" : "no") + "\n";
        text += Format("  bounds:    %.3f %.3f %.3f", info.boundsMin.x, info.boundsMin.y, info.boundsMin.z) +
                Format(" .. %.3f %.3f %.3f\n", info.boundsMax.x, info.boundsMax.y, info.boundsMax.z);
        return text;
    }
    const VolumeFileInfo info = ReadVolumeFileInfo(path);
    const auto& g = info.geometry;
    text += "  kind:      volume (" + info.format + ")\n";
    text += "  size:      " + std::to_string(info.dims.x) + " x " + std::to_string(info.dims.y) + " x " +
            std::to_string(info.dims.z) + " voxels\n";
    text += "  voxels:    " + info.componentType +
            (info.components == 1 ? std::string() : " x " + std::to_string(info.components) + " components") + "\n";
    text += Format("  spacing:   %.6g %.6g %.6g mm\n", g.spacing.x, g.spacing.y, g.spacing.z);
    text += Format("  origin:    %.6g %.6g %.6g mm\n", g.origin.x, g.origin.y, g.origin.z);
    for (int row = 0; row < 3; ++row)
        text += Format(row == 0 ? "  direction: %.6g %.6g %.6g\n" : "             %.6g %.6g %.6g\n", g.direction[0][row],
                       g.direction[1][row], g.direction[2][row]);
    return text;
}

}  // namespace zrio
