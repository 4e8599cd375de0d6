// Builds an object's clip state for a given screen space from its world-space
// clip settings: the clip plane's point and normal, and the world-to-box matrix.
#pragma once

#include <glm/glm.hpp>

#include "mesh/line_drawing.h"

namespace zrmesh {

// World-space clip settings of one object ("_int_ClippingMode",
// "_float3_PosClipPlaneWS", "_float3_VecClipPlaneWS", "_matrix44f_MatrixClipWS2BS").
struct WorldClip {
    bool clipPlane = false;
    bool clipBox = false;
    glm::vec3 planePoint{0.0f};
    glm::vec3 planeNormal{0.0f, 0.0f, 1.0f};
    glm::mat4 worldToBox{0.0f};
};

// The world axis crossed with the clip normal when the normal is parallel to
// (1, 1, 1).
inline constexpr glm::vec3 kFallbackClipAxis{1.0f, 0.0f, 0.0f};

// The clip state in the screen space of `worldToScreen` (`screenToWorld` its
// inverse). Two unit axes A and B spanning the clip plane (A = V x (1, 1, 1), or
// V x kFallbackClipAxis when that is shorter than 0.0001; B = A x V) are taken to
// the screen; the screen normal is the normalised cross product of their images
// (B first), turned round for a mirrored screen space so that it always points
// to the side V points to, and the screen point is the
// image of the plane point. The box matrix is worldToBox x screenToWorld.
MeshClipState MakeScreenClipState(const WorldClip& clip, const glm::mat4& worldToScreen,
                                  const glm::mat4& screenToWorld);

}  // namespace zrmesh
