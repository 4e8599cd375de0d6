// Reads typed values off the front of a fuzz input. Past the end every read
// gives zeros, so any byte string decodes to something.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace zrfuzz {

class ByteReader {
public:
    ByteReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool Empty() const { return offset_ >= size_; }

    template <class T>
    T Read() {
        T value{};
        unsigned char bytes[sizeof(T)] = {};
        const size_t available = offset_ < size_ ? size_ - offset_ : 0;
        const size_t take = available < sizeof(T) ? available : sizeof(T);
        if (take) std::memcpy(bytes, data_ + offset_, take);
        offset_ += sizeof(T);
        std::memcpy(&value, bytes, sizeof(T));
        return value;
    }

    uint8_t Byte() { return Read<uint8_t>(); }

    // A value in [lo, hi] from 16 bits, for keys whose size drives the work.
    double Ranged(double lo, double hi) { return lo + (hi - lo) * (Read<uint16_t>() / 65535.0); }

    std::string Text(size_t maxLength) {
        const size_t length = Byte() % (maxLength + 1);
        std::string text;
        for (size_t i = 0; i < length; ++i) text.push_back(static_cast<char>(Byte()));
        return text;
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t offset_ = 0;
};

}  // namespace zrfuzz
