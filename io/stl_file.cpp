#include "stl_file.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "byte_source.h"
#include "corner_welding.h"
#include "input_error.h"

namespace zrio {

namespace {

constexpr uint64_t kHeaderBytes = 84;
constexpr uint64_t kTriangleBytes = 50;
// Triangles read and welded at a time.
constexpr uint32_t kChunkTriangles = 1 << 14;

// An ASCII STL is text from its first byte: "solid", then lines of words and
// numbers. A binary one holds float bytes at most a few bytes in, which are
// control characters far more often than not; binary headers that begin with
// "solid" exist, so the word alone does not tell.
bool LooksLikeAsciiStl(ByteSource& source) {
    std::vector<unsigned char> start(static_cast<size_t>(std::min<uint64_t>(source.FileBytes(), 4096)));
    source.ReadExactly(start.data(), start.size(), "the first bytes");
    size_t at = 0;
    while (at < start.size() && std::isspace(start[at])) ++at;
    if (start.size() - at < 5 || std::memcmp(&start[at], "solid", 5) != 0) return false;
    return std::none_of(start.begin(), start.end(), [](unsigned char c) {
        return c == 0x7F || (c < 0x20 && c != '\t' && c != '\n' && c != '\r' && c != '\f' && c != '\v');
    });
}

std::string Count(uint64_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

}  // namespace

std::optional<zrobjects::MeshArrays> ReadBinaryStl(const std::string& path, LoadProgress* progress) {
    ByteSource source(path, ByteSource::Compression::None);
    const uint64_t fileBytes = source.FileBytes();
    uint32_t count = 0;
    if (fileBytes >= kHeaderBytes) {
        unsigned char header[kHeaderBytes];
        source.ReadExactly(header, kHeaderBytes, "the header");
        std::memcpy(&count, header + 80, sizeof(count));
        if constexpr (std::endian::native == std::endian::big) SwapBytes(&count, 1, sizeof(count));
    }
    const uint64_t expected = kHeaderBytes + kTriangleBytes * uint64_t{count};
    if (fileBytes < kHeaderBytes || fileBytes != expected) {
        ByteSource text(path, ByteSource::Compression::None);
        if (LooksLikeAsciiStl(text)) return std::nullopt;
        if (fileBytes < kHeaderBytes)
            throw InputError(
                path, "is neither an ASCII STL nor a binary one: " + Count(fileBytes, "byte", "bytes") +
                          ", shorter than a binary STL's 84-byte header");
        throw InputError(
            path, std::string(fileBytes < expected ? "is truncated" : "is not a consistent binary STL") +
                      ": its header counts " + Count(count, "triangle", "triangles") + ", which take " +
                      std::to_string(expected) + " bytes, the file holds " + std::to_string(fileBytes));
    }
    if (count == 0) throw InputError(path, "holds no triangles");
    // Up to three vertices per triangle, numbered by 32-bit integers the
    // module reads as signed.
    if (count > INT32_MAX / 3) throw InputError(path, "holds more triangles than a mesh can index");

    zrobjects::MeshArrays mesh;
    mesh.indices.resize(3 * size_t{count});
    // A closed surface has about half as many vertices as triangles.
    CornerWelder welder(count / 2 + 2);
    std::vector<unsigned char> records(kTriangleBytes * kChunkTriangles);
    std::vector<float> corners(9 * size_t{kChunkTriangles});
    for (uint32_t first = 0; first < count; first += kChunkTriangles) {
        const uint32_t n = std::min(kChunkTriangles, count - first);
        source.ReadExactly(records.data(), kTriangleBytes * n, "triangle " + std::to_string(first));
        for (uint32_t t = 0; t < n; ++t)
            std::memcpy(&corners[9 * size_t{t}], &records[kTriangleBytes * t + 12], 9 * sizeof(float));
        if constexpr (std::endian::native == std::endian::big)
            SwapBytes(corners.data(), 9 * n, sizeof(float));
        for (size_t k = 0; k < 9 * size_t{n}; ++k)
            if (!std::isfinite(corners[k]))
                throw InputError(path, "triangle " + std::to_string(first + k / 9) +
                                           " has a corner that is not a finite number");
        welder.Weld(corners.data(), 3 * size_t{n}, &mesh.indices[3 * size_t{first}]);
        if (progress) progress->Step("reading", static_cast<double>(first + n) / count);
    }
    mesh.positions = welder.TakePositions();
    mesh.positions.shrink_to_fit();
    return mesh;
}

}  // namespace zrio
