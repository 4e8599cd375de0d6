#include "byte_source.h"

#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "input_error.h"

namespace zrio {

namespace {

gzFile File(void* file) { return static_cast<gzFile>(file); }

std::string Bytes(uint64_t n) { return std::to_string(n) + (n == 1 ? " byte" : " bytes"); }

}  // namespace

ByteSource::ByteSource(std::string path, Compression compression) : path_(std::move(path)) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path_, ec)) throw InputError(path_, "no such file");
    fileBytes_ = std::filesystem::file_size(path_, ec);
    if (ec) throw InputError(path_, "cannot read the file size: " + ec.message());
    if (compression == Compression::None) {
        plain_ = std::fopen(path_.c_str(), "rb");
        if (!plain_) throw InputError(path_, "cannot open the file");
        return;
    }
    file_ = gzopen(path_.c_str(), "rb");
    if (!file_) throw InputError(path_, "cannot open the file");
    gzbuffer(File(file_), 1 << 17);
    // gzdirect is known once the first bytes have been looked at.
    unsigned char first = 0;
    const int got = gzread(File(file_), &first, 1);
    compressed_ = got == 1 && !gzdirect(File(file_));
    gzrewind(File(file_));
}

ByteSource::~ByteSource() {
    if (file_) gzclose(File(file_));
    if (plain_) std::fclose(plain_);
}

uint64_t ByteSource::ReadSome(void* data, uint64_t count) {
    auto* out = static_cast<unsigned char*>(data);
    if (plain_) {
        const uint64_t done = std::fread(out, 1, static_cast<size_t>(count), plain_);
        if (done < count && std::ferror(plain_)) throw InputError(path_, "cannot read the file");
        position_ += done;
        return done;
    }
    uint64_t done = 0;
    while (done < count) {
        // gzread takes an unsigned count: read in pieces of at most 1 GiB.
        const unsigned piece = static_cast<unsigned>(std::min<uint64_t>(count - done, uint64_t{1} << 30));
        const int got = gzread(File(file_), out + done, piece);
        if (got < 0) {
            int code = 0;
            const char* message = gzerror(File(file_), &code);
            throw InputError(path_, std::string("cannot decompress: ") + (message ? message : "damaged stream"));
        }
        done += static_cast<unsigned>(got);
        if (static_cast<unsigned>(got) < piece) break;
    }
    position_ += done;
    return done;
}

void ByteSource::ReadExactly(void* data, uint64_t count, const std::string& what) {
    ReadExactly(data, count, what, position_, count);
}

void ByteSource::ReadExactly(void* data, uint64_t count, const std::string& what, uint64_t whatStart,
                             uint64_t whatBytes) {
    const uint64_t got = ReadSome(data, count);
    if (got < count)
        throw InputError(path_, std::string("is truncated: ") + what + " needs " + Bytes(whatBytes) + " from " +
                                    (compressed_ ? "decompressed " : "") + "offset " + std::to_string(whatStart) +
                                    ", the file holds " + Bytes(position_ - whatStart) + " there");
}

void ByteSource::SkipTo(uint64_t offset, const std::string& what) {
    if (offset < position_) throw InputError(path_, what + " lies before the end of the header");
    std::vector<unsigned char> scratch(static_cast<size_t>(std::min<uint64_t>(offset - position_, 1 << 20)));
    while (position_ < offset) {
        const uint64_t piece = std::min<uint64_t>(offset - position_, scratch.size());
        const uint64_t got = ReadSome(scratch.data(), piece);
        if (got < piece)
            throw InputError(path_, "is truncated: " + what + " starts at offset " + std::to_string(offset) +
                                        ", the file ends at " + std::to_string(position_));
    }
}

void SwapBytes(void* data, uint64_t count, size_t size) {
    auto* bytes = static_cast<unsigned char*>(data);
    for (uint64_t k = 0; k < count; ++k, bytes += size) std::reverse(bytes, bytes + size);
}

}  // namespace zrio
