#include "byte_source.h"

#include <zlib.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "input_error.h"

namespace zrio {

namespace {

gzFile File(void* file) { return static_cast<gzFile>(file); }

std::string Bytes(uint64_t n) { return std::to_string(n) + (n == 1 ? " byte" : " bytes"); }

}  // namespace

// Buffers filled in turn by the decompressing thread and emptied in the same
// turn by the reader. A buffer belongs to the thread while it is not full and
// to the reader while it is; `full` counts the reader's.
class ByteSource::Ring {
public:
    Ring(ByteSource& source, uint64_t bytes, size_t bufferBytes, int buffers)
        : buffers_(static_cast<size_t>(buffers), std::vector<unsigned char>(bufferBytes)),
          filled_(static_cast<size_t>(buffers), 0) {
        thread_ = std::thread([this, &source, bytes] { Fill(source, bytes); });
    }

    ~Ring() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }

    // Up to `count` bytes; fewer only where the stream (or the part read
    // ahead) ends. Throws what the thread met, once it is reached.
    uint64_t Take(unsigned char* out, uint64_t count) {
        uint64_t done = 0;
        while (done < count) {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return full_ > 0 || ended_; });
            if (full_ == 0) {
                if (error_) std::rethrow_exception(error_);
                break;
            }
            lock.unlock();
            const std::vector<unsigned char>& buffer = buffers_[head_];
            const size_t piece = static_cast<size_t>(std::min<uint64_t>(filled_[head_] - taken_, count - done));
            std::memcpy(out + done, buffer.data() + taken_, piece);
            done += piece;
            taken_ += piece;
            if (taken_ == filled_[head_]) {
                head_ = (head_ + 1) % buffers_.size();
                taken_ = 0;
                lock.lock();
                --full_;
                changed_.notify_all();
            }
        }
        return done;
    }

private:
    void Fill(ByteSource& source, uint64_t bytes) {
        try {
            size_t tail = 0;
            while (bytes > 0) {
                {
                    std::unique_lock<std::mutex> lock(mutex_);
                    changed_.wait(lock, [this] { return full_ < buffers_.size() || stop_; });
                    if (stop_) return;
                }
                std::vector<unsigned char>& buffer = buffers_[tail];
                const size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), bytes));
                const size_t got = static_cast<size_t>(source.ReadStream(buffer.data(), want));
                bytes -= got;
                filled_[tail] = got;
                tail = (tail + 1) % buffers_.size();
                std::lock_guard<std::mutex> lock(mutex_);
                if (got > 0) ++full_;
                if (got < want) break;  // the stream ended
                changed_.notify_all();
            }
        } catch (...) {
            std::lock_guard<std::mutex> lock(mutex_);
            error_ = std::current_exception();
        }
        std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
        changed_.notify_all();
    }

    std::vector<std::vector<unsigned char>> buffers_;
    std::vector<size_t> filled_;  // bytes in each full buffer
    size_t head_ = 0;             // the reader's next buffer
    size_t taken_ = 0;            // bytes of it already read
    std::mutex mutex_;            // guards full_, ended_, error_, stop_
    std::condition_variable changed_;
    size_t full_ = 0;
    bool ended_ = false;
    bool stop_ = false;
    std::exception_ptr error_;
    std::thread thread_;
};

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
    ring_.reset();  // its thread reads the file
    if (file_) gzclose(File(file_));
    if (plain_) std::fclose(plain_);
}

uint64_t ByteSource::ReadSome(void* data, uint64_t count) {
    auto* out = static_cast<unsigned char*>(data);
    uint64_t done = 0;
    if (ring_) {
        done = ring_->Take(out, count);
        // Short only when the ring has run dry: the rest, if any, comes from
        // the stream.
        if (done < count) ring_.reset();
    }
    if (!ring_ && done < count) done += ReadStream(out + done, count - done);
    position_ += done;
    return done;
}

void ByteSource::ReadAhead(uint64_t bytes, size_t bufferBytes, int buffers) {
    if (!compressed_ || ring_ || bytes == 0) return;
    ring_ = std::make_unique<Ring>(*this, bytes, bufferBytes, buffers);
}

uint64_t ByteSource::ReadStream(unsigned char* out, uint64_t count) {
    if (plain_) {
        const uint64_t done = std::fread(out, 1, static_cast<size_t>(count), plain_);
        if (done < count && std::ferror(plain_)) throw InputError(path_, "cannot read the file");
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
