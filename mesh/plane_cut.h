// Cuts one triangle mesh with a plane in the mesh's own space and puts the cut
// segments, projected to the screen, either into the colour target (drawn with
// the line drawing) or into a list of screen segments (four floats each:
// x0, y0, x1, y1). The hierarchy handed out by the host skips the triangles whose
// boxes the plane misses; triangles are cut in parallel, each thread into its
// own segment list, and the lists are joined in thread order.
#pragma once

#include <cstdint>
#include <vector>

#include <glm/glm.hpp>

#include "common/matrix_record.h"
#include "host/zr_types.h"
#include "mesh/bvh/bvh_node.h"
#include "mesh/line_drawing.h"

namespace zrmesh {

// A screen rectangle (pixel coordinates, edges included) that segments are
// clipped to before they are drawn or listed.
struct ScreenWindow {
    float minX = 0.0f, minY = 0.0f, maxX = 0.0f, maxY = 0.0f;
};

// Where the segments of one object go.
struct SegmentTarget {
    uint32_t* pixels = nullptr;  // width x height colour pixels
    int width = 0;
    int height = 0;
    uint32_t colour = 0;  // packed, alpha 255
    int thickness = 1;
    MeshClipState clip;
    // When set, segments are appended here (thread order) and nothing is drawn.
    std::vector<float>* crossLines = nullptr;
    // When set, segments are clipped to this rectangle first.
    const ScreenWindow* window = nullptr;
};

// Cuts triangle (v0, v1, v2) with the plane N . x = d, given as -d and N. The
// edges are visited in the order (v0, v1), (v1, v2), (v2, v0): an edge whose ends
// lie strictly on opposite sides gives its crossing point; a vertex exactly on
// the plane is taken as a crossing point the first time it is met (its second
// meeting, as the end of the next edge, is skipped); an edge with both ends on
// the plane is the segment itself. The first two points make the segment, both
// projected with `objectToScreen` (perspective divide). False when fewer than
// two points are found.
bool CutTriangle(float negD, const glm::vec3& normal, const glm::vec3& v0, const glm::vec3& v1,
                 const glm::vec3& v2, const zrcommon::Matrix16& objectToScreen, glm::vec3& start,
                 glm::vec3& end);

// Cuts every triangle of `data` (topology 2, three vertices per primitive, a
// "POSITION" attribute; otherwise nothing happens) with the plane through
// `planePoint` with normal `planeNormal` (object space, any length). `tree` is the
// host's hierarchy over the triangles, or null. In list mode only segments of
// positive screen length are listed. A segment with an end that is not a
// finite number (a triangle lying within rounding of the plane) is dropped.
void CutMeshWithPlane(const glm::vec3& planePoint, const glm::vec3& planeNormal,
                      const zrobjects::PrimitiveData& data, const zrbvh::BvhTree* tree,
                      const zrcommon::Matrix16& objectToScreen, const SegmentTarget& target);

}  // namespace zrmesh
