#include "bvh_builder.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace zrobjects {

namespace {

struct Box {
    float lo[3] = {std::numeric_limits<float>::max(), std::numeric_limits<float>::max(),
                   std::numeric_limits<float>::max()};
    float hi[3] = {-std::numeric_limits<float>::max(), -std::numeric_limits<float>::max(),
                   -std::numeric_limits<float>::max()};

    void Grow(const float p[3]) {
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::min(lo[a], p[a]);
            hi[a] = std::max(hi[a], p[a]);
        }
    }
    void Grow(const Box& b) {
        Grow(b.lo);
        Grow(b.hi);
    }
    double HalfArea() const {
        if (lo[0] > hi[0]) return 0.0;
        const double x = hi[0] - lo[0], y = hi[1] - lo[1], z = hi[2] - lo[2];
        return x * y + y * z + z * x;
    }
};

struct TriangleBounds {
    Box box;
    float centre[3];
};

// Beyond this depth splits fall back to the median, which bounds the depth of
// trees over meshes where the heuristic keeps peeling one triangle off.
constexpr int kMaxHeuristicDepth = 48;

class Builder {
public:
    Builder(const std::vector<TriangleBounds>& triangles, std::vector<int32_t>& order,
            const BvhBuildOptions& options)
        : triangles_(triangles), order_(order), options_(options) {}

    zrbvh::BvhNode* Build(int32_t begin, int32_t end, int depth) {
        Box bounds, centres;
        for (int32_t i = begin; i < end; ++i) {
            bounds.Grow(triangles_[order_[i]].box);
            centres.Grow(triangles_[order_[i]].centre);
        }
        const int32_t count = end - begin;
        if (count <= options_.maxLeafTriangles) {
            auto* leaf = new zrbvh::BvhLeafNode();
            SetBounds(*leaf, bounds);
            leaf->lo = begin;
            leaf->hi = end;
            return leaf;
        }

        int axis = 0;
        for (int a = 1; a < 3; ++a)
            if (centres.hi[a] - centres.lo[a] > centres.hi[axis] - centres.lo[axis]) axis = a;
        const float extent = centres.hi[axis] - centres.lo[axis];

        int32_t middle = -1;
        if (extent > 0.0f && depth < kMaxHeuristicDepth) middle = SplitByHeuristic(begin, end, axis, centres);
        if (middle <= begin || middle >= end) {
            // All centres coincide, the depth limit is reached, or the heuristic
            // found no useful split: halve at the median along the axis.
            middle = begin + count / 2;
            std::nth_element(order_.begin() + begin, order_.begin() + middle, order_.begin() + end,
                             [&](int32_t a, int32_t b) {
                                 return triangles_[a].centre[axis] < triangles_[b].centre[axis];
                             });
        }

        auto* inner = new zrbvh::BvhInnerNode();
        SetBounds(*inner, bounds);
        inner->children[0] = Build(begin, middle, depth + 1);
        inner->children[1] = Build(middle, end, depth + 1);
        return inner;
    }

private:
    // Node boxes are padded outward by about a millionth of their coordinates'
    // size. The slicer's plane-box test rounds the box centre and half extent to
    // float separately, so a plane that exactly touches a tight box (a ring of
    // vertices lying in the plane) can come out a hair outside it and lose the
    // triangles there; the padding keeps touching planes inside.
    static void SetBounds(zrbvh::BvhNode& node, const Box& box) {
        for (int a = 0; a < 3; ++a) {
            const float pad = (std::max(std::fabs(box.lo[a]), std::fabs(box.hi[a])) + (box.hi[a] - box.lo[a])) *
                              (1.0f / 1048576.0f);
            node.bounds[a] = box.lo[a] - pad;
            node.bounds[3 + a] = box.hi[a] + pad;
        }
    }

    int Bin(int32_t triangle, int axis, const Box& centres) const {
        const float extent = centres.hi[axis] - centres.lo[axis];
        const float relative = (triangles_[triangle].centre[axis] - centres.lo[axis]) / extent;
        return std::clamp(static_cast<int>(relative * static_cast<float>(options_.binCount)), 0,
                          options_.binCount - 1);
    }

    // Binned surface-area heuristic; returns the partition point, or -1.
    int32_t SplitByHeuristic(int32_t begin, int32_t end, int axis, const Box& centres) {
        const int bins = options_.binCount;
        std::vector<Box> binBoxes(bins);
        std::vector<int32_t> binCounts(bins, 0);
        for (int32_t i = begin; i < end; ++i) {
            const int b = Bin(order_[i], axis, centres);
            binBoxes[b].Grow(triangles_[order_[i]].box);
            ++binCounts[b];
        }
        // Costs of every split after bin s: sweep from the right, then the left.
        std::vector<double> rightCost(bins, 0.0);
        Box right;
        int32_t rightCount = 0;
        for (int s = bins - 1; s > 0; --s) {
            right.Grow(binBoxes[s]);
            rightCount += binCounts[s];
            rightCost[s] = right.HalfArea() * rightCount;
        }
        Box left;
        int32_t leftCount = 0;
        double bestCost = std::numeric_limits<double>::infinity();
        int bestSplit = -1;
        for (int s = 1; s < bins; ++s) {
            left.Grow(binBoxes[s - 1]);
            leftCount += binCounts[s - 1];
            if (leftCount == 0 || leftCount == end - begin) continue;
            const double cost = left.HalfArea() * leftCount + rightCost[s];
            if (cost < bestCost) {
                bestCost = cost;
                bestSplit = s;
            }
        }
        if (bestSplit < 0) return -1;
        const auto middle = std::partition(order_.begin() + begin, order_.begin() + end,
                                           [&](int32_t t) { return Bin(t, axis, centres) < bestSplit; });
        return static_cast<int32_t>(middle - order_.begin());
    }

    const std::vector<TriangleBounds>& triangles_;
    std::vector<int32_t>& order_;
    const BvhBuildOptions& options_;
};

// The tree together with the scene record it points to.
struct OwnedTree {
    zrbvh::BvhScene scene;
    zrbvh::BvhTree tree;
};

}  // namespace

std::shared_ptr<zrbvh::BvhTree> BuildBvh(const float* positions, int32_t vertexCount, const uint32_t* indices,
                                         int32_t triangleCount, const BvhBuildOptions& options) {
    if (!positions || !indices) throw std::invalid_argument("BVH build: null position or index array");
    if (vertexCount <= 0) throw std::invalid_argument("BVH build: vertex count must be positive");
    if (triangleCount <= 0) throw std::invalid_argument("BVH build: triangle count must be positive");
    if (options.maxLeafTriangles < 1 || options.binCount < 2)
        throw std::invalid_argument("BVH build: leaf size must be at least 1 and bin count at least 2");

    std::vector<TriangleBounds> triangles(static_cast<size_t>(triangleCount));
    for (int32_t t = 0; t < triangleCount; ++t) {
        TriangleBounds& bounds = triangles[t];
        for (int k = 0; k < 3; ++k) {
            const uint32_t vertex = indices[3 * static_cast<size_t>(t) + k];
            if (vertex >= static_cast<uint32_t>(vertexCount))
                throw std::invalid_argument("BVH build: triangle " + std::to_string(t) + " uses vertex " +
                                            std::to_string(vertex) + " of " + std::to_string(vertexCount));
            const float* p = positions + 3 * static_cast<size_t>(vertex);
            if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2]))
                throw std::invalid_argument("BVH build: vertex " + std::to_string(vertex) +
                                            " has a position that is not finite");
            bounds.box.Grow(p);
        }
        for (int a = 0; a < 3; ++a) bounds.centre[a] = 0.5f * (bounds.box.lo[a] + bounds.box.hi[a]);
    }

    std::vector<int32_t> order(static_cast<size_t>(triangleCount));
    for (int32_t t = 0; t < triangleCount; ++t) order[t] = t;

    auto owned = std::make_shared<OwnedTree>();
    owned->scene = zrbvh::BvhScene{positions, indices, vertexCount, triangleCount};
    owned->tree.scene = &owned->scene;
    Builder builder(triangles, order, options);
    owned->tree.root = builder.Build(0, triangleCount, 0);
    owned->tree.triangleIndices.Reallocate(triangleCount);
    for (int32_t t : order) owned->tree.triangleIndices.PushBack(t);
    // Shares ownership of the holder while pointing at its tree.
    return std::shared_ptr<zrbvh::BvhTree>(owned, &owned->tree);
}

}  // namespace zrobjects
