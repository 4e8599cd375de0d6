// Node and tree types of the bounding-volume hierarchy over a triangle mesh, in
// the shape the host builds and the mesh slicer reads:
//  - every node is polymorphic, its first virtual operation tells whether it is
//    a leaf, and it carries its axis-aligned bounds as six floats (min x, y, z,
//    then max x, y, z);
//  - an inner node holds two children, child 0 then child 1;
//  - a leaf holds lo and hi: its triangles are entries lo .. hi - 1 of the tree's
//    triangle-index array, each entry a triangle number of the index buffer;
//  - the tree holds, in this order, its scene (the arrays it was built over), its
//    root and the triangle-index array.
// The tree owns its nodes.
#pragma once

#include <cstdint>

#include "mesh/bvh/array.h"

namespace zrbvh {

// The triangle and vertex arrays a tree was built over (borrowed, not owned).
struct BvhScene {
    const float* positions = nullptr;   // three floats per vertex
    const uint32_t* indices = nullptr;  // three vertex indices per triangle
    int32_t vertexCount = 0;
    int32_t triangleCount = 0;
};

class BvhNode {
public:
    virtual bool IsLeaf() const = 0;
    virtual ~BvhNode() = default;

    float bounds[6] = {0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};  // min x, y, z, max x, y, z
};

class BvhInnerNode final : public BvhNode {
public:
    bool IsLeaf() const override { return false; }
    ~BvhInnerNode() override;

    BvhNode* children[2] = {nullptr, nullptr};  // owned
};

class BvhLeafNode final : public BvhNode {
public:
    bool IsLeaf() const override { return true; }

    int32_t lo = 0;
    int32_t hi = 0;
};

class BvhTree {
public:
    BvhTree() = default;
    ~BvhTree();
    BvhTree(const BvhTree&) = delete;
    BvhTree& operator=(const BvhTree&) = delete;

    const BvhScene* scene = nullptr;  // borrowed
    BvhNode* root = nullptr;          // owned
    Array triangleIndices;
};

}  // namespace zrbvh
