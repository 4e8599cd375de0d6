#include "buffered_bytes.h"

#include <algorithm>
#include <cstring>

namespace zrio {

BufferedBytes::BufferedBytes(ByteSource& source, size_t capacity) : source_(source), buffer_(capacity) {}

bool BufferedBytes::Fill(size_t count) {
    if (end_ - next_ >= count) return true;
    if (count > buffer_.size()) return false;
    std::memmove(buffer_.data(), buffer_.data() + next_, end_ - next_);
    end_ -= next_;
    next_ = 0;
    end_ += static_cast<size_t>(source_.ReadSome(buffer_.data() + end_, buffer_.size() - end_));
    return end_ >= count;
}

const unsigned char* BufferedBytes::Take(size_t count) {
    if (!Fill(count)) return nullptr;
    const unsigned char* at = buffer_.data() + next_;
    next_ += count;
    return at;
}

bool BufferedBytes::TakeLine(std::string& line) {
    for (size_t scanned = 0;;) {
        const auto* begin = buffer_.data() + next_;
        const auto* newline =
            static_cast<const unsigned char*>(std::memchr(begin + scanned, '\n', end_ - next_ - scanned));
        if (newline) {
            size_t length = static_cast<size_t>(newline - begin);
            next_ += length + 1;
            if (length > 0 && begin[length - 1] == '\r') --length;
            line.assign(reinterpret_cast<const char*>(begin), length);
            return true;
        }
        scanned = end_ - next_;
        // No line end in what is buffered: read more, unless the buffer is full
        // or the file has ended.
        if (!Fill(scanned + 1)) return false;
    }
}

}  // namespace zrio
