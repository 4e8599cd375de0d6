// The plane record of a sectional view: the screen-to-world transform, the size
// of the image drawn, and the four image-plane corners in world space (first
// and last pixel of the first row, first and last pixel of the last row).
#pragma once

#include <glm/glm.hpp>

#include "host/zr_types.h"

namespace zrvolume {

struct SlicePlane {
    glm::mat4 screenToWorld{1.0f};
    int width = 0;
    int height = 0;
    glm::vec3 corners[4] = {};
};

// The slice loops index a buffer with the plane's size; a plane larger than the
// buffer would write past it.
inline bool PlaneFits(const zrobjects::FrameBuffer& buffer, const SlicePlane& plane) {
    return plane.width <= buffer.width && plane.height <= buffer.height;
}

}  // namespace zrvolume
