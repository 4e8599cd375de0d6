// Clearing, filling and copying whole frame buffers on every thread. A request
// clears or copies a few megabytes of frame buffers around its kernels; one
// thread alone takes longer for that than both take for the kernel of a
// reduced image. The ranges are cut into chunks that the threads share, so the
// bytes written are those of one memset or memcpy per range.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace zrcommon {

struct ByteRange {
    void* destination = nullptr;
    const void* source = nullptr;  // copied from; null: every byte set to `fill`
    size_t bytes = 0;
    unsigned char fill = 0;
};

inline void ParallelWriteBytes(const std::vector<ByteRange>& ranges) {
    constexpr size_t kChunkBytes = size_t(64) << 10;
    struct Chunk {
        const ByteRange* range;
        size_t offset;
    };
    std::vector<Chunk> chunks;
    for (const ByteRange& range : ranges)
        if (range.destination != nullptr)
            for (size_t offset = 0; offset < range.bytes; offset += kChunkBytes) chunks.push_back({&range, offset});
    const int64_t count = static_cast<int64_t>(chunks.size());
#pragma omp parallel for schedule(dynamic, 1) if (count > 1)
    for (int64_t c = 0; c < count; ++c) {
        const ByteRange& range = *chunks[c].range;
        const size_t offset = chunks[c].offset;
        const size_t bytes = range.bytes - offset < kChunkBytes ? range.bytes - offset : kChunkBytes;
        auto* destination = static_cast<unsigned char*>(range.destination) + offset;
        if (range.source != nullptr)
            std::memcpy(destination, static_cast<const unsigned char*>(range.source) + offset, bytes);
        else
            std::memset(destination, range.fill, bytes);
    }
}

}  // namespace zrcommon
