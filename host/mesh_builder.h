// Builds mesh (primitive) objects from vertex arrays, with their bounding box
// and, for triangle meshes, the bounding-volume hierarchy the mesh slicer uses.
// The hierarchy is built once here and reused by every request that draws the
// object. Also generates a few analytic meshes (torus, sphere).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <glm/glm.hpp>

#include "zr_types.h"
#include "zr_visual.h"

namespace zrobjects {

struct MeshArrays {
    std::vector<float> positions;  // three floats per vertex (object space, mm)
    std::vector<uint32_t> indices;  // three per triangle; unused for point sets
    std::vector<float> normals;     // optional: three floats per vertex
    int32_t topology = zrenums::EzrPrimitiveTopology_Triangles;  // 2 triangles, 3 point set
};

// A primitive object holding the arrays ("POSITION", and "NORMAL" when given;
// pass them with std::move to hand them over without a copy), the topology, the primitive count (triangles, or vertices for a point
// set), the bounding box, and for triangles its hierarchy. Throws
// std::invalid_argument naming what is wrong: no vertices, a position count or
// normal count that is not three per vertex, a position that is not finite, an
// index count that is not a multiple of 3, an index past the vertices, or a
// topology other than 2 and 3.
std::shared_ptr<ZrVObjectPrimitive> MakeMeshPrimitive(MeshArrays arrays);

// Torus around `centre` in the plane z = centre.z: point (i, j) =
// ((R + r cos v) cos u, (R + r cos v) sin u, r sin v) + centre with u = 2 pi i /
// majorSteps, v = 2 pi j / minorSteps, stored at index i * minorSteps + j; then
// triangles (a0, a1, a3) for every quad followed by (a0, a3, a2) for every quad,
// a0 = (i, j), a1 = (i + 1, j), a2 = (i, j + 1), a3 = (i + 1, j + 1), indices
// wrapping. Throws std::invalid_argument for fewer than 3 steps or non-positive
// radii.
MeshArrays MakeTorusArrays(double majorRadius, double minorRadius, int majorSteps, int minorSteps,
                           const glm::dvec3& centre);

// Closed latitude-longitude sphere: two poles and (stacks - 1) rings of
// `slices` vertices, outward normals. Throws std::invalid_argument for fewer
// than 2 stacks or 3 slices or a non-positive radius.
MeshArrays MakeSphereArrays(double radius, int stacks, int slices, const glm::dvec3& centre);

}  // namespace zrobjects
