// Triangle cuts, the plane cut through the hierarchy against the brute-force
// cut, its deliberate fallbacks, and closed analytic cross-sections.
#include "mesh/plane_cut.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <vector>

#include "common/matrix_record.h"
#include "host/mesh_builder.h"
#include "mesh/bvh/bvh_node.h"

// GoogleTest's built-in regular expressions (Windows) know \d but not brackets.
#if defined(GTEST_USES_SIMPLE_RE)
#define LINE_NUMBER "\\d+"
#else
#define LINE_NUMBER "[0-9]+"
#endif

namespace {

using zrcommon::Matrix16;
using zrcommon::ToMatrixRecord;
using zrmesh::CutTriangle;

const Matrix16 kIdentity = ToMatrixRecord(glm::mat4(1.0f));
const glm::vec3 kZ(0.0f, 0.0f, 1.0f);

// ---- Triangle cut cases (plane z = 0, identity projection) ----

TEST(TriangleCut, AVertexOnThePlaneAndTheOthersOppositeGiveVertexToOppositeEdge) {
    glm::vec3 a, b;
    ASSERT_TRUE(CutTriangle(0.0f, kZ, {1, 2, 0}, {0, 0, 1}, {4, 0, -1}, kIdentity, a, b));
    EXPECT_EQ(a, glm::vec3(1, 2, 0));
    EXPECT_EQ(b, glm::vec3(2, 0, 0));
    // The on-plane vertex in the middle and last position: it must count once.
    ASSERT_TRUE(CutTriangle(0.0f, kZ, {0, 0, 1}, {1, 2, 0}, {4, 0, -1}, kIdentity, a, b));
    EXPECT_EQ(a, glm::vec3(1, 2, 0));
    EXPECT_EQ(b, glm::vec3(2, 0, 0));
    ASSERT_TRUE(CutTriangle(0.0f, kZ, {0, 0, 1}, {4, 0, -1}, {1, 2, 0}, kIdentity, a, b));
    EXPECT_EQ(a, glm::vec3(2, 0, 0));
    EXPECT_EQ(b, glm::vec3(1, 2, 0));
}

TEST(TriangleCut, AnEdgeInThePlaneIsTheSegment) {
    glm::vec3 a, b;
    ASSERT_TRUE(CutTriangle(0.0f, kZ, {0, 0, 3}, {1, 0, 0}, {5, 1, 0}, kIdentity, a, b));
    EXPECT_EQ(a, glm::vec3(1, 0, 0));
    EXPECT_EQ(b, glm::vec3(5, 1, 0));
    ASSERT_TRUE(CutTriangle(0.0f, kZ, {5, 1, 0}, {0, 0, -3}, {1, 0, 0}, kIdentity, a, b));
    EXPECT_EQ(glm::distance(a, b), glm::distance(glm::vec3(1, 0, 0), glm::vec3(5, 1, 0)));
}

TEST(TriangleCut, NoCutWhenAllOnOneSideOrOnlyTouching) {
    glm::vec3 a, b;  // plane z = 0
    EXPECT_FALSE(CutTriangle(0.0f, kZ, {0, 0, 1}, {1, 0, 2}, {0, 1, 3}, kIdentity, a, b));
    EXPECT_FALSE(CutTriangle(0.0f, kZ, {0, 0, -1}, {1, 0, -2}, {0, 1, -3}, kIdentity, a, b));
    EXPECT_FALSE(CutTriangle(0.0f, kZ, {0, 0, 0}, {1, 0, 2}, {0, 1, 3}, kIdentity, a, b))
        << "a plane touching one vertex makes no segment";
}

TEST(TriangleCut, GeneralCrossingUsesTheOffsetAndTheProjection) {
    // Plane 2z = 2 (z = 1, unnormalised normal); the projection doubles x and
    // shifts y by 10.
    glm::mat4 projection(1.0f);
    projection[0][0] = 2.0f;
    projection[3][1] = 10.0f;
    glm::vec3 a, b;
    ASSERT_TRUE(CutTriangle(-2.0f, 2.0f * kZ, {0, 0, 0}, {4, 0, 2}, {0, 4, 2}, ToMatrixRecord(projection), a, b));
    EXPECT_EQ(a, glm::vec3(4, 10, 1));
    EXPECT_EQ(b, glm::vec3(0, 12, 1));
}

// ---- Plane cut of whole meshes ----

using Segment = std::array<float, 4>;

std::vector<Segment> Segments(const std::vector<float>& list, bool sorted = false) {
    std::vector<Segment> segments;
    for (size_t i = 0; i + 3 < list.size(); i += 4) segments.push_back({list[i], list[i + 1], list[i + 2], list[i + 3]});
    if (sorted) std::sort(segments.begin(), segments.end());
    return segments;
}

std::vector<float> CutToList(const zrobjects::ZrVObjectPrimitive& mesh, const zrbvh::BvhTree* tree,
                             const glm::vec3& point, const glm::vec3& normal, const glm::mat4& toScreen) {
    std::vector<float> list;
    zrmesh::SegmentTarget target;
    target.crossLines = &list;
    zrmesh::CutMeshWithPlane(point, normal, *mesh.GetPrimitiveData(), tree, ToMatrixRecord(toScreen), target);
    return list;
}

const zrbvh::BvhTree* TreeOf(const zrobjects::ZrVObjectPrimitive& mesh) {
    return static_cast<const zrbvh::BvhTree*>(mesh.GetBVHTree());
}

// An oblique plane, and one through the torus's outer and inner vertex rings
// (z = 99.75), where many leaf boxes only touch the plane.
TEST(PlaneCut, HierarchyAndBruteForceGiveTheSameSegments) {
    struct Case {
        int major, minor;
        glm::vec3 centre, normal;
        float scale;
        size_t atLeast;
    } cases[] = {{200, 100, {5, -3, 2}, glm::normalize(glm::vec3(0.3f, -0.5f, 0.81f)), 2.0f, 100},
                 {400, 200, {102.2f, 102.2f, 99.75f}, kZ, 1.0f, 800}};
    for (const Case& k : cases) {
        auto torus = zrobjects::MakeMeshPrimitive(
            zrobjects::MakeTorusArrays(60.0, 25.0, k.major, k.minor, glm::dvec3(k.centre)));
        const glm::mat4 toScreen(k.scale);
        const auto withTree = Segments(CutToList(*torus, TreeOf(*torus), k.centre, k.normal, toScreen), true);
        const auto bruteForce = Segments(CutToList(*torus, nullptr, k.centre, k.normal, toScreen), true);
        ASSERT_GT(bruteForce.size(), k.atLeast);
        EXPECT_EQ(withTree, bruteForce);
    }
}

TEST(PlaneCut, SegmentsAreGroupedByThreadInThreadOrder) {
    // On two threads with a static schedule (no hierarchy), thread 0 takes the
    // first half of the triangles: its segments come first, in triangle order.
    auto sphere = zrobjects::MakeMeshPrimitive(zrobjects::MakeSphereArrays(10.0, 40, 40, glm::dvec3(0.0)));
    const int before = omp_get_max_threads();
    omp_set_num_threads(2);
    const auto twoThreads = CutToList(*sphere, nullptr, glm::vec3(0.0f), glm::vec3(0.0f, 1.0f, 0.0f), glm::mat4(1.0f));
    omp_set_num_threads(1);
    const auto oneThread = CutToList(*sphere, nullptr, glm::vec3(0.0f), glm::vec3(0.0f, 1.0f, 0.0f), glm::mat4(1.0f));
    omp_set_num_threads(before);
    EXPECT_EQ(twoThreads, oneThread) << "static halves joined in thread order keep the triangle order";
}

TEST(PlaneCut, WithoutHierarchyAMissedBoundingBoxDrawsNothing) {
    auto wall = zrobjects::MakeMeshPrimitive(zrobjects::MakeTorusArrays(10.0, 2.0, 12, 8, glm::dvec3(0.0)));
    zrobjects::PrimitiveData& data = *wall->GetPrimitiveData();
    EXPECT_FALSE(CutToList(*wall, nullptr, glm::vec3(0.0f), kZ, glm::mat4(1.0f)).empty());
    data.boundingBox.pos_min = glm::dvec3(100.0);
    data.boundingBox.pos_max = glm::dvec3(101.0);
    EXPECT_TRUE(CutToList(*wall, nullptr, glm::vec3(0.0f), kZ, glm::mat4(1.0f)).empty());
}

// A hand-made tree over `triangleCount` triangles with `leafCount` leaves whose
// boxes all lie far away from the mesh.
struct MisplacedTree {
    zrbvh::BvhTree tree;
    // The leaves share out the first `triangleCount` triangle numbers.
    MisplacedTree(int triangleCount, int leafCount, int extraIndex = -1) {
        for (int t = 0; t < triangleCount; ++t) tree.triangleIndices.PushBack(t);
        std::vector<zrbvh::BvhNode*> nodes;
        for (int l = 0; l < leafCount; ++l) {
            auto* leaf = new zrbvh::BvhLeafNode();
            leaf->lo = triangleCount * l / leafCount;
            leaf->hi = triangleCount * (l + 1) / leafCount;
            if (l == leafCount - 1 && extraIndex >= 0) leaf->hi = extraIndex + 1;
            const float box[6] = {500, -5000, -1000, 600, 5000, 1000};
            std::copy(box, box + 6, leaf->bounds);
            nodes.push_back(leaf);
        }
        while (nodes.size() > 1) {
            auto* inner = new zrbvh::BvhInnerNode();
            inner->children[0] = nodes[0];
            inner->children[1] = nodes[1];
            std::copy(nodes[0]->bounds, nodes[0]->bounds + 6, inner->bounds);
            nodes.erase(nodes.begin(), nodes.begin() + 2);
            nodes.push_back(inner);
        }
        tree.root = nodes[0];
    }
};

TEST(PlaneCut, FewerThanFiveCrossedLeavesCutEveryTriangleAnyway) {
    // The plane x = 550 crosses the misplaced leaf boxes, never the mesh.
    // The plane x = 0 crosses the mesh, never the boxes: with fewer than five
    // leaves found (none), every triangle is still cut.
    auto torus = zrobjects::MakeMeshPrimitive(zrobjects::MakeTorusArrays(10.0, 2.0, 12, 8, glm::dvec3(0.0)));
    const int triangles = torus->GetPrimitiveData()->primitiveCount;
    MisplacedTree fourLeaves(triangles, 4);
    const glm::vec3 xAxis(1.0f, 0.0f, 0.0f);
    const auto expected = CutToList(*torus, nullptr, glm::vec3(0.0f), xAxis, glm::mat4(1.0f));
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(Segments(CutToList(*torus, &fourLeaves.tree, glm::vec3(0.0f), xAxis, glm::mat4(1.0f)), true),
              Segments(expected, true));
}

// Sets every node's box to one around the whole mesh.
void CoverEverything(zrbvh::BvhNode* node) {
    const float box[6] = {-100, -100, -100, 100, 100, 100};
    std::copy(box, box + 6, node->bounds);
    if (!node->IsLeaf())
        for (zrbvh::BvhNode* child : static_cast<zrbvh::BvhInnerNode*>(node)->children) CoverEverything(child);
}

TEST(PlaneCut, FewerThanFiveCrossedLeavesHoldingCutTrianglesListEachSegmentOnce) {
    // Four leaves whose boxes hold the whole mesh: the plane crosses them all,
    // too few for the hierarchy, so every triangle is cut, each once.
    auto torus = zrobjects::MakeMeshPrimitive(zrobjects::MakeTorusArrays(10.0, 2.0, 12, 8, glm::dvec3(0.0)));
    const int triangles = torus->GetPrimitiveData()->primitiveCount;
    MisplacedTree fourLeaves(triangles, 4);
    CoverEverything(fourLeaves.tree.root);
    const glm::vec3 xAxis(1.0f, 0.0f, 0.0f);
    const auto expected = CutToList(*torus, nullptr, glm::vec3(0.0f), xAxis, glm::mat4(1.0f));
    ASSERT_FALSE(expected.empty());
    const int before = omp_get_max_threads();
    for (int threads : {1, 2}) {
        omp_set_num_threads(threads);
        EXPECT_EQ(Segments(CutToList(*torus, &fourLeaves.tree, glm::vec3(0.0f), xAxis, glm::mat4(1.0f)), true),
                  Segments(expected, true))
            << threads << " threads";
    }
    omp_set_num_threads(before);
}

TEST(PlaneCut, FiveOrMoreCrossedLeavesCutOnlyTheirTriangles) {
    // Five misplaced leaves hold only the first half of the triangles. A plane
    // through the mesh and, far away, through all five leaf boxes runs the leaf
    // loop: exactly the segments of the first half appear.
    const zrobjects::MeshArrays arrays = zrobjects::MakeTorusArrays(10.0, 2.0, 12, 8, glm::dvec3(0.0));
    auto torus = zrobjects::MakeMeshPrimitive(arrays);
    const int half = torus->GetPrimitiveData()->primitiveCount / 2;
    MisplacedTree fiveLeaves(half, 5);
    zrobjects::MeshArrays firstHalf = arrays;
    firstHalf.indices.resize(static_cast<size_t>(half) * 3);
    auto halfTorus = zrobjects::MakeMeshPrimitive(firstHalf);

    const glm::vec3 tilted = glm::normalize(glm::vec3(1.0f, -0.5f, 0.0f));  // meets x = 550 at y = 1100
    const auto expected =
        Segments(CutToList(*halfTorus, nullptr, glm::vec3(0.0f), tilted, glm::mat4(1.0f)), true);
    ASSERT_FALSE(expected.empty());
    ASSERT_GT(CutToList(*torus, nullptr, glm::vec3(0.0f), tilted, glm::mat4(1.0f)).size(),
              4 * expected.size());
    EXPECT_EQ(Segments(CutToList(*torus, &fiveLeaves.tree, glm::vec3(0.0f), tilted, glm::mat4(1.0f)), true),
              expected);
}

TEST(PlaneCutDeathTest, ALeafRangePastTheIndexArrayFailsTheArrayCheck) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto torus = zrobjects::MakeMeshPrimitive(zrobjects::MakeTorusArrays(10.0, 2.0, 12, 8, glm::dvec3(0.0)));
    const int triangles = torus->GetPrimitiveData()->primitiveCount;
    MisplacedTree badTree(triangles, 5, triangles);  // the last leaf reaches one past the end
    EXPECT_EXIT(CutToList(*torus, &badTree.tree, glm::vec3(550.0f, 0.0f, 0.0f), glm::vec3(1.0f, 0.0f, 0.0f),
                          glm::mat4(1.0f)),
                testing::ExitedWithCode(70),
                "Assertion failed!\nArray:" LINE_NUMBER "\nidx >= 0 && idx < m_size");
}

// ---- Analytic cross-section: a sphere cut by an oblique plane ----

TEST(PlaneCutProperty, SphereSectionLiesOnItsCircleAndFormsOneClosedLoop) {
    const glm::dvec3 centre(3.0, -2.0, 1.0);
    const double radius = 20.0;
    const int stacks = 60, slices = 90;
    auto sphere = zrobjects::MakeMeshPrimitive(zrobjects::MakeSphereArrays(radius, stacks, slices, centre));
    const glm::vec3 normal = glm::normalize(glm::vec3(0.2f, 0.4f, 0.9f));
    const float offset = 7.0f;  // plane distance from the centre
    const glm::vec3 point = glm::vec3(centre) + offset * normal;
    // Identity projection: segments come back in object space (x, y only are
    // listed, so project along the normal's largest axis instead: use a frame).
    const glm::vec3 u = glm::normalize(glm::cross(normal, glm::vec3(1, 0, 0)));
    const glm::vec3 v = glm::cross(normal, u);
    glm::mat4 toPlane(1.0f);  // object -> (u, v, normal) coordinates around the plane point
    for (int c = 0; c < 3; ++c) {
        toPlane[c][0] = u[c];
        toPlane[c][1] = v[c];
        toPlane[c][2] = normal[c];
    }
    toPlane[3] = glm::vec4(-glm::dot(u, point), -glm::dot(v, point), -glm::dot(normal, point), 1.0f);

    const auto segments = Segments(CutToList(*sphere, TreeOf(*sphere), point, normal, toPlane));
    ASSERT_GT(segments.size(), 50u);
    // The section circle has radius sqrt(R^2 - offset^2) about the plane point;
    // the mesh lies between the sphere and its inscribed polyhedron, whose faces
    // are at least R cos(pi / stacks) cos(pi / slices) from the centre.
    const double sectionRadius = std::sqrt(radius * radius - offset * offset);
    const double inner = radius * std::cos(M_PI / stacks) * std::cos(M_PI / slices);
    const double innerSection = std::sqrt(inner * inner - offset * offset);
    for (const Segment& s : segments)
        for (int e = 0; e < 2; ++e) {
            const double r = std::hypot(s[2 * e], s[2 * e + 1]);
            EXPECT_LE(r, sectionRadius + 1e-3);
            EXPECT_GE(r, innerSection - 1e-3);
        }

    // Closed loop: every end meets the end of one other segment (its nearest
    // end, within rounding, and mutually), and walking from segment to segment
    // returns to the start after visiting all of them.
    const size_t n = segments.size();
    const auto distance = [&](size_t a, int ea, size_t b, int eb) {
        return std::hypot(segments[a][2 * ea] - segments[b][2 * eb], segments[a][2 * ea + 1] - segments[b][2 * eb + 1]);
    };
    std::vector<std::array<std::pair<size_t, int>, 2>> link(n);
    for (size_t a = 0; a < n; ++a)
        for (int ea = 0; ea < 2; ++ea) {
            double best = 1e30;
            for (size_t b = 0; b < n; ++b)
                for (int eb = 0; eb < 2; ++eb)
                    if (b != a && distance(a, ea, b, eb) < best) {
                        best = distance(a, ea, b, eb);
                        link[a][ea] = {b, eb};
                    }
            ASSERT_LT(best, 1e-4) << "segment " << a << " end " << ea << " is open";
        }
    for (size_t a = 0; a < n; ++a)
        for (int ea = 0; ea < 2; ++ea) {
            const auto [b, eb] = link[a][ea];
            ASSERT_EQ(link[b][eb], std::make_pair(a, ea)) << "ends pair up one to one";
        }
    size_t current = 0, visited = 0;
    int exitEnd = 1;
    do {
        const auto [next, enteredEnd] = link[current][exitEnd];
        current = next;
        exitEnd = 1 - enteredEnd;
        ++visited;
    } while (current != 0 && visited <= n);
    EXPECT_EQ(visited, n) << "one loop through every segment";
}

}  // namespace
