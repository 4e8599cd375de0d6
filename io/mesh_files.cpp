#include "mesh_files.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <limits>
#include <optional>
#include <stdexcept>

#include <assimp/Importer.hpp>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include "input_error.h"
#include "ply_file.h"
#include "stl_file.h"
#include "vtk_poly_data.h"

namespace zrio {

namespace {

std::string Extension(const std::string& path) {
    std::string ext = std::filesystem::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext;
}

void CheckIsFile(const std::string& path) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) throw InputError(path, "no such file");
    if (std::filesystem::is_directory(path, ec)) throw InputError(path, "is a directory, not a mesh file");
}

// Binary STL and PLY, a header and packed arrays, are read by our own code
// straight into the arrays (the general importer's own structures and its
// post-processing cost several times the file in memory and in time); every
// other format, ASCII STL and PLY included, goes through the importer.
std::optional<zrobjects::MeshArrays> ReadOwnFormat(const std::string& path, LoadProgress* progress) {
    if (IsVtkMeshFile(path)) return ReadVtkMeshFile(path);
    const std::string ext = Extension(path);
    if (ext == ".stl") return ReadBinaryStl(path, progress);
    if (ext == ".ply") return ReadBinaryPly(path, progress);
    return std::nullopt;
}

const aiScene* Import(Assimp::Importer& importer, const std::string& path) {
    // Node transforms are baked into the vertices so that a multi-part file
    // comes out as one object in its own coordinates.
    // No structure validation: it refuses point clouds ("contains no faces"),
    // which become point sets here; the mesh builder checks every index.
    const unsigned flags = aiProcess_Triangulate | aiProcess_JoinIdenticalVertices | aiProcess_PreTransformVertices |
                           aiProcess_SortByPType;
    const aiScene* scene = importer.ReadFile(path, flags);
    // Point clouds (PLY or OBJ holding vertices only) have no node to
    // pre-transform and fail the full import; as they are, they are a point set.
    if (!scene) scene = importer.ReadFile(path, 0);
    if (!scene) throw InputError(path, "cannot read mesh: " + FirstLine(importer.GetErrorString()));
    if (scene->mNumMeshes == 0) throw InputError(path, "file holds no mesh");
    return scene;
}

void AppendVertices(zrobjects::MeshArrays& out, const aiMesh& mesh) {
    for (unsigned v = 0; v < mesh.mNumVertices; ++v) {
        const aiVector3D& p = mesh.mVertices[v];
        out.positions.insert(out.positions.end(), {p.x, p.y, p.z});
        const aiVector3D n = mesh.HasNormals() ? mesh.mNormals[v] : aiVector3D(0.0f, 0.0f, 0.0f);
        out.normals.insert(out.normals.end(), {n.x, n.y, n.z});
    }
}

}  // namespace

bool IsMeshFileName(const std::string& path) {
    const std::string ext = Extension(path);
    for (const char* known : {".stl", ".obj", ".ply", ".gltf", ".glb", ".off", ".fbx", ".dae", ".3ds", ".vtk", ".vtp"})
        if (ext == known) return true;
    return false;
}

zrobjects::MeshArrays ReadMeshFile(const std::string& path, LoadProgress* progress) {
    CheckIsFile(path);
    if (std::optional<zrobjects::MeshArrays> own = ReadOwnFormat(path, progress)) return std::move(*own);
    Assimp::Importer importer;
    const aiScene* scene = Import(importer, path);
    zrobjects::MeshArrays triangles, points;
    points.topology = 3;
    for (unsigned m = 0; m < scene->mNumMeshes; ++m) {
        const aiMesh& mesh = *scene->mMeshes[m];
        if (mesh.mNumFaces > 0 && (mesh.mPrimitiveTypes & aiPrimitiveType_TRIANGLE)) {
            const uint32_t base = static_cast<uint32_t>(triangles.positions.size() / 3);
            AppendVertices(triangles, mesh);
            for (unsigned f = 0; f < mesh.mNumFaces; ++f) {
                const aiFace& face = mesh.mFaces[f];
                if (face.mNumIndices != 3) continue;
                for (unsigned k = 0; k < 3; ++k) triangles.indices.push_back(base + face.mIndices[k]);
            }
        } else if (mesh.mNumFaces == 0 || (mesh.mPrimitiveTypes & aiPrimitiveType_POINT)) {
            AppendVertices(points, mesh);
        }
    }
    if (!triangles.indices.empty()) return triangles;
    if (!points.positions.empty()) return points;
    throw InputError(path, "file holds neither triangles nor points");
}

MeshFileInfo ReadMeshFileInfo(const std::string& path, LoadProgress* progress) {
    CheckIsFile(path);
    if (const std::optional<zrobjects::MeshArrays> mesh = ReadOwnFormat(path, progress)) {
        MeshFileInfo info;
        info.meshes = 1;
        info.vertices = mesh->positions.size() / 3;
        info.triangles = mesh->topology == 3 ? 0 : mesh->indices.size() / 3;
        info.hasNormals = !mesh->normals.empty();
        info.boundsMin = glm::dvec3(std::numeric_limits<double>::max());
        info.boundsMax = -info.boundsMin;
        for (size_t k = 0; k < mesh->positions.size(); k += 3) {
            const glm::dvec3 p(mesh->positions[k], mesh->positions[k + 1], mesh->positions[k + 2]);
            info.boundsMin = glm::min(info.boundsMin, p);
            info.boundsMax = glm::max(info.boundsMax, p);
        }
        return info;
    }
    Assimp::Importer importer;
    const aiScene* scene = Import(importer, path);
    MeshFileInfo info;
    info.meshes = static_cast<int>(scene->mNumMeshes);
    info.boundsMin = glm::dvec3(std::numeric_limits<double>::max());
    info.boundsMax = -info.boundsMin;
    for (unsigned m = 0; m < scene->mNumMeshes; ++m) {
        const aiMesh& mesh = *scene->mMeshes[m];
        info.vertices += mesh.mNumVertices;
        info.hasNormals = info.hasNormals || mesh.HasNormals();
        for (unsigned f = 0; f < mesh.mNumFaces; ++f) info.triangles += mesh.mFaces[f].mNumIndices == 3 ? 1 : 0;
        for (unsigned v = 0; v < mesh.mNumVertices; ++v) {
            const glm::dvec3 p(mesh.mVertices[v].x, mesh.mVertices[v].y, mesh.mVertices[v].z);
            info.boundsMin = glm::min(info.boundsMin, p);
            info.boundsMax = glm::max(info.boundsMax, p);
        }
    }
    if (info.vertices == 0) info.boundsMin = info.boundsMax = glm::dvec3(0.0);
    return info;
}

std::shared_ptr<zrobjects::ZrVObjectPrimitive> MakeMeshObject(zrobjects::MeshArrays arrays) {
    // Files without normals come back with zero normals; leave them out rather
    // than hand the renderer zero-length vectors.
    if (std::all_of(arrays.normals.begin(), arrays.normals.end(), [](float x) { return x == 0.0f; }))
        arrays.normals.clear();
    return zrobjects::MakeMeshPrimitive(std::move(arrays));
}

}  // namespace zrio
