#include "plane_cut.h"

#include <algorithm>
#include <cmath>

#include <omp.h>

#include "common/segment_clip.h"
#include "mesh/bvh/array.h"
#include "mesh/bvh/bvh_query.h"

namespace zrmesh {

using zrcommon::Matrix16;
using zrcommon::TransformPoint;

namespace {

// The host's hierarchy pays off only when the plane crosses enough leaves;
// below this the whole triangle list is run instead.
constexpr size_t kMinLeavesForHierarchy = 5;

// Levels below the root at which the hierarchy walk is shared out: up to 64
// subtrees, of which a plane crosses enough to keep every thread busy.
constexpr int kSubtreeDepth = 6;

// Room made in the container of per-thread lists when segments are collected.
// The lists themselves grow on demand.
constexpr size_t kThreadListSlots = 15000;

// One thread's segment list, alone on its cache lines: the list's end changes
// with every segment, and lists sharing a line would make the threads take it
// from each other each time.
struct alignas(64) ThreadList {
    std::vector<float> value;
};

inline float Dot(const glm::vec3& a, const glm::vec3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }

inline bool Finite(const glm::vec3& p) { return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z); }

// Everything one triangle needs, captured once before the parallel loops.
struct CutSetup {
    const float* positions;
    const uint32_t* indices;
    uint32_t vertexCount;
    int32_t triangleCount;
    glm::vec3 normal;
    float negD;
    Matrix16 objectToScreen;
    const SegmentTarget* target;
    ThreadList* threadLists;  // null when drawing
};

inline glm::vec3 Vertex(const CutSetup& s, uint32_t index) {
    const float* p = s.positions + static_cast<size_t>(index) * 3;
    return glm::vec3(p[0], p[1], p[2]);
}

void TreatTriangle(const CutSetup& s, int32_t triangle) {
    if (triangle < 0 || triangle >= s.triangleCount) return;
    const uint32_t* tri = s.indices + static_cast<size_t>(triangle) * 3;
    // The host validates its index buffers; an index past the vertices is
    // skipped here rather than read out of bounds.
    if (tri[0] >= s.vertexCount || tri[1] >= s.vertexCount || tri[2] >= s.vertexCount) return;
    const glm::vec3 v0 = Vertex(s, tri[0]), v1 = Vertex(s, tri[1]), v2 = Vertex(s, tri[2]);
    // Most triangles of a crossed leaf lie wholly on one side of the plane: the
    // cut's own signed distances, strictly of one sign, mean no crossing and no
    // vertex on the plane, so the cut would find nothing.
    const float s0 = Dot(s.normal, v0) + s.negD, s1 = Dot(s.normal, v1) + s.negD, s2 = Dot(s.normal, v2) + s.negD;
    if ((s0 > 0.0f && s1 > 0.0f && s2 > 0.0f) || (s0 < 0.0f && s1 < 0.0f && s2 < 0.0f)) return;
    glm::vec3 start, end;
    if (!CutTriangle(s.negD, s.normal, v0, v1, v2, s.objectToScreen, start, end)) return;
    // A triangle lying within rounding of the plane can put a crossing at
    // -s / 0: such a segment has no place on the screen and is dropped.
    if (!Finite(start) || !Finite(end)) return;
    const SegmentTarget& target = *s.target;
    const ScreenWindow* window = target.window;
    if (window && !zrcommon::ClipToRectangle(start, end, {window->minX, window->minY}, {window->maxX, window->maxY}))
        return;
    if (s.threadLists) {
        const float dx = end.x - start.x, dy = end.y - start.y;
        if (!(dx * dx + dy * dy > 0.0f)) return;
        std::vector<float>& list = s.threadLists[omp_get_thread_num()].value;
        list.insert(list.end(), {start.x, start.y, end.x, end.y});
        return;
    }
    // Threads draw without a lock: two of them writing one pixel write the same
    // colour.
    DrawSegment(start, end, target.colour, target.pixels, target.width, target.height, target.thickness,
                target.colour, target.clip);
}

// The dynamic schedule of the whole triangle list hands out runs of
// triangles, not single ones: most are rejected at once, and taking them one
// at a time from the shared counter cost more than treating them. Only the
// order of segments within a thread's list depends on the schedule.
constexpr int kTriangleRun = 4096;

void RunAllTriangles(const CutSetup& s, bool dynamicSchedule) {
    const int32_t count = s.triangleCount;
    if (dynamicSchedule) {
#pragma omp parallel for schedule(dynamic, kTriangleRun)
        for (int32_t t = 0; t < count; ++t) TreatTriangle(s, t);
    } else {
#pragma omp parallel for schedule(static)
        for (int32_t t = 0; t < count; ++t) TreatTriangle(s, t);
    }
}

// Walks the subtrees a few levels down on all threads and cuts the triangles
// of each crossed leaf as soon as it is found; returns how many leaves were
// crossed. Drawing a segment twice leaves the same pixels, so when the
// hierarchy turns out not to pay (too few leaves) the caller can still run
// every triangle after it, once the lists made here are emptied.
int64_t CutCrossedLeaves(const CutSetup& s, const zrbvh::BvhTree& tree) {
    std::vector<const zrbvh::BvhNode*> subtrees;
    zrbvh::CollectCrossedSubtrees(tree, s.normal, -s.negD, kSubtreeDepth, subtrees);
    const int64_t count = static_cast<int64_t>(subtrees.size());
    int64_t crossed = 0;
#pragma omp parallel if (count > 1) reduction(+ : crossed)
    {
        std::vector<const zrbvh::BvhLeafNode*> leaves;
#pragma omp for schedule(dynamic, 1)
        for (int64_t n = 0; n < count; ++n) {
            leaves.clear();
            int64_t triangles = 0;
            zrbvh::CollectCrossedLeaves(*subtrees[n], s.normal, -s.negD, leaves, triangles);
            crossed += static_cast<int64_t>(leaves.size());
            for (const zrbvh::BvhLeafNode* leaf : leaves)
                // Checked reads: a leaf range outside the index array is a fatal failure.
                for (int32_t j = leaf->lo; j < leaf->hi; ++j) TreatTriangle(s, tree.triangleIndices[j]);
        }
    }
    return crossed;
}

}  // namespace

bool CutTriangle(float negD, const glm::vec3& normal, const glm::vec3& v0, const glm::vec3& v1,
                 const glm::vec3& v2, const Matrix16& objectToScreen, glm::vec3& start, glm::vec3& end) {
    const glm::vec3* vertex[3] = {&v0, &v1, &v2};
    const float side[3] = {Dot(normal, v0) + negD, Dot(normal, v1) + negD, Dot(normal, v2) + negD};
    glm::vec3 found[2];
    int foundCount = 0;
    unsigned taken = 0;  // vertices already used as crossing points, one bit each
    for (int e = 0; e < 3 && foundCount < 2; ++e) {
        const int a = e, b = (e + 1) % 3;
        const glm::vec3 &pa = *vertex[a], &pb = *vertex[b];
        const float sa = side[a], sb = side[b];
        if (sa == 0.0f && sb == 0.0f) {
            // The edge lies in the plane: it is the segment.
            start = TransformPoint(objectToScreen, pa);
            end = TransformPoint(objectToScreen, pb);
            return true;
        }
        if (sa * sb < 0.0f) {
            const glm::vec3 edge = pb - pa;
            const float t = -sa / Dot(normal, edge);
            found[foundCount++] = pa + t * edge;
            continue;
        }
        // A vertex on the plane ends one edge and starts another; it counts
        // once, so a plane through a vertex and the opposite edge yields that
        // edge's crossing as the second point, and a plane that only touches a
        // vertex yields no segment.
        for (const int v : {a, b}) {
            if (side[v] != 0.0f || (taken & (1u << v)) || foundCount == 2) continue;
            found[foundCount++] = *vertex[v];
            taken |= 1u << v;
        }
    }
    if (foundCount < 2) return false;
    start = TransformPoint(objectToScreen, found[0]);
    end = TransformPoint(objectToScreen, found[1]);
    return true;
}

void CutMeshWithPlane(const glm::vec3& planePoint, const glm::vec3& planeNormal,
                      const zrobjects::PrimitiveData& data, const zrbvh::BvhTree* tree,
                      const Matrix16& objectToScreen, const SegmentTarget& target) {
    const zrobjects::VertexAttribute* positions = data.FindAttribute("POSITION");
    if (!positions || data.verticesPerPrimitive != 3) return;
    const float d = Dot(planeNormal, planePoint);

    CutSetup setup;
    setup.positions = positions->values.data();
    setup.indices = data.indices.data();
    setup.vertexCount = static_cast<uint32_t>(positions->values.size() / 3);
    setup.triangleCount = std::clamp<int32_t>(data.primitiveCount, 0,
                                              static_cast<int32_t>(data.indices.size() / 3));
    setup.normal = planeNormal;
    setup.negD = -d;
    setup.objectToScreen = objectToScreen;
    setup.target = &target;

    // One list per processor, selected by thread number; never fewer than the
    // team can have threads.
    std::vector<ThreadList> threadLists;
    if (target.crossLines) {
        threadLists.reserve(kThreadListSlots);  // deliberate: room in the container, not in the lists
        threadLists.resize(static_cast<size_t>(std::max(omp_get_num_procs(), omp_get_max_threads())));
        setup.threadLists = threadLists.data();
    } else {
        setup.threadLists = nullptr;
    }

    if (!tree) {
        const double* box = &data.boundingBox.pos_min.x;
        const double bounds[6] = {box[0], box[1], box[2], data.boundingBox.pos_max.x,
                                  data.boundingBox.pos_max.y, data.boundingBox.pos_max.z};
        if (!zrbvh::PlaneHitsBox(bounds, planeNormal, d)) return;
        RunAllTriangles(setup, false);
    } else {
        // The tree's own triangle-index array is read, with the same checks;
        // a copy of it would change nothing but the time.
        if (CutCrossedLeaves(setup, *tree) < static_cast<int64_t>(kMinLeavesForHierarchy)) {
            // Deliberately all triangles, even when the plane misses every
            // leaf: the segments of the leaves found are not used.
            for (ThreadList& list : threadLists) list.value.clear();
            RunAllTriangles(setup, true);
        }
    }

    if (target.crossLines)
        for (const ThreadList& list : threadLists)
            target.crossLines->insert(target.crossLines->end(), list.value.begin(), list.value.end());
}

}  // namespace zrmesh
