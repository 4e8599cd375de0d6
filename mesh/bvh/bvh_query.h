// Plane queries on the hierarchy: which boxes a plane N . x = d crosses, and the
// leaves whose boxes it crosses, in depth-first order, child 0 before child 1.
#pragma once

#include <cstdint>
#include <vector>

#include <glm/glm.hpp>

#include "mesh/bvh/bvh_node.h"

namespace zrbvh {

// Box as six doubles: min x, y, z, then max x, y, z. A plane that just touches
// the box counts as a hit. N need not be unit length.
bool PlaneHitsBox(const double box[6], const glm::vec3& normal, float d);

// The same for a node's float bounds.
bool PlaneHitsNode(const BvhNode& node, const glm::vec3& normal, float d);

// Appends to `leaves` every leaf below `node` (the node included) whose box the
// plane crosses, testing each child's box before descending into it, and adds
// each appended leaf's triangle count (hi - lo) to `triangleCount`. The node's
// own box is not tested: its parent did that.
void CollectCrossedLeaves(const BvhNode& node, const glm::vec3& normal, float d,
                          std::vector<const BvhLeafNode*>& leaves, int64_t& triangleCount);

// Leaves of the whole tree: a leaf root is always taken; otherwise the root's
// children are tested and collected, child 0 first.
void CollectTreeLeaves(const BvhTree& tree, const glm::vec3& normal, float d,
                       std::vector<const BvhLeafNode*>& leaves, int64_t& triangleCount);

// The walk of CollectTreeLeaves stopped `depth` levels below the root: the
// crossed nodes it would descend into there (and the crossed leaves above),
// in its order. Collecting the leaves of each of them in turn
// (CollectCrossedLeaves) gives CollectTreeLeaves' list, so the subtrees can be
// walked on different threads.
void CollectCrossedSubtrees(const BvhTree& tree, const glm::vec3& normal, float d, int depth,
                            std::vector<const BvhNode*>& subtrees);

}  // namespace zrbvh
