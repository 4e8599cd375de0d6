#include "held_objects.h"

#include <stdexcept>

#include "io/input_error.h"
#include "io/json_fields.h"
#include "io/mesh_files.h"
#include "io/scene_objects.h"
#include "io/volume_files.h"

namespace zrpython {

std::shared_ptr<HeldObject> VolumeFromVoxels(const void* voxels, zrio::StoredType type, const glm::ivec3& dims,
                                             const zrobjects::VolumeGeometry& geometry, const std::string& units) {
    zrio::CheckVolumeSize(dims, zrio::StoredTypeBytes(type));
    for (int k = 0; k < 3; ++k)
        if (!(geometry.spacing[k] > 0.0)) throw std::invalid_argument("spacing must be positive");
    if (zrio::IsSingular(geometry.direction)) throw std::invalid_argument("direction matrix is singular");
    zrio::VoxelGrid grid;
    grid.dims = dims;
    grid.geometry = geometry;
    grid.units = units;
    zrio::CopyStoredVoxels(voxels, type, static_cast<uint64_t>(dims.x) * dims.y * dims.z, grid);
    auto held = std::make_shared<HeldObject>();
    held->volume = zrio::ToModuleVolume(std::move(grid));
    held->object = held->volume->volume;
    return held;
}

std::shared_ptr<HeldObject> ObjectFromDescription(const nlohmann::json& description, const std::string& baseDirectory) {
    auto held = std::make_shared<HeldObject>();
    const std::string type = description.value("type", "");
    try {
        if (type == "volume") {
            held->volume = zrio::BuildVolumeObject(description, "volume", baseDirectory);
            held->object = held->volume->volume;
        } else if (type == "mesh") {
            held->object = zrio::BuildMeshObject(description, "mesh", baseDirectory);
        } else {
            throw std::invalid_argument("a description of type \"" + type + "\" is neither a volume nor a mesh");
        }
    } catch (const std::invalid_argument& e) {
        // Field mistakes name the field; the file, when there is one, is in the text.
        throw zrio::InputError("", e.what());
    }
    return held;
}

std::shared_ptr<HeldObject> MeshFromArrays(zrobjects::MeshArrays arrays) {
    auto held = std::make_shared<HeldObject>();
    held->object = zrio::MakeMeshObject(std::move(arrays));
    return held;
}

}  // namespace zrpython
