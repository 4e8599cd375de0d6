#include "bvh_query.h"

#include <cmath>

namespace zrbvh {

bool PlaneHitsBox(const double box[6], const glm::vec3& normal, float d) {
    // Half extent and centre in double, then taken as float for the test.
    const double ex = (box[3] - box[0]) * 0.5, ey = (box[4] - box[1]) * 0.5, ez = (box[5] - box[2]) * 0.5;
    const glm::vec3 e(static_cast<float>(ex), static_cast<float>(ey), static_cast<float>(ez));
    const glm::vec3 c(static_cast<float>(box[0] + ex), static_cast<float>(box[1] + ey),
                      static_cast<float>(box[2] + ez));
    const float r = std::fabs(normal.x * e.x) + std::fabs(normal.y * e.y) + std::fabs(normal.z * e.z);
    const float s = normal.x * c.x + normal.y * c.y + normal.z * c.z - d;
    return !(s > r || s < -r);
}

bool PlaneHitsNode(const BvhNode& node, const glm::vec3& normal, float d) {
    const double box[6] = {node.bounds[0], node.bounds[1], node.bounds[2],
                           node.bounds[3], node.bounds[4], node.bounds[5]};
    return PlaneHitsBox(box, normal, d);
}

void CollectCrossedLeaves(const BvhNode& node, const glm::vec3& normal, float d,
                          std::vector<const BvhLeafNode*>& leaves, int64_t& triangleCount) {
    if (node.IsLeaf()) {
        const auto& leaf = static_cast<const BvhLeafNode&>(node);
        triangleCount += leaf.hi - leaf.lo;
        leaves.push_back(&leaf);
        return;
    }
    const auto& inner = static_cast<const BvhInnerNode&>(node);
    for (const BvhNode* child : inner.children)
        if (child && PlaneHitsNode(*child, normal, d)) CollectCrossedLeaves(*child, normal, d, leaves, triangleCount);
}

void CollectTreeLeaves(const BvhTree& tree, const glm::vec3& normal, float d,
                       std::vector<const BvhLeafNode*>& leaves, int64_t& triangleCount) {
    if (!tree.root) return;
    CollectCrossedLeaves(*tree.root, normal, d, leaves, triangleCount);
}

namespace {

void CollectSubtrees(const BvhNode& node, const glm::vec3& normal, float d, int depth,
                     std::vector<const BvhNode*>& subtrees) {
    if (depth == 0 || node.IsLeaf()) {
        subtrees.push_back(&node);
        return;
    }
    const auto& inner = static_cast<const BvhInnerNode&>(node);
    for (const BvhNode* child : inner.children)
        if (child && PlaneHitsNode(*child, normal, d)) CollectSubtrees(*child, normal, d, depth - 1, subtrees);
}

}  // namespace

void CollectCrossedSubtrees(const BvhTree& tree, const glm::vec3& normal, float d, int depth,
                            std::vector<const BvhNode*>& subtrees) {
    if (!tree.root) return;
    CollectSubtrees(*tree.root, normal, d, depth, subtrees);
}

}  // namespace zrbvh
