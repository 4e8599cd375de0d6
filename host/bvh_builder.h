// Builds the bounding-volume hierarchy over a triangle mesh in the node and tree
// shape the mesh slicer reads: binned surface-area-heuristic splits down to
// small leaves. The tree borrows the arrays it is built over; they must outlive
// it and stay unchanged.
#pragma once

#include <cstdint>
#include <memory>

#include "mesh/bvh/bvh_node.h"

namespace zrobjects {

struct BvhBuildOptions {
    int maxLeafTriangles = 4;  // a node with this many triangles or fewer becomes a leaf
    int binCount = 16;         // centroid bins per split
};

// The hierarchy over `triangleCount` triangles of `indices` (three vertex
// indices each) into `vertexCount` vertices of `positions` (three floats each).
// The returned pointer owns the tree and its scene record. Throws
// std::invalid_argument for null arrays, a non-positive count, an index past the
// vertices, a position that is not finite, or bad options.
std::shared_ptr<zrbvh::BvhTree> BuildBvh(const float* positions, int32_t vertexCount, const uint32_t* indices,
                                         int32_t triangleCount, const BvhBuildOptions& options = {});

}  // namespace zrobjects
