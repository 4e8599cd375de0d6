// A file read front to back through a buffer, for formats whose records are
// small and of varying length (PLY): records are taken as pointers into the
// buffer, lines as text. Nothing is ever read past the end of the file: a
// request the file cannot satisfy returns null or false and the caller says
// what was cut short.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "byte_source.h"

namespace zrio {

class BufferedBytes {
public:
    explicit BufferedBytes(ByteSource& source, size_t capacity = size_t{1} << 20);

    // The next `count` bytes (at most the capacity), or null when the file
    // ends first. The pointer is valid until the next call.
    const unsigned char* Take(size_t count);

    // The next line without its end ("\n" or "\r\n"), or false when the file
    // ends first or no line end comes within the capacity.
    bool TakeLine(std::string& line);

    // Bytes taken so far, from the start of the file.
    uint64_t Offset() const { return source_.Position() - (end_ - next_); }
    ByteSource& Source() { return source_; }

private:
    // Makes `count` bytes available from next_; false when the file ends first.
    bool Fill(size_t count);

    ByteSource& source_;
    std::vector<unsigned char> buffer_;
    size_t next_ = 0, end_ = 0;
};

}  // namespace zrio
