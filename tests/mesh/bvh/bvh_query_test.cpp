// Plane-box tests and the collection of crossed leaves on hand-made trees.
#include "mesh/bvh/bvh_query.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>
#include <vector>

#include "mesh/bvh/bvh_node.h"

namespace {

using zrbvh::BvhInnerNode;
using zrbvh::BvhLeafNode;
using zrbvh::BvhNode;

void SetBox(BvhNode& node, float x0, float x1) {
    const float b[6] = {x0, 0.0f, 0.0f, x1, 1.0f, 1.0f};
    for (int i = 0; i < 6; ++i) node.bounds[i] = b[i];
}

BvhLeafNode* Leaf(float x0, float x1, int lo, int hi) {
    auto* leaf = new BvhLeafNode();
    SetBox(*leaf, x0, x1);
    leaf->lo = lo;
    leaf->hi = hi;
    return leaf;
}

BvhInnerNode* Inner(BvhNode* child0, BvhNode* child1) {
    auto* inner = new BvhInnerNode();
    SetBox(*inner, std::min(child0->bounds[0], child1->bounds[0]), std::max(child0->bounds[3], child1->bounds[3]));
    inner->children[0] = child0;
    inner->children[1] = child1;
    return inner;
}

TEST(PlaneBoxTest, HitMissAndTouch) {
    const double box[6] = {0.0, 0.0, 0.0, 2.0, 2.0, 2.0};
    const glm::vec3 xAxis(1.0f, 0.0f, 0.0f);
    EXPECT_TRUE(zrbvh::PlaneHitsBox(box, xAxis, 1.0f));
    EXPECT_TRUE(zrbvh::PlaneHitsBox(box, xAxis, 0.0f)) << "a touching plane counts as a hit";
    EXPECT_TRUE(zrbvh::PlaneHitsBox(box, xAxis, 2.0f)) << "a touching plane counts as a hit";
    EXPECT_FALSE(zrbvh::PlaneHitsBox(box, xAxis, 2.01f));
    EXPECT_FALSE(zrbvh::PlaneHitsBox(box, xAxis, -0.01f));
    // Unnormalised diagonal normal: x + y + z = d touches the box for d in 0..6.
    const glm::vec3 diagonal(1.0f, 1.0f, 1.0f);
    EXPECT_TRUE(zrbvh::PlaneHitsBox(box, diagonal, 6.0f));
    EXPECT_FALSE(zrbvh::PlaneHitsBox(box, diagonal, 6.1f));
    EXPECT_FALSE(zrbvh::PlaneHitsBox(box, 3.0f * diagonal, 18.3f));
    EXPECT_TRUE(zrbvh::PlaneHitsBox(box, 3.0f * diagonal, 9.0f));
}

TEST(LeafCollection, DepthFirstChildZeroFirstWithTriangleCount) {
    // Leaves along x: [0,1] [1,2] [2,3] [3,4]; the plane x = 1.5 crosses [1,2]
    // only, x = 2 touches [1,2] and [2,3].
    zrbvh::BvhTree tree;
    tree.root = Inner(Inner(Leaf(0, 1, 0, 2), Leaf(1, 2, 2, 5)), Inner(Leaf(2, 3, 5, 6), Leaf(3, 4, 6, 10)));
    const glm::vec3 xAxis(1.0f, 0.0f, 0.0f);

    std::vector<const BvhLeafNode*> leaves;
    int64_t triangles = 0;
    zrbvh::CollectTreeLeaves(tree, xAxis, 1.5f, leaves, triangles);
    ASSERT_EQ(leaves.size(), 1u);
    EXPECT_EQ(leaves[0]->lo, 2);
    EXPECT_EQ(triangles, 3);

    leaves.clear();
    triangles = 0;
    zrbvh::CollectTreeLeaves(tree, xAxis, 2.0f, leaves, triangles);
    ASSERT_EQ(leaves.size(), 2u);
    EXPECT_EQ(leaves[0]->lo, 2) << "child 0's subtree comes first";
    EXPECT_EQ(leaves[1]->lo, 5);
    EXPECT_EQ(triangles, 4);

    // A plane through every leaf, and the order of a full depth-first walk.
    leaves.clear();
    triangles = 0;
    zrbvh::CollectTreeLeaves(tree, glm::vec3(0.0f, 1.0f, 0.0f), 0.5f, leaves, triangles);
    ASSERT_EQ(leaves.size(), 4u);
    const int expectedLo[4] = {0, 2, 5, 6};
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(leaves[i]->lo, expectedLo[i]);
    EXPECT_EQ(triangles, 10);
}

TEST(LeafCollection, ALeafRootIsTakenWithoutABoxTestAndAMissedChildIsNotEntered) {
    zrbvh::BvhTree leafRoot, missed;
    leafRoot.root = Leaf(0, 1, 0, 7);
    missed.root = Inner(Leaf(0, 1, 0, 1), Leaf(5, 6, 1, 2));
    for (auto [tree, plane, count] : {std::tuple{&leafRoot, 50.0f, 7}, {&missed, 3.0f, 0}}) {
        std::vector<const BvhLeafNode*> leaves;
        int64_t triangles = 0;
        zrbvh::CollectTreeLeaves(*tree, glm::vec3(1.0f, 0.0f, 0.0f), plane, leaves, triangles);
        EXPECT_EQ(leaves.size(), count ? 1u : 0u) << count;
        EXPECT_EQ(triangles, count);
    }
}

// Walking the subtrees a few levels down one after another gives the leaves of
// the whole walk in its order, on an unbalanced tree with leaves above the
// stopping depth and a leaf root, for planes crossing some or all leaves.
TEST(LeafCollection, SubtreesInTurnGiveTheWholeWalk) {
    // Leaves along x; the tree's depth runs from 1 to 5.
    zrbvh::BvhTree tree, leafRoot;
    tree.root = Inner(Inner(Leaf(0, 1, 0, 1), Inner(Inner(Leaf(1, 2, 1, 3), Inner(Leaf(2, 3, 3, 4), Leaf(3, 4, 4, 6))),
                                                   Leaf(4, 5, 6, 7))),
                      Inner(Leaf(5, 6, 7, 9), Inner(Leaf(6, 7, 9, 10), Leaf(7, 8, 10, 12))));
    leafRoot.root = Leaf(0, 1, 0, 3);
    const glm::vec3 xAxis(1.0f, 0.0f, 0.0f), yAxis(0.0f, 1.0f, 0.0f);
    for (const auto& [root, normal, d] : {std::tuple{&tree, xAxis, 3.0f}, {&tree, xAxis, 6.5f}, {&tree, yAxis, 0.5f},
                                           {&tree, xAxis, 9.0f}, {&leafRoot, xAxis, 50.0f}}) {
        std::vector<const BvhLeafNode*> whole;
        int64_t wholeTriangles = 0;
        zrbvh::CollectTreeLeaves(*root, normal, d, whole, wholeTriangles);
        for (int depth = 0; depth <= 6; ++depth) {
            std::vector<const BvhNode*> subtrees;
            zrbvh::CollectCrossedSubtrees(*root, normal, d, depth, subtrees);
            std::vector<const BvhLeafNode*> joined;
            int64_t triangles = 0;
            for (const BvhNode* subtree : subtrees) zrbvh::CollectCrossedLeaves(*subtree, normal, d, joined, triangles);
            EXPECT_EQ(joined, whole) << "plane " << d << ", depth " << depth;
            EXPECT_EQ(triangles, wholeTriangles);
        }
    }
    EXPECT_GT([&] {
        std::vector<const BvhLeafNode*> leaves;
        int64_t triangles = 0;
        zrbvh::CollectTreeLeaves(tree, yAxis, 0.5f, leaves, triangles);
        return leaves.size();
    }(), 7u);
}

}  // namespace
