#include "slab_pick.h"

#include <algorithm>
#include <any>
#include <cmath>
#include <stdexcept>

#include "host/zr_camera.h"
#include "volume_probe.h"

namespace zrio {
namespace {

template <class T>
T Param(const zrobjects::ParamMap& params, const char* key, T fallback) {
    const auto it = params.find(key);
    return it == params.end() ? fallback : std::any_cast<T>(it->second);
}

bool SlabVoxels(const zrobjects::ZrVObjectVolume& volume) {
    const zrobjects::data_type& t = volume.GetVolumeData()->voxelType;
    return t == zrobjects::MakeDataType<unsigned short>() || t == zrobjects::MakeDataType<unsigned char>() ||
           t == zrobjects::MakeDataType<short>() || t == zrobjects::MakeDataType<char>();
}

// The scene entry whose volume the request reduces.
size_t SlabEntry(const RequestFile& file, const Scene& scene, size_t request) {
    const std::string& target = file.targetVolumes[request];
    for (size_t e = 0; e < file.scene.size(); ++e) {
        const std::string& name = file.scene[e].object;
        if (!scene.volumes.count(name)) continue;
        if (!target.empty()) {
            if (name == target) return e;
            continue;
        }
        const auto& only = file.sceneObjects[request];
        if (!scene.entries[e].enabled || (!only.empty() && !only.count(name))) continue;
        if (SlabVoxels(*scene.volumes.at(name).volume)) return e;
    }
    throw std::invalid_argument("the request has no enabled 8- or 16-bit volume to pick from");
}

}  // namespace

std::optional<SlabPick> PickSlabSample(const RequestFile& file, const Scene& scene, size_t request,
                                       const glm::dvec2& pixel) {
    if (request >= file.requests.size()) throw std::invalid_argument("there is no request " + std::to_string(request));
    const zrobjects::ParamMap& params = file.requests[request];
    const int mode = Param<int32_t>(params, "_int_VolumeRayCastType", 0);
    if (mode != 10 && mode != 11)
        throw std::invalid_argument("a pick needs a maximum or minimum slab (\"_int_VolumeRayCastType\" 10 or 11)");
    if (Param<bool>(params, "_bool_IsNonlinear", false))
        throw std::invalid_argument("a pick follows a flat slab; this request is a curved view");

    const size_t e = SlabEntry(file, scene, request);
    const std::string& name = file.scene[e].object;
    const LoadedVolume& loaded = scene.volumes.at(name);
    const zrobjects::VolumeData& data = *loaded.volume->GetVolumeData();
    // The module's own rule, in its single precision: round(T / p) layers, a
    // slab no thicker than a voxel being a plain slice.
    const float pitch = static_cast<float>(std::min({data.voxelPitch.x, data.voxelPitch.y, data.voxelPitch.z}));
    const float thickness = Param<float>(params, "_float_PlaneThickness", 0.0f);
    if (!(pitch < thickness))
        throw std::invalid_argument("a pick needs a slab thicker than the voxel pitch (\"_float_PlaneThickness\")");
    const double layers = std::floor(static_cast<double>(thickness) / pitch + 0.5);
    const int count = static_cast<int>(std::min(layers, 1e6));

    const glm::ivec2 size = file.image.size;
    if (!(pixel.x >= 0.0 && pixel.y >= 0.0 && pixel.x <= size.x - 1 && pixel.y <= size.y - 1)) return std::nullopt;
    const zrobjects::ZrCObject& camera = *scene.image->GetCameraObject();
    glm::dmat4 viewportInverse, projectionInverse, viewInverse;
    camera.GetMatrixSStoWS(viewportInverse, projectionInverse, viewInverse);
    const glm::dvec3 onPlane(viewInverse * projectionInverse * viewportInverse * glm::dvec4(pixel, 0.0, 1.0));
    glm::vec3 position, direction, up;
    camera.GetCameraExtStatef(position, direction, up);
    const glm::dvec3 step = glm::normalize(glm::dvec3(direction)) * static_cast<double>(pitch);
    const glm::dvec3 first = onPlane - step * (0.5 * (count - 1));

    const zrobjects::SceneEntry& entry = scene.entries[e];
    std::optional<SlabPick> best;
    double bestStored = 0.0;
    for (int m = 0; m < count; ++m) {
        const glm::dvec3 world = first + step * static_cast<double>(m);
        const glm::dvec3 voxel = WorldToVoxel(*loaded.volume, entry.worldToObject, world);
        const std::optional<double> stored = SampleStored(*loaded.volume, voxel);
        if (!stored) continue;
        const bool wins = !best || (mode == 10 ? *stored > bestStored : *stored < bestStored);
        if (!wins) continue;
        bestStored = *stored;
        best = SlabPick{name, world, voxel, m, count, loaded.values.isFloat ? *stored : *stored - loaded.values.offset};
    }
    return best;
}

}  // namespace zrio
