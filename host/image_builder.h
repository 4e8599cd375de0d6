// Builds an image object with an orthographic sectional camera.
#pragma once

#include <memory>

#include <glm/glm.hpp>

#include "zr_image.h"

namespace zrobjects {

struct SectionView {
    glm::dvec3 centre{0.0};                 // the image-plane point under the image centre, mm
    glm::dvec3 viewDirection{0.0, 0.0, 1.0};
    glm::dvec3 up{0.0, -1.0, 0.0};          // towards the top of the image
    glm::dvec2 pixelSpacing{1.0};           // mm between pixel centres
    glm::ivec2 size{256, 256};              // pixels
};

// Throws std::invalid_argument for a bad size or a degenerate camera.
std::shared_ptr<ZrIObject> MakeSectionImage(const SectionView& view);

}  // namespace zrobjects
