// A file read front to back, gzip-compressed or plain (zlib tells them apart by
// their first bytes; raw voxel files, which may begin with any bytes, are read
// as they are), for the formats that are a header and packed arrays
// (NIfTI, MGH). Every failure is an InputError naming the file; a stream that
// ends early says how many bytes it held and how many were needed.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace zrio {

class ByteSource {
public:
    enum class Compression { Detect, None };
    explicit ByteSource(std::string path, Compression compression = Compression::Detect);
    ~ByteSource();
    ByteSource(const ByteSource&) = delete;
    ByteSource& operator=(const ByteSource&) = delete;

    const std::string& Path() const { return path_; }
    bool Compressed() const { return compressed_; }
    // Bytes on disk (the compressed size for a compressed file).
    uint64_t FileBytes() const { return fileBytes_; }
    // Position in the (decompressed) stream.
    uint64_t Position() const { return position_; }

    // Reads up to `count` bytes; returns how many the stream held.
    uint64_t ReadSome(void* data, uint64_t count);
    // Reads exactly `count` bytes or throws, naming `what` ("voxel data").
    void ReadExactly(void* data, uint64_t count, const std::string& what);
    // The same for a part of `what`, which starts at `whatStart` and holds
    // `whatBytes`: a stream that ends early is reported for the whole of it.
    void ReadExactly(void* data, uint64_t count, const std::string& what, uint64_t whatStart, uint64_t whatBytes);
    // Moves forward to `offset` (never back) or throws when the stream ends first.
    void SkipTo(uint64_t offset, const std::string& what);

private:
    std::string path_;
    void* file_ = nullptr;   // gzFile
    std::FILE* plain_ = nullptr;
    bool compressed_ = false;
    uint64_t fileBytes_ = 0;
    uint64_t position_ = 0;
};

// Swaps the bytes of `count` values of `size` bytes each, in place.
void SwapBytes(void* data, uint64_t count, size_t size);

}  // namespace zrio
