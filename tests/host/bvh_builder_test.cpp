// The hierarchy builder: every triangle in exactly one small leaf, boxes that
// hold what lies below them, one tree whatever the thread count, its nodes in
// one block depth first, and refusals naming what is wrong.
#include "host/bvh_builder.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/mesh_builder.h"
#include "mesh/bvh/bvh_node.h"

namespace {

using zrbvh::BvhInnerNode;
using zrbvh::BvhLeafNode;
using zrbvh::BvhNode;
using zrbvh::BvhTree;

std::shared_ptr<BvhTree> Build(const zrobjects::MeshArrays& mesh,
                               const zrobjects::BvhBuildOptions& options = {}) {
    return zrobjects::BuildBvh(mesh.positions.data(), static_cast<int32_t>(mesh.positions.size() / 3),
                               mesh.indices.data(), static_cast<int32_t>(mesh.indices.size() / 3), options);
}

// Large enough for the top splits to be binned in chunks by several tasks and
// for many subtrees to be tasks of their own.
const zrobjects::MeshArrays& Torus() {
    static const zrobjects::MeshArrays torus =
        zrobjects::MakeTorusArrays(60.0, 25.0, 600, 250, {3.0, -2.0, 1.0});
    return torus;
}

class ThreadCount {
public:
    explicit ThreadCount(int count) : before_(omp_get_max_threads()) { omp_set_num_threads(count); }
    ~ThreadCount() { omp_set_num_threads(before_); }

private:
    int before_;
};

void Walk(const BvhNode& node, const std::function<void(const BvhNode&)>& visit) {
    visit(node);
    if (node.IsLeaf()) return;
    const auto& inner = static_cast<const BvhInnerNode&>(node);
    Walk(*inner.children[0], visit);
    Walk(*inner.children[1], visit);
}

bool Inside(const float inner[6], const float outer[6]) {
    for (int a = 0; a < 3; ++a)
        if (inner[a] < outer[a] || inner[3 + a] > outer[3 + a]) return false;
    return true;
}

// Node by node: kind, bounds bit for bit, leaf ranges; then the index array.
void ExpectSameTree(const BvhTree& a, const BvhTree& b) {
    std::vector<const BvhNode*> left, right;
    Walk(*a.root, [&](const BvhNode& n) { left.push_back(&n); });
    Walk(*b.root, [&](const BvhNode& n) { right.push_back(&n); });
    ASSERT_EQ(left.size(), right.size());
    for (size_t k = 0; k < left.size(); ++k) {
        ASSERT_EQ(left[k]->IsLeaf(), right[k]->IsLeaf()) << "node " << k;
        ASSERT_EQ(std::memcmp(left[k]->bounds, right[k]->bounds, sizeof(left[k]->bounds)), 0) << "node " << k;
        if (left[k]->IsLeaf()) {
            const auto& x = static_cast<const BvhLeafNode&>(*left[k]);
            const auto& y = static_cast<const BvhLeafNode&>(*right[k]);
            ASSERT_EQ(x.lo, y.lo) << "node " << k;
            ASSERT_EQ(x.hi, y.hi) << "node " << k;
        }
    }
    ASSERT_EQ(a.triangleIndices.Size(), b.triangleIndices.Size());
    EXPECT_EQ(std::memcmp(a.triangleIndices.Data(), b.triangleIndices.Data(),
                          sizeof(int32_t) * static_cast<size_t>(a.triangleIndices.Size())),
              0);
}

TEST(BvhBuilder, EveryTriangleLiesInExactlyOneSmallLeafInsideItsBoxes) {
    const zrobjects::MeshArrays& torus = Torus();
    const auto tree = Build(torus);
    const int32_t triangles = static_cast<int32_t>(torus.indices.size() / 3);
    ASSERT_EQ(tree->triangleIndices.Size(), triangles);
    std::vector<int> seen(static_cast<size_t>(triangles), 0);
    for (int32_t k = 0; k < triangles; ++k) ++seen[static_cast<size_t>(tree->triangleIndices[k])];
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), triangles);

    int32_t covered = 0;
    Walk(*tree->root, [&](const BvhNode& node) {
        if (!node.IsLeaf()) {
            const auto& inner = static_cast<const BvhInnerNode&>(node);
            EXPECT_TRUE(Inside(inner.children[0]->bounds, node.bounds));
            EXPECT_TRUE(Inside(inner.children[1]->bounds, node.bounds));
            return;
        }
        const auto& leaf = static_cast<const BvhLeafNode&>(node);
        EXPECT_GE(leaf.hi - leaf.lo, 1);
        EXPECT_LE(leaf.hi - leaf.lo, 4);
        EXPECT_EQ(leaf.lo, covered) << "leaves cover the index array in order";
        covered = leaf.hi;
        for (int32_t j = leaf.lo; j < leaf.hi; ++j)
            for (int c = 0; c < 3; ++c) {
                const float* p = &torus.positions[3 * torus.indices[3 * tree->triangleIndices[j] + c]];
                for (int a = 0; a < 3; ++a) {
                    EXPECT_LE(leaf.bounds[a], p[a]);
                    EXPECT_GE(leaf.bounds[3 + a], p[a]);
                }
            }
    });
    EXPECT_EQ(covered, triangles);
}

TEST(BvhBuilder, BuildsTheSameTreeOnAnyNumberOfThreads) {
    std::shared_ptr<BvhTree> one;
    {
        const ThreadCount threads(1);
        one = Build(Torus());
    }
    for (const int count : {2, 3, 5}) {
        const ThreadCount threads(count);
        SCOPED_TRACE(count);
        ExpectSameTree(*one, *Build(Torus()));
    }
}

// A tree over coinciding triangles has no useful split anywhere; it is halved
// at the median, the same on any thread count.
TEST(BvhBuilder, CoincidingTrianglesAreHalvedTheSameOnAnyNumberOfThreads) {
    zrobjects::MeshArrays stacked;
    stacked.positions = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    for (int k = 0; k < 150000; ++k) stacked.indices.insert(stacked.indices.end(), {0u, 1u, 2u});
    std::shared_ptr<BvhTree> one;
    {
        const ThreadCount threads(1);
        one = Build(stacked);
    }
    const ThreadCount threads(2);
    ExpectSameTree(*one, *Build(stacked));
    int depth = 0;
    const BvhNode* node = one->root;
    for (; !node->IsLeaf(); ++depth) node = static_cast<const BvhInnerNode*>(node)->children[0];
    EXPECT_EQ(depth, 15);  // child 0 takes the smaller half: 150000, 75000, ..., 9, 4
}

// The nodes lie in one block in depth-first order: child 0 right after its
// parent, each node right after the whole subtree before it.
TEST(BvhBuilder, NodesLieInOneBlockDepthFirst) {
    const auto tree = Build(Torus());
    const char* expected = reinterpret_cast<const char*>(tree->root);
    size_t nodes = 0;
    Walk(*tree->root, [&](const BvhNode& node) {
        EXPECT_EQ(reinterpret_cast<const char*>(&node), expected) << "node " << nodes;
        expected += node.IsLeaf() ? sizeof(BvhLeafNode) : sizeof(BvhInnerNode);
        ++nodes;
    });
    EXPECT_GT(nodes, 100000u);
}

struct Refusal {
    const char* name;
    std::function<void(zrobjects::MeshArrays&, zrobjects::BvhBuildOptions&)> spoil;
    const char* message;
};

void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.name; }

class BvhBuilderRefuses : public testing::TestWithParam<Refusal> {};

TEST_P(BvhBuilderRefuses, NamingWhatIsWrong) {
    zrobjects::MeshArrays mesh = zrobjects::MakeSphereArrays(10.0, 40, 60, glm::dvec3(0.0));
    zrobjects::BvhBuildOptions options;
    GetParam().spoil(mesh, options);
    try {
        Build(mesh, options);
        FAIL() << "built";
    } catch (const std::invalid_argument& e) {
        EXPECT_EQ(std::string(e.what()), GetParam().message);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BvhBuilderRefuses,
    testing::Values(Refusal{"IndexPastTheVertices",
                            [](auto& m, auto&) {
                                m.indices[3 * 900 + 1] = 5000;
                                m.indices[3 * 1500] = 7000;  // a later one is not the one named
                            },
                            "BVH build: triangle 900 uses vertex 5000 of 2342"},
                    Refusal{"PositionNotFinite",
                            [](auto& m, auto&) {
                                m.positions[3 * 700 + 2] = std::numeric_limits<float>::quiet_NaN();
                                m.positions[3 * 20] = std::numeric_limits<float>::infinity();
                            },
                            "BVH build: vertex 20 has a position that is not finite"},
                    Refusal{"LeafSizeZero", [](auto&, auto& o) { o.maxLeafTriangles = 0; },
                            "BVH build: leaf size must be at least 1 and bin count at least 2"},
                    Refusal{"OneBin", [](auto&, auto& o) { o.binCount = 1; },
                            "BVH build: leaf size must be at least 1 and bin count at least 2"}),
    [](const testing::TestParamInfo<Refusal>& info) { return info.param.name; });

}  // namespace
