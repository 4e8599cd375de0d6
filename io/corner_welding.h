// Welding of triangle corners into shared vertices: corners whose three
// coordinates have the same bit patterns become one vertex, numbered in the
// order they are first met. Only bit-identical corners are joined, never near
// ones, so no vertex moves and 0.0 and -0.0 stay apart. Formats that repeat
// every corner per triangle (binary STL) are read through it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zrio {

class CornerWelder {
public:
    // `expectedVertices` sizes the table (a closed surface has about half as
    // many vertices as triangles); it grows when more are met.
    explicit CornerWelder(size_t expectedVertices);

    // Writes the vertex number of each of the `count` corners at `corners`
    // (three floats each) to `vertices`.
    void Weld(const float* corners, size_t count, uint32_t* vertices);

    size_t VertexCount() const { return positions_.size() / 3; }
    // The welded vertices' positions, three floats each; the welder is empty
    // afterwards.
    std::vector<float> TakePositions();

private:
    uint32_t WeldOne(const uint32_t bits[3], uint64_t hash);
    void Grow();

    // Open addressing with linear probing. A slot holds the upper 32 bits of
    // the corner's hash over vertex number + 1 (0: empty), so that a probe
    // seldom reads a position.
    std::vector<uint64_t> slots_;
    uint64_t mask_ = 0;
    std::vector<float> positions_;
};

}  // namespace zrio
