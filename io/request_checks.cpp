#include "request_checks.h"

#include <algorithm>
#include <any>
#include <cmath>
#include <cstdio>
#include <limits>

#include "host/zr_visual.h"
#include "module_keys.h"

namespace zrio {

namespace {

template <class T>
const T* Find(const zrobjects::ParamMap& params, const char* key) {
    auto it = params.find(key);
    return it == params.end() ? nullptr : std::any_cast<T>(&it->second);
}

// How far the nearest enabled volume's box lies outside the slab around the
// image plane (0 when one reaches it), and its name; the in-plane test keeps
// the image rectangle too. The boxes are tested by their eight corners, which
// can only overestimate what they cover, so a warning is never wrong.
struct Miss {
    double distance = std::numeric_limits<double>::infinity();
    std::string name;
};

Miss NearestVolume(const RequestFile& file, const Scene& scene, const std::vector<zrobjects::SceneEntry>& entries,
                   double halfThickness) {
    const CameraSpec& camera = file.image.camera;
    const glm::dvec3 view = glm::normalize(camera.viewDirection);
    const glm::dvec3 across = glm::normalize(glm::cross(view, camera.up));
    const glm::dvec3 down = glm::cross(view, across);
    const glm::dvec2 half = camera.viewExtent * 0.5;
    Miss miss;
    for (const zrobjects::SceneEntry& entry : entries) {
        const auto* volume = dynamic_cast<const zrobjects::ZrVObjectVolume*>(entry.object);
        if (!entry.enabled || !volume) continue;
        zrobjects::AaBbMinMax box;
        volume->GetOrthoBoundingBox(box);
        const glm::dmat4 toWorld = glm::dmat4(entry.objectToWorld) * glm::dmat4(volume->GetMatrixOS2RSf());
        glm::dvec3 lo(std::numeric_limits<double>::infinity()), hi(-std::numeric_limits<double>::infinity());
        for (int corner = 0; corner < 8; ++corner) {
            const glm::dvec3 c((corner & 1) ? box.pos_max.x : box.pos_min.x, (corner & 2) ? box.pos_max.y : box.pos_min.y,
                               (corner & 4) ? box.pos_max.z : box.pos_min.z);
            const glm::dvec3 offset = glm::dvec3(toWorld * glm::dvec4(c, 1.0)) - camera.position;
            const glm::dvec3 p(glm::dot(offset, across), glm::dot(offset, down), glm::dot(offset, view));
            lo = glm::min(lo, p);
            hi = glm::max(hi, p);
        }
        const glm::dvec3 reach(half.x, half.y, halfThickness);
        double distance = 0.0;
        for (int axis = 0; axis < 3; ++axis)
            distance = std::max({distance, lo[axis] - reach[axis], -reach[axis] - hi[axis]});
        if (distance < miss.distance) {
            miss.distance = distance;
            for (const auto& [name, object] : scene.objects)
                if (object.get() == entry.object) miss.name = name;
        }
    }
    return miss;
}

}  // namespace

std::vector<std::string> RequestWarnings(const RequestFile& file, const Scene& scene,
                                         const std::vector<zrobjects::SceneEntry>& entries, size_t index) {
    const zrobjects::ParamMap& request = file.requests[index];
    const std::string where = "requests[" + std::to_string(index) + "]: ";
    std::vector<std::string> warnings;
    const auto* source = Find<std::string>(request, "_string_RenderingSourceType");
    if (source && *source != "SECTIONAL_VOLUME") return warnings;

    const int mode = Find<int32_t>(request, "_int_VolumeRayCastType") ? *Find<int32_t>(request, "_int_VolumeRayCastType") : 0;
    const auto& modes = RenderModes();
    if (std::find(modes.begin(), modes.end(), mode) == modes.end())
        warnings.push_back(where + "_int_VolumeRayCastType " + std::to_string(mode) +
                           " is not a render mode (0, 1, 10, 11, 12, 101, 120): the module draws nothing");
    const auto* fast = Find<bool>(request, "_bool_IsFastQualityMode");
    const auto* fastMax = Find<int32_t>(request, "_int_LengthFastModeMax");
    if (fast && *fast && fastMax && *fastMax <= 0)
        warnings.push_back(where + "_int_LengthFastModeMax " + std::to_string(*fastMax) +
                           " leaves no pixels for fast quality mode: give a positive size (300 by default)");
    if (file.image.size.y == 1)
        warnings.push_back(where + "the image is one pixel high: the module spreads rows over height - 1 and draws "
                                   "nothing sensible; give it at least two rows");

    bool anyVolume = false;
    for (const zrobjects::SceneEntry& entry : entries)
        anyVolume = anyVolume || (entry.enabled && dynamic_cast<const zrobjects::ZrVObjectVolume*>(entry.object));
    const auto* curved = Find<bool>(request, "_bool_IsNonlinear");
    if (!anyVolume) {
        warnings.push_back(where + "no enabled volume in the scene: a sectional volume request draws nothing");
    } else if (!(curved && *curved)) {
        const auto* thickness = Find<float>(request, "_float_PlaneThickness");
        const double half = thickness ? std::max(0.0, 0.5 * static_cast<double>(*thickness)) : 0.0;
        const Miss miss = NearestVolume(file, scene, entries, half);
        if (miss.distance > 0.0) {
            char text[160];
            std::snprintf(text, sizeof(text),
                          "the view misses every volume (the nearest, \"%s\", lies %.1f mm outside it): nothing is "
                          "drawn; move the camera's position or widen its view",
                          miss.name.c_str(), miss.distance);
            warnings.push_back(where + text);
        }
    }
    return warnings;
}

bool PictureIsEmpty(const std::vector<uint8_t>& rgba) {
    for (size_t k = 3; k < rgba.size(); k += 4)
        if (rgba[k]) return false;
    return true;
}

}  // namespace zrio
