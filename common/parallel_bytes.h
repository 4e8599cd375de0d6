// Clearing, filling and copying whole frame buffers, on every thread when
// there are enough bytes. A request on a large image clears or copies several
// megabytes of frame buffers around its kernels, which takes one thread longer
// than both take for the kernel of a reduced image. The ranges are cut into
// chunks that the threads share, so the bytes written are those of one memset
// or memcpy per range. Below kParallelBytes one thread does it all: another
// parallel region would save a few microseconds on an idle machine and costs
// a scheduling delay whenever the other core is busy (a team waits for its
// slowest thread).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace zrcommon {

inline constexpr size_t kParallelBytes = size_t(4) << 20;

struct ByteRange {
    void* destination = nullptr;
    const void* source = nullptr;  // copied from; null: every byte set to `fill`
    size_t bytes = 0;
    unsigned char fill = 0;
};

// One range: memcpy from source, or memset to fill.
inline void WriteBytes(const ByteRange& range, size_t offset, size_t bytes) {
    auto* destination = static_cast<unsigned char*>(range.destination) + offset;
    if (range.source != nullptr)
        std::memcpy(destination, static_cast<const unsigned char*>(range.source) + offset, bytes);
    else
        std::memset(destination, range.fill, bytes);
}

inline void ParallelWriteBytes(const std::vector<ByteRange>& ranges) {
    size_t total = 0;
    for (const ByteRange& range : ranges) total += range.bytes;
    if (total < kParallelBytes) {
        for (const ByteRange& range : ranges) WriteBytes(range, 0, range.bytes);
        return;
    }
    constexpr size_t kChunkBytes = size_t(64) << 10;
    struct Chunk {
        const ByteRange* range;
        size_t offset;
    };
    std::vector<Chunk> chunks;
    for (const ByteRange& range : ranges)
        for (size_t offset = 0; offset < range.bytes; offset += kChunkBytes) chunks.push_back({&range, offset});
    const int64_t count = static_cast<int64_t>(chunks.size());
#pragma omp parallel for schedule(dynamic, 1)
    for (int64_t c = 0; c < count; ++c) {
        const Chunk& chunk = chunks[c];
        const size_t left = chunk.range->bytes - chunk.offset;
        WriteBytes(*chunk.range, chunk.offset, left < kChunkBytes ? left : kChunkBytes);
    }
}

}  // namespace zrcommon
