#include "corner_welding.h"

#include <algorithm>
#include <cstring>

namespace zrio {

namespace {

uint64_t Hash(const uint32_t bits[3]) {
    uint64_t h = (uint64_t{bits[0]} | (uint64_t{bits[1]} << 32)) * 0x9E3779B97F4A7C15ull;
    h ^= (uint64_t{bits[2]} + 0x632BE59BD9B4E019ull) * 0xC2B2AE3D27D4EB4Full;
    return h ^ (h >> 31);
}

uint64_t TableSizeFor(size_t vertices) {
    uint64_t size = 1024;
    while (size < 2 * static_cast<uint64_t>(vertices)) size *= 2;
    return size;
}

uint64_t Slot(uint64_t hash, uint32_t vertex) {
    return (hash & 0xFFFFFFFF00000000ull) | (uint64_t{vertex} + 1);
}

// Corners are looked up in batches: the batch's slots are fetched from memory
// together, then the corners are welded one after the other in their order.
constexpr size_t kBatch = 32;

}  // namespace

CornerWelder::CornerWelder(size_t expectedVertices) {
    const uint64_t size = TableSizeFor(expectedVertices);
    slots_.assign(size, 0);
    mask_ = size - 1;
    positions_.reserve(3 * expectedVertices);
}

uint32_t CornerWelder::WeldOne(const uint32_t bits[3], uint64_t hash) {
    for (uint64_t slot = hash & mask_;; slot = (slot + 1) & mask_) {
        const uint64_t entry = slots_[slot];
        if (entry == 0) {
            const auto vertex = static_cast<uint32_t>(VertexCount());
            positions_.resize(positions_.size() + 3);
            std::memcpy(&positions_[3 * size_t{vertex}], bits, 3 * sizeof(float));
            slots_[slot] = Slot(hash, vertex);
            return vertex;
        }
        if ((entry >> 32) == (hash >> 32)) {
            const auto vertex = static_cast<uint32_t>(entry) - 1;
            if (std::memcmp(&positions_[3 * size_t{vertex}], bits, 3 * sizeof(float)) == 0) return vertex;
        }
    }
}

void CornerWelder::Weld(const float* corners, size_t count, uint32_t* vertices) {
    uint32_t bits[kBatch][3];
    uint64_t hashes[kBatch];
    for (size_t first = 0; first < count; first += kBatch) {
        const size_t batch = std::min(kBatch, count - first);
        for (size_t k = 0; k < batch; ++k) {
            std::memcpy(bits[k], corners + 3 * (first + k), sizeof(bits[k]));
            hashes[k] = Hash(bits[k]);
            __builtin_prefetch(&slots_[hashes[k] & mask_]);
        }
        for (size_t k = 0; k < batch; ++k) {
            // Keep the table at most half full: probes stay short.
            if (2 * (VertexCount() + 1) > slots_.size()) Grow();
            vertices[first + k] = WeldOne(bits[k], hashes[k]);
        }
    }
}

void CornerWelder::Grow() {
    const uint64_t size = std::max<uint64_t>(1024, 2 * slots_.size());
    slots_.assign(size, 0);
    mask_ = size - 1;
    for (uint32_t vertex = 0; vertex < VertexCount(); ++vertex) {
        uint32_t bits[3];
        std::memcpy(bits, &positions_[3 * size_t{vertex}], sizeof(bits));
        const uint64_t hash = Hash(bits);
        uint64_t slot = hash & mask_;
        while (slots_[slot] != 0) slot = (slot + 1) & mask_;
        slots_[slot] = Slot(hash, vertex);
    }
}

std::vector<float> CornerWelder::TakePositions() {
    std::vector<uint64_t>().swap(slots_);
    mask_ = 0;
    std::vector<float> positions = std::move(positions_);
    positions_.clear();
    return positions;
}

}  // namespace zrio
