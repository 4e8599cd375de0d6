// The clip record of the slice kernels, in voxel coordinates, and the two clip
// tests shared by every kernel family.
#pragma once

#include <glm/glm.hpp>

#include "common/matrix_record.h"

namespace zrcommon {

struct SliceClipState {
    bool clipPlane = false;
    bool clipBox = false;
    glm::vec3 planePoint{0.0f};
    glm::vec3 planeNormal{0.0f, 0.0f, 1.0f};
    Matrix16 boxMatrix;  // voxel space to box space; the box is -0.5..0.5 on every axis
};

// Inside when every box coordinate c satisfies (c - 0.5)(c + 0.5) <= 0, faces
// included. A not-a-number coordinate compares false and so counts as inside.
inline bool InsideClipBox(const Matrix16& box, const glm::vec3& p) {
    const glm::vec3 c = TransformPoint(box, p);
    return !((c.x - 0.5f) * (c.x + 0.5f) > 0.0f) && !((c.y - 0.5f) * (c.y + 0.5f) > 0.0f) &&
           !((c.z - 0.5f) * (c.z + 0.5f) > 0.0f);
}

// Beyond the clip plane: on the side its normal points to.
inline bool BeyondClipPlane(const glm::vec3& point, const glm::vec3& normal, const glm::vec3& p) {
    return (p.x - point.x) * normal.x + (p.y - point.y) * normal.y + (p.z - point.z) * normal.z > 0.0f;
}

// True when the enabled tests remove the point.
inline bool Clipped(const SliceClipState& clip, const glm::vec3& p) {
    if (clip.clipBox && !InsideClipBox(clip.boxMatrix, p)) return true;
    return clip.clipPlane && BeyondClipPlane(clip.planePoint, clip.planeNormal, p);
}

}  // namespace zrcommon
