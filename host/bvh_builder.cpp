#include "bvh_builder.h"

#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <unordered_map>
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
    // The union with a box that is not empty, given by its corners.
    void Merge(const float otherLo[3], const float otherHi[3]) {
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::min(lo[a], otherLo[a]);
            hi[a] = std::max(hi[a], otherHi[a]);
        }
    }
    void Merge(const Box& b) { Merge(b.lo, b.hi); }
    double HalfArea() const {
        const double x = hi[0] - lo[0], y = hi[1] - lo[1], z = hi[2] - lo[2];
        return x * y + y * z + z * x;
    }
};

// One triangle while the tree is built: its box, its number and its bin in the
// split being made, moved about together so that every pass reads memory in
// order. The centre is formed where it is needed, always by the same
// expression.
struct TriangleRef {
    float lo[3], hi[3];  // the triangle's box
    int32_t triangle;
    int32_t bin;

    float Centre(int axis) const { return 0.5f * (lo[axis] + hi[axis]); }
};

// The boxes of a run of triangles and of their centres. Min and max are exact,
// so the result does not depend on how the run is split up or merged.
struct RangeBounds {
    Box bounds, centres;
    int32_t count = 0;

    void Add(const TriangleRef& ref) {
        bounds.Merge(ref.lo, ref.hi);
        const float c[3] = {ref.Centre(0), ref.Centre(1), ref.Centre(2)};
        centres.Grow(c);
        ++count;
    }
    void Merge(const RangeBounds& other) {
        if (other.count == 0) return;
        bounds.Merge(other.bounds);
        centres.Merge(other.centres);
        count += other.count;
    }
};

// What a split needs of one bin: the box of its triangles and their count. The
// centres' boxes of the two sides are gathered while the run is partitioned.
struct BinStats {
    Box bounds;
    int32_t count = 0;

    void Add(const TriangleRef& ref) {
        bounds.Merge(ref.lo, ref.hi);
        ++count;
    }
    void Merge(const BinStats& other) {
        if (other.count == 0) return;
        bounds.Merge(other.bounds);
        count += other.count;
    }
};

// A node as the build finds it, before it becomes a node object. Children are
// numbered within their piece of the tree; a negative number -(k + 1) names
// the piece's k-th spawned piece.
struct PlanNode {
    float bounds[6];
    int32_t first;   // leaf: lo; inner: child 0
    int32_t second;  // leaf: hi; inner: child 1
    bool leaf;
};

// The nodes of one subtree built by one task, in depth-first order, and the
// subtrees it handed to other tasks.
struct TreePiece {
    std::vector<PlanNode> nodes;
    std::vector<std::unique_ptr<TreePiece>> spawned;
    int64_t innerCount = 0, leafCount = 0;  // of this piece alone
};

// Beyond this depth splits fall back to the median, which bounds the depth of
// trees over meshes where the heuristic keeps peeling one triangle off.
constexpr int kMaxHeuristicDepth = 48;
// Subtrees of at least this many triangles are built by a task of their own.
constexpr int32_t kTaskTriangles = 1 << 12;
// Runs of at least this many triangles are binned and measured in chunks of
// kChunkTriangles by several tasks; the chunks' boxes are merged by min and
// max, which gives the same bits in any order.
constexpr int32_t kParallelRunTriangles = 1 << 17;
constexpr int32_t kChunkTriangles = 1 << 15;
// Runs shorter than this are binned with one set of bins.
constexpr int32_t kTwoBinSetTriangles = 256;

// An array of `size` default values, held inline up to the usual bin count:
// the bottom of a tree is many small nodes, each binned once.
template <class T>
class SmallArray {
public:
    explicit SmallArray(int size) : size_(size) {
        if (size > kInline) heap_.resize(static_cast<size_t>(size));
    }
    T& operator[](int k) { return size_ > kInline ? heap_[static_cast<size_t>(k)] : inline_[k]; }
    const T& operator[](int k) const { return size_ > kInline ? heap_[static_cast<size_t>(k)] : inline_[k]; }
    int Size() const { return size_; }

private:
    static constexpr int kInline = 16;
    int size_;
    std::array<T, kInline> inline_{};
    std::vector<T> heap_;
};

using Bins = SmallArray<BinStats>;

class Builder {
public:
    Builder(TriangleRef* refs, const BvhBuildOptions& options) : refs_(refs), options_(options) {}

    // The piece rooted at triangles begin .. end - 1, whose boxes are `range`.
    void BuildPiece(int32_t begin, int32_t end, int depth, const RangeBounds& range, TreePiece& piece) {
        Build(begin, end, depth, range, piece);
    }

    RangeBounds Measure(int32_t begin, int32_t end) const {
        if (end - begin < kParallelRunTriangles) return MeasureSerial(begin, end);
        const int32_t chunks = (end - begin + kChunkTriangles - 1) / kChunkTriangles;
        std::vector<RangeBounds> parts(static_cast<size_t>(chunks));
        for (int32_t c = 0; c < chunks; ++c) {
#pragma omp task default(shared) firstprivate(c)
            parts[c] =
                MeasureSerial(begin + c * kChunkTriangles, std::min(end, begin + (c + 1) * kChunkTriangles));
        }
#pragma omp taskwait
        RangeBounds all;
        for (const RangeBounds& part : parts) all.Merge(part);
        return all;
    }

private:
    RangeBounds MeasureSerial(int32_t begin, int32_t end) const {
        RangeBounds range;
        for (int32_t i = begin; i < end; ++i) range.Add(refs_[i]);
        return range;
    }

    // Returns the node's number in `piece` (or the spawned piece's code).
    int32_t Build(int32_t begin, int32_t end, int depth, const RangeBounds& range, TreePiece& piece) {
        const int32_t count = end - begin;
        const int32_t self = static_cast<int32_t>(piece.nodes.size());
        piece.nodes.emplace_back();
        SetBounds(piece.nodes.back(), range.bounds);
        if (count <= options_.maxLeafTriangles) {
            piece.nodes.back().leaf = true;
            piece.nodes.back().first = begin;
            piece.nodes.back().second = end;
            ++piece.leafCount;
            return self;
        }
        piece.nodes.back().leaf = false;
        ++piece.innerCount;

        const Box& centres = range.centres;
        int axis = 0;
        for (int a = 1; a < 3; ++a)
            if (centres.hi[a] - centres.lo[a] > centres.hi[axis] - centres.lo[axis]) axis = a;
        const float extent = centres.hi[axis] - centres.lo[axis];

        int32_t middle = -1;
        RangeBounds left, right;
        // With fewer triangles than bins some bin is empty, and the heuristic
        // splits only runs whose every bin holds a triangle (below).
        if (extent > 0.0f && depth < kMaxHeuristicDepth && count >= options_.binCount)
            middle = SplitByHeuristic(begin, end, axis, centres, left, right);
        if (middle <= begin || middle >= end) {
            // All centres coincide, the depth limit is reached, or the heuristic
            // found no useful split: halve at the median along the axis.
            middle = begin + count / 2;
            std::nth_element(
                refs_ + begin, refs_ + middle, refs_ + end,
                [&](const TriangleRef& a, const TriangleRef& b) { return a.Centre(axis) < b.Centre(axis); });
            left = Measure(begin, middle);
            right = Measure(middle, end);
        }

        const int32_t child0 = Child(begin, middle, depth + 1, left, piece);
        const int32_t child1 = Child(middle, end, depth + 1, right, piece);
        piece.nodes[self].first = child0;
        piece.nodes[self].second = child1;
        return self;
    }

    // A large child becomes a piece of its own, built by another task; the
    // pieces are joined in a fixed order afterwards, so the tree is the same
    // whichever thread builds what.
    int32_t Child(int32_t begin, int32_t end, int depth, const RangeBounds& range, TreePiece& piece) {
        if (end - begin < kTaskTriangles) return Build(begin, end, depth, range, piece);
        piece.spawned.push_back(std::make_unique<TreePiece>());
        TreePiece* child = piece.spawned.back().get();
        // At most 2 n - 1 nodes over n triangles; room that is never written
        // is never touched.
        child->nodes.reserve(2 * static_cast<size_t>(end - begin));
        const int32_t code = -static_cast<int32_t>(piece.spawned.size());
        const RangeBounds childRange = range;
#pragma omp task default(shared) firstprivate(begin, end, depth, childRange, child)
        Build(begin, end, depth, childRange, *child);
        return code;
    }

    // Node boxes are padded outward by about a millionth of their coordinates'
    // size. The slicer's plane-box test rounds the box centre and half extent to
    // float separately, so a plane that exactly touches a tight box (a ring of
    // vertices lying in the plane) can come out a hair outside it and lose the
    // triangles there; the padding keeps touching planes inside.
    static void SetBounds(PlanNode& node, const Box& box) {
        for (int a = 0; a < 3; ++a) {
            const float pad =
                (std::max(std::fabs(box.lo[a]), std::fabs(box.hi[a])) + (box.hi[a] - box.lo[a])) *
                (1.0f / 1048576.0f);
            node.bounds[a] = box.lo[a] - pad;
            node.bounds[3 + a] = box.hi[a] + pad;
        }
    }

    int Bin(const TriangleRef& ref, int axis, const Box& centres) const {
        const float extent = centres.hi[axis] - centres.lo[axis];
        const float relative = (ref.Centre(axis) - centres.lo[axis]) / extent;
        return std::clamp(static_cast<int>(relative * static_cast<float>(options_.binCount)), 0,
                          options_.binCount - 1);
    }

    // Neighbouring triangles mostly fall into the same bin; over long runs two
    // sets of bins, one for every other triangle, let the updates of one not
    // wait for the previous one's.
    void BinSerial(int32_t begin, int32_t end, int axis, const Box& centres, Bins& bins) {
        int32_t i = begin;
        if (end - begin < kTwoBinSetTriangles) {
            for (; i < end; ++i) {
                refs_[i].bin = Bin(refs_[i], axis, centres);
                bins[refs_[i].bin].Add(refs_[i]);
            }
            return;
        }
        Bins odd(bins.Size());
        for (; i + 1 < end; i += 2) {
            TriangleRef& even = refs_[i];
            TriangleRef& next = refs_[i + 1];
            even.bin = Bin(even, axis, centres);
            next.bin = Bin(next, axis, centres);
            bins[even.bin].Add(even);
            odd[next.bin].Add(next);
        }
        if (i < end) {
            refs_[i].bin = Bin(refs_[i], axis, centres);
            bins[refs_[i].bin].Add(refs_[i]);
        }
        for (int b = 0; b < bins.Size(); ++b) bins[b].Merge(odd[b]);
    }

    void BinRun(int32_t begin, int32_t end, int axis, const Box& centres, Bins& bins) {
        if (end - begin < kParallelRunTriangles) return BinSerial(begin, end, axis, centres, bins);
        const int32_t chunks = (end - begin + kChunkTriangles - 1) / kChunkTriangles;
        std::vector<Bins> parts(static_cast<size_t>(chunks), Bins(bins.Size()));
        for (int32_t c = 0; c < chunks; ++c) {
#pragma omp task default(shared) firstprivate(c)
            BinSerial(begin + c * kChunkTriangles, std::min(end, begin + (c + 1) * kChunkTriangles), axis,
                      centres, parts[c]);
        }
#pragma omp taskwait
        for (const Bins& part : parts)
            for (int b = 0; b < options_.binCount; ++b) bins[b].Merge(part[b]);
    }

    // Binned surface-area heuristic; returns the partition point, or -1 when
    // some bin is empty: a split is priced only when every bin holds a
    // triangle, and otherwise the run is halved at the median. (The costs were
    // first written with an empty bin's box counting as infinite, which rules
    // out every split; the trees, and so the order of the segments a cut
    // returns, have been built that way since.) On success `left` and `right`
    // are the boxes of the two sides, taken from the bins (the same minima and
    // maxima a pass over each side would find).
    int32_t SplitByHeuristic(int32_t begin, int32_t end, int axis, const Box& centres, RangeBounds& left,
                             RangeBounds& right) {
        const int bins = options_.binCount;
        Bins binStats(bins);
        BinRun(begin, end, axis, centres, binStats);
        for (int b = 0; b < bins; ++b)
            if (binStats[b].count == 0) return -1;
        // Costs of every split after bin s: sweep from the right, then the left.
        SmallArray<double> rightCost(bins);
        Box rightBox;
        int32_t rightCount = 0;
        for (int s = bins - 1; s > 0; --s) {
            rightBox.Merge(binStats[s].bounds);
            rightCount += binStats[s].count;
            rightCost[s] = rightBox.HalfArea() * rightCount;
        }
        Box leftBox;
        int32_t leftCount = 0;
        double bestCost = std::numeric_limits<double>::infinity();
        int bestSplit = -1;
        for (int s = 1; s < bins; ++s) {
            leftBox.Merge(binStats[s - 1].bounds);
            leftCount += binStats[s - 1].count;
            const double cost = leftBox.HalfArea() * leftCount + rightCost[s];
            if (cost < bestCost) {
                bestCost = cost;
                bestSplit = s;
            }
        }
        if (bestSplit < 0) return -1;  // every cost infinite: boxes near the float limits
        BinStats leftBins, rightBins;
        for (int b = 0; b < bins; ++b) {
            BinStats& side = b < bestSplit ? leftBins : rightBins;
            side.Merge(binStats[b]);
        }
        left.bounds = leftBins.bounds;
        left.count = leftBins.count;
        right.bounds = rightBins.bounds;
        right.count = rightBins.count;
        return Partition(begin, end, bestSplit, left.centres, right.centres);
    }

    // Moves the triangles of bins below `split` to the front, as a Hoare
    // partition does (from the front, pass over those that belong there; from
    // the back, pass over those that do not; swap the pair found), and gathers
    // each side's box of centres on the way. Returns the first of the back.
    int32_t Partition(int32_t begin, int32_t end, int split, Box& leftCentres, Box& rightCentres) {
        Box front, back;  // locals, so that they stay in registers
        auto take = [](Box& box, const TriangleRef& t) {
            const float c[3] = {t.Centre(0), t.Centre(1), t.Centre(2)};
            box.Grow(c);
        };
        TriangleRef* first = refs_ + begin;
        TriangleRef* last = refs_ + end;
        for (;;) {
            for (; first != last && first->bin < split; ++first) take(front, *first);
            if (first == last) break;
            take(back, *first);
            --last;
            for (; first != last && !(last->bin < split); --last) take(back, *last);
            if (first == last) break;
            take(front, *last);
            std::swap(*first, *last);
            ++first;
        }
        leftCentres = front;
        rightCentres = back;
        return static_cast<int32_t>(first - refs_);
    }

    TriangleRef* refs_;
    const BvhBuildOptions& options_;
};

// The node objects of every piece, in one block, depth first with child 0
// before child 1. A spawned piece is a whole subtree, so its nodes take one
// run of the block whose length is known beforehand: the pieces are placed by
// tasks, each from its own start.
class NodeBlock {
public:
    explicit NodeBlock(const TreePiece& root) {
        const size_t bytes = Measure(root);
        // Default-initialised: every byte is written by the placements below.
        block_.reset(new std::byte[bytes]);
#pragma omp parallel
#pragma omp single
        rootNode_ = PlacePiece(root, 0);
    }
    // The nodes are plain objects in the block: it is released without
    // running their destructors, which would delete children one by one.
    zrbvh::BvhNode* Root() const { return rootNode_; }

private:
    static_assert(sizeof(zrbvh::BvhInnerNode) % alignof(zrbvh::BvhInnerNode) == 0 &&
                      sizeof(zrbvh::BvhLeafNode) % alignof(zrbvh::BvhInnerNode) == 0,
                  "node sizes keep the next node aligned");

    // The bytes of the piece's whole subtree, kept for placing it.
    size_t Measure(const TreePiece& piece) {
        size_t bytes = static_cast<size_t>(piece.innerCount) * sizeof(zrbvh::BvhInnerNode) +
                       static_cast<size_t>(piece.leafCount) * sizeof(zrbvh::BvhLeafNode);
        for (const auto& child : piece.spawned) bytes += Measure(*child);
        pieceBytes_[&piece] = bytes;
        return bytes;
    }

    zrbvh::BvhNode* PlacePiece(const TreePiece& piece, size_t start) {
        size_t cursor = start;
        return Place(piece, 0, cursor);
    }

    zrbvh::BvhNode* Place(const TreePiece& piece, int32_t index, size_t& cursor) {
        if (index < 0) {
            const TreePiece* spawned = piece.spawned[static_cast<size_t>(-index - 1)].get();
            const size_t start = cursor;
            cursor += pieceBytes_.at(spawned);
#pragma omp task default(shared) firstprivate(spawned, start)
            PlacePiece(*spawned, start);
            // The piece's root is the first node of its run.
            return reinterpret_cast<zrbvh::BvhNode*>(block_.get() + start);
        }
        const PlanNode& plan = piece.nodes[static_cast<size_t>(index)];
        void* at = block_.get() + cursor;
        if (plan.leaf) {
            auto* leaf = new (at) zrbvh::BvhLeafNode();
            cursor += sizeof(zrbvh::BvhLeafNode);
            std::copy(plan.bounds, plan.bounds + 6, leaf->bounds);
            leaf->lo = plan.first;
            leaf->hi = plan.second;
            return leaf;
        }
        auto* inner = new (at) zrbvh::BvhInnerNode();
        cursor += sizeof(zrbvh::BvhInnerNode);
        std::copy(plan.bounds, plan.bounds + 6, inner->bounds);
        inner->children[0] = Place(piece, plan.first, cursor);
        inner->children[1] = Place(piece, plan.second, cursor);
        return inner;
    }

    std::unique_ptr<std::byte[]> block_;
    std::unordered_map<const TreePiece*, size_t> pieceBytes_;  // written before the tasks, then only read
    zrbvh::BvhNode* rootNode_ = nullptr;
};

// The tree together with the scene record it points to and its node block.
struct OwnedTree {
    zrbvh::BvhScene scene;
    std::unique_ptr<NodeBlock> nodes;
    zrbvh::BvhTree tree;

    ~OwnedTree() { tree.root = nullptr; }  // the block owns the nodes
};

[[noreturn]] void RefuseTriangle(const float* positions, int32_t vertexCount, const uint32_t* indices,
                                 int32_t t) {
    for (int k = 0; k < 3; ++k) {
        const uint32_t vertex = indices[3 * static_cast<size_t>(t) + k];
        if (vertex >= static_cast<uint32_t>(vertexCount))
            throw std::invalid_argument("BVH build: triangle " + std::to_string(t) + " uses vertex " +
                                        std::to_string(vertex) + " of " + std::to_string(vertexCount));
        const float* p = positions + 3 * static_cast<size_t>(vertex);
        if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2]))
            throw std::invalid_argument("BVH build: vertex " + std::to_string(vertex) +
                                        " has a position that is not finite");
    }
    throw std::logic_error("BVH build: triangle " + std::to_string(t) + " was reported bad but is not");
}

}  // namespace

std::shared_ptr<zrbvh::BvhTree> BuildBvh(const float* positions, int32_t vertexCount, const uint32_t* indices,
                                         int32_t triangleCount, const BvhBuildOptions& options) {
    if (!positions || !indices) throw std::invalid_argument("BVH build: null position or index array");
    if (vertexCount <= 0) throw std::invalid_argument("BVH build: vertex count must be positive");
    if (triangleCount <= 0) throw std::invalid_argument("BVH build: triangle count must be positive");
    if (options.maxLeafTriangles < 1 || options.binCount < 2)
        throw std::invalid_argument("BVH build: leaf size must be at least 1 and bin count at least 2");
    // The triangles' boxes, written on every thread, so that their pages are
    // first touched on both cores. The first triangle (in index order) with an
    // index past the vertices or a corner that is not finite is refused.
    auto refs = std::make_unique_for_overwrite<TriangleRef[]>(static_cast<size_t>(triangleCount));
    int32_t bad = triangleCount;
#pragma omp parallel for schedule(static) reduction(min : bad)
    for (int32_t t = 0; t < triangleCount; ++t) {
        TriangleRef& ref = refs[t];
        ref.triangle = t;
        const uint32_t* corners = indices + 3 * static_cast<size_t>(t);
        bool usable = true;
        for (int k = 0; k < 3 && usable; ++k) {
            usable = corners[k] < static_cast<uint32_t>(vertexCount);
            if (!usable) break;
            const float* p = positions + 3 * static_cast<size_t>(corners[k]);
            usable = std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
        }
        if (!usable) {
            bad = std::min(bad, t);
            continue;
        }
        const float* p = positions + 3 * static_cast<size_t>(corners[0]);
        std::copy(p, p + 3, ref.lo);
        std::copy(p, p + 3, ref.hi);
        for (int k = 1; k < 3; ++k) {
            p = positions + 3 * static_cast<size_t>(corners[k]);
            for (int a = 0; a < 3; ++a) {
                ref.lo[a] = std::min(ref.lo[a], p[a]);
                ref.hi[a] = std::max(ref.hi[a], p[a]);
            }
        }
    }
    if (bad < triangleCount) RefuseTriangle(positions, vertexCount, indices, bad);

    // One team builds the whole tree: the top splits bin in chunks on every
    // thread, and every subtree above kTaskTriangles is a task of its own.
    TreePiece root;
    Builder builder(refs.get(), options);
#pragma omp parallel
#pragma omp single
    builder.BuildPiece(0, triangleCount, 0, builder.Measure(0, triangleCount), root);

    auto owned = std::make_shared<OwnedTree>();
    owned->scene = zrbvh::BvhScene{positions, indices, vertexCount, triangleCount};
    owned->tree.scene = &owned->scene;
    {
        std::vector<int32_t> order(static_cast<size_t>(triangleCount));
#pragma omp parallel for schedule(static)
        for (int32_t t = 0; t < triangleCount; ++t) order[t] = refs[t].triangle;
        refs.reset();
        owned->tree.triangleIndices.Assign(order.data(), triangleCount);
    }
    owned->nodes = std::make_unique<NodeBlock>(root);
    owned->tree.root = owned->nodes->Root();
    // Shares ownership of the holder while pointing at its tree.
    return std::shared_ptr<zrbvh::BvhTree>(owned, &owned->tree);
}

}  // namespace zrobjects
