// The plane record of a sectional view: the screen-to-world transform, the size
// of the image drawn, the pixel scale, and the four image-plane corners in world
// space (first and last pixel of the first row, first and last pixel of the last
// row).
#pragma once

#include <glm/glm.hpp>

namespace zrvolume {

struct SlicePlane {
    glm::mat4 screenToWorld{1.0f};
    int width = 0;
    int height = 0;
    glm::vec2 pixelScale{1.0f};
    glm::vec3 corners[4] = {};
};

}  // namespace zrvolume
