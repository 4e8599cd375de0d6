#include "clip_setup.h"

#include "common/matrix_record.h"

namespace zrmesh {

using zrcommon::ToMatrixRecord;
using zrcommon::TransformPoint;

MeshClipState MakeScreenClipState(const WorldClip& clip, const glm::mat4& worldToScreen,
                                  const glm::mat4& screenToWorld) {
    MeshClipState state;
    state.clipPlane = clip.clipPlane;
    state.clipBox = clip.clipBox;
    const glm::vec3 v = clip.planeNormal;
    glm::vec3 a = glm::cross(v, glm::vec3(1.0f, 1.0f, 1.0f));
    if (glm::length(a) < 0.0001f) a = glm::cross(v, kFallbackClipAxis);
    a = glm::normalize(a);
    const glm::vec3 b = glm::normalize(glm::cross(a, v));

    const zrcommon::Matrix16 toScreen = ToMatrixRecord(worldToScreen);
    const glm::vec3 c = TransformPoint(toScreen, clip.planePoint);
    const glm::vec3 cb = TransformPoint(toScreen, clip.planePoint + b);
    const glm::vec3 ca = TransformPoint(toScreen, clip.planePoint + a);
    state.planePoint = c;
    // The images' cross product follows the world normal only for a screen
    // space of the same handedness; a mirrored one (negative determinant) turns
    // it round, so the sign is put back.
    const float handedness = glm::determinant(glm::mat3(worldToScreen)) < 0.0f ? -1.0f : 1.0f;
    state.planeNormal = handedness * glm::normalize(glm::cross(cb - c, ca - c));
    state.boxMatrix = ToMatrixRecord(clip.worldToBox * screenToWorld);
    return state;
}

}  // namespace zrmesh
