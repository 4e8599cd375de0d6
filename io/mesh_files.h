// Meshes from files and the host mesh objects built from plain mesh arrays:
// binary STL and PLY and VTK polydata by our own readers, every other format
// (OBJ, glTF, ASCII STL and PLY, ...) through assimp. Failures are InputErrors
// naming the file.
#pragma once

#include <memory>
#include <string>

#include "host/phantoms.h"
#include "host/zr_visual.h"
#include "load_progress.h"

namespace zrio {

// True for file names of the mesh formats read here (by extension): STL, OBJ,
// PLY, glTF and the others assimp reads, and VTK polydata (.vtk, .vtp).
bool IsMeshFileName(const std::string& path);

// Every mesh of the file, with its node transforms applied, merged into one
// array set: triangles when the file has faces, otherwise its vertices as a
// point set. A binary STL's corners are welded where they are bit-identical.
// Long reads report their progress to `progress` when given.
zrobjects::MeshArrays ReadMeshFile(const std::string& path, LoadProgress* progress = nullptr);

struct MeshFileInfo {
    int meshes = 0;
    size_t vertices = 0;
    size_t triangles = 0;
    bool hasNormals = false;
    glm::dvec3 boundsMin{0.0}, boundsMax{0.0};
};
MeshFileInfo ReadMeshFileInfo(const std::string& path, LoadProgress* progress = nullptr);

// A host primitive object holding `mesh` (moved in: pass it with std::move),
// with its bounding box and hierarchy. Throws std::invalid_argument for
// inconsistent arrays (no vertices, indices past the vertices).
std::shared_ptr<zrobjects::ZrVObjectPrimitive> MakeMeshObject(zrobjects::MeshArrays mesh);

}  // namespace zrio
