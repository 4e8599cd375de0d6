// Volumes and meshes that Python holds between renders. Each is built once
// (from an array, a file or a built-in description) and handed to every scene
// that names it, as a viewer keeps its loaded objects (zrio::LoadedObjects).
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "host/mesh_builder.h"
#include "host/volume_builder.h"
#include "io/stored_voxels.h"
#include "io/voxel_grid.h"

namespace zrpython {

struct HeldObject {
    std::shared_ptr<zrobjects::ZrObject> object;
    std::optional<zrio::LoadedVolume> volume;  // set for volumes
    // Building a scene sets the volume's table directory and the object's own
    // parameters, so two scenes that share an object are built and rendered
    // one after the other; scenes of different objects run side by side.
    std::mutex inUse;
};

// A volume from voxels in this machine's byte order, x fastest (count =
// dims.x * dims.y * dims.z), made exactly as a raw file of the same bytes and
// placement is (zrio::ReadRawVolume): signed and wide types are offset or
// converted by zrio::ToModuleVolume. Throws std::invalid_argument naming what
// is wrong.
std::shared_ptr<HeldObject> VolumeFromVoxels(const void* voxels, zrio::StoredType type, const glm::ivec3& dims,
                                             const zrobjects::VolumeGeometry& geometry, const std::string& units);

// A volume or mesh from its request-file description ({"type": "volume",
// "file": ...}, a phantom, a raw file, a mesh file or built-in shape), read by
// the same code as `zrslice render`. Relative names are taken from
// `baseDirectory`. Throws zrio::InputError naming the file or field.
std::shared_ptr<HeldObject> ObjectFromDescription(const nlohmann::json& description, const std::string& baseDirectory);

// A mesh (topology 2, three indices per triangle) or a point set (topology 3,
// no indices) from its arrays. Throws std::invalid_argument naming what is
// wrong.
std::shared_ptr<HeldObject> MeshFromArrays(zrobjects::MeshArrays arrays);

}  // namespace zrpython
