// Where the winning sample of a maximum or minimum slab lies. The module hands
// back only the reduced value of each pixel; a user who sees a bright vessel in
// a maximum-intensity slab wants the 3-D point it came from. The host finds it
// by walking that pixel's layers as the module lays them out: round(T / p)
// layers p apart along the view direction (p = the volume's smallest voxel
// pitch), centred on the image plane, each sampled trilinearly.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include <glm/glm.hpp>

#include "request_file.h"

namespace zrio {

struct SlabPick {
    std::string volume;    // the volume object's name
    glm::dvec3 world{0.0};  // LPS millimetres
    glm::dvec3 voxel{0.0};  // voxel coordinates
    int layer = 0;          // 0 is the layer nearest the viewer
    int layerCount = 0;
    double value = 0.0;     // the sample's real value
};

// The winning sample under pixel (x, y) of request `request` of `file`, whose
// scene `scene` was built from it. The volume is the request's target volume,
// otherwise the first enabled 8- or 16-bit volume of its scene. Ties go to the
// layer nearest the viewer. Layers outside the volume (which the module counts
// as 0) and clipping are not considered. None when the pixel lies outside the
// image or no layer lies inside the volume. Throws std::invalid_argument
// saying why when the request is not a flat maximum (10) or minimum (11) slab
// thicker than a voxel, or has no such volume.
std::optional<SlabPick> PickSlabSample(const RequestFile& file, const Scene& scene, size_t request,
                                       const glm::dvec2& pixel);

}  // namespace zrio
