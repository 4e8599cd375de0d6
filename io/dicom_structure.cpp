#include "dicom_structure.h"

#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <vector>

namespace zrio::dicom {

namespace {

constexpr uint32_t kUndefined = 0xffffffffu;
constexpr int kMaxDepth = 64;

const char* const kLongVrs[] = {"OB", "OD", "OF", "OL", "OV", "OW", "SQ", "SV", "UC", "UN", "UR", "UT", "UV"};
const char* const kShortVrs[] = {"AE", "AS", "AT", "CS", "DA", "DS", "DT", "FL", "FD", "IS", "LO", "LT",
                                 "PN", "SH", "SL", "SS", "ST", "TM", "UI", "UL", "US"};

bool IsOneOf(const char vr[2], const char* const* list, size_t count) {
    for (size_t k = 0; k < count; ++k)
        if (vr[0] == list[k][0] && vr[1] == list[k][1]) return true;
    return false;
}

// The bytes of the file, or of its inflated data set.
class Bytes {
public:
    explicit Bytes(const std::string& path) : file_(path, std::ios::binary) {
        std::error_code ec;
        size_ = std::filesystem::file_size(path, ec);
        if (ec) size_ = 0;
    }
    void UseMemory(std::vector<unsigned char> memory, uint64_t base) {
        memory_ = std::move(memory);
        base_ = base;
        inMemory_ = true;
        size_ = base + memory_.size();
    }
    uint64_t Size() const { return size_; }
    bool Read(uint64_t at, void* out, size_t n) {
        if (at + n > size_) return false;
        if (inMemory_ && at >= base_) {
            std::memcpy(out, memory_.data() + (at - base_), n);
            return true;
        }
        file_.clear();
        file_.seekg(static_cast<std::streamoff>(at));
        file_.read(static_cast<char*>(out), static_cast<std::streamsize>(n));
        return static_cast<bool>(file_);
    }

private:
    std::ifstream file_;
    uint64_t size_ = 0;
    std::vector<unsigned char> memory_;
    uint64_t base_ = 0;
    bool inMemory_ = false;
};

std::string Hex(uint16_t v) {
    char text[8];
    std::snprintf(text, sizeof(text), "%04x", v);
    return text;
}

class Walker {
public:
    explicit Walker(const std::string& path) : bytes_(path) {}

    std::string Walk();

private:
    struct Tag {
        uint16_t group = 0, element = 0;
        bool Is(uint16_t g, uint16_t e) const { return group == g && element == e; }
        std::string Text() const {
            char text[16];
            std::snprintf(text, sizeof(text), "(%04x,%04x)", group, element);
            return text;
        }
    };

    bool U16(uint64_t at, uint16_t& v, bool big) {
        unsigned char b[2];
        if (!bytes_.Read(at, b, 2)) return false;
        v = big ? static_cast<uint16_t>(b[0] << 8 | b[1]) : static_cast<uint16_t>(b[1] << 8 | b[0]);
        return true;
    }
    bool U32(uint64_t at, uint32_t& v, bool big) {
        unsigned char b[4];
        if (!bytes_.Read(at, b, 4)) return false;
        v = big ? (uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3])
                : (uint32_t{b[3]} << 24 | uint32_t{b[2]} << 16 | uint32_t{b[1]} << 8 | b[0]);
        return true;
    }
    bool Fail(const std::string& what) {
        if (problem_.empty()) problem_ = what;
        return false;
    }
    std::string At(uint64_t at) const { return " at byte " + std::to_string(at); }

    bool Elements(uint64_t& at, uint64_t end, bool delimited, int depth, bool topLevel);
    bool Items(uint64_t at, uint64_t end, bool undefinedLength, int depth, uint64_t& after);
    bool Fragments(uint64_t at, uint64_t& after);
    bool Meta(uint64_t& at, std::string& syntax);
    bool Inflate(uint64_t at);

    Bytes bytes_;
    bool explicit_ = true, big_ = false;
    std::string problem_;
};

// Elements from `at` to `end`, or up to an item delimiter when `delimited`.
bool Walker::Elements(uint64_t& at, uint64_t end, bool delimited, int depth, bool topLevel) {
    if (depth > kMaxDepth) return Fail("sequences nested more than " + std::to_string(kMaxDepth) + " deep" + At(at));
    while (at < end) {
        Tag tag;
        if (!U16(at, tag.group, big_) || !U16(at + 2, tag.element, big_))
            return Fail("an element header runs past the end of the file" + At(at));
        if (tag.group == 0xfffe) {
            if (delimited && tag.Is(0xfffe, 0xe00d)) {
                at += 8;
                return true;
            }
            return Fail("an item tag " + tag.Text() + " stands outside a sequence" + At(at));
        }
        char vr[2] = {0, 0};
        uint32_t length = 0;
        uint64_t header = 8;
        bool isSequence = false;
        if (explicit_) {
            if (!bytes_.Read(at + 4, vr, 2)) return Fail("an element header runs past the end of the file" + At(at));
            if (IsOneOf(vr, kLongVrs, std::size(kLongVrs))) {
                if (!U32(at + 8, length, big_)) return Fail("an element header runs past the end of the file" + At(at));
                header = 12;
            } else if (IsOneOf(vr, kShortVrs, std::size(kShortVrs))) {
                uint16_t shortLength = 0;
                if (!U16(at + 6, shortLength, big_)) return Fail("an element header runs past the end of the file" + At(at));
                length = shortLength;
            } else {
                return Fail("element " + tag.Text() + At(at) + " has no known value representation");
            }
            isSequence = vr[0] == 'S' && vr[1] == 'Q';
        } else if (!U32(at + 4, length, big_)) {
            return Fail("an element header runs past the end of the file" + At(at));
        }
        const bool pixelData = tag.Is(0x7fe0, 0x0010);
        if (pixelData && isSequence) return Fail("pixel data" + At(at) + " is written as a sequence");
        const uint64_t value = at + header;
        if (length == kUndefined) {
            if (pixelData) {
                if (explicit_ && !((vr[0] == 'O' && (vr[1] == 'B' || vr[1] == 'W')) || (vr[0] == 'U' && vr[1] == 'N')))
                    return Fail("compressed pixel data" + At(at) + " has value representation " + std::string(vr, 2));
                if (!Fragments(value, at)) return false;
            } else if (!explicit_ || isSequence || (vr[0] == 'U' && vr[1] == 'N')) {
                if (!Items(value, end, true, depth + 1, at)) return false;
            } else {
                return Fail("element " + tag.Text() + At(at) + " has an undefined length, which only sequences may have");
            }
            continue;
        }
        const uint64_t valueEnd = value + length;
        if (valueEnd > end) {
            // Native pixel data cut short is reported by the header scan,
            // with the sizes involved.
            if (topLevel && pixelData && end == bytes_.Size()) {
                at = end;
                return true;
            }
            return Fail("element " + tag.Text() + At(at) + " runs past the end of " +
                        (end == bytes_.Size() ? "the file" : "its item"));
        }
        if (isSequence) {
            uint64_t after = 0;
            if (!Items(value, valueEnd, false, depth + 1, after)) return false;
        } else if (!explicit_ && length >= 8) {
            // Implicit VR leaves a sequence to the dictionary: a value that
            // starts with an item is walked as one, as GDCM will read it.
            uint16_t g = 0, e = 0;
            if (U16(value, g, big_) && U16(value + 2, e, big_) && g == 0xfffe && e == 0xe000) {
                uint64_t after = 0;
                if (!Items(value, valueEnd, false, depth + 1, after)) return false;
            }
        }
        at = valueEnd;
    }
    if (delimited) return Fail("an item ends without its delimiter" + At(at));
    return true;
}

// The items of a sequence: within [at, end) for a defined length, else up to
// the sequence delimiter.
bool Walker::Items(uint64_t at, uint64_t end, bool undefinedLength, int depth, uint64_t& after) {
    if (depth > kMaxDepth) return Fail("sequences nested more than " + std::to_string(kMaxDepth) + " deep" + At(at));
    while (undefinedLength || at < end) {
        if (at >= end) return Fail("a sequence runs past the end of its item" + At(at));
        Tag tag;
        uint32_t length = 0;
        if (!U16(at, tag.group, big_) || !U16(at + 2, tag.element, big_) || !U32(at + 4, length, big_))
            return Fail("a sequence runs past the end of the file" + At(at));
        if (undefinedLength && tag.Is(0xfffe, 0xe0dd)) {
            after = at + 8;
            return true;
        }
        if (!tag.Is(0xfffe, 0xe000)) return Fail("a sequence holds " + tag.Text() + " where an item should be" + At(at));
        uint64_t inner = at + 8;
        if (length == kUndefined) {
            if (!Elements(inner, end, true, depth, false)) return false;
            at = inner;
        } else {
            const uint64_t itemEnd = inner + length;
            if (itemEnd > end)
                return Fail("an item" + At(at) + " runs past the end of its sequence");
            if (!Elements(inner, itemEnd, false, depth, false)) return false;
            at = itemEnd;
        }
    }
    after = end;
    return true;
}

// Compressed pixel data: items of defined length up to the sequence delimiter.
bool Walker::Fragments(uint64_t at, uint64_t& after) {
    while (true) {
        Tag tag;
        uint32_t length = 0;
        if (!U16(at, tag.group, big_) || !U16(at + 2, tag.element, big_) || !U32(at + 4, length, big_))
            return Fail("compressed pixel data runs past the end of the file" + At(at));
        if (tag.Is(0xfffe, 0xe0dd)) {
            after = at + 8;
            return true;
        }
        if (!tag.Is(0xfffe, 0xe000) || length == kUndefined)
            return Fail("compressed pixel data holds " + tag.Text() + " where a fragment should be" + At(at));
        if (at + 8 + length > bytes_.Size()) return Fail("a fragment of compressed pixel data runs past the end of the file");
        at += 8 + uint64_t{length};
    }
}

// The file meta information (group 0002, explicit VR little endian) and the
// transfer syntax it names.
bool Walker::Meta(uint64_t& at, std::string& syntax) {
    while (true) {
        uint16_t group = 0, element = 0;
        if (!U16(at, group, false) || group != 0x0002) return true;
        U16(at + 2, element, false);
        char vr[2];
        uint32_t length = 0;
        uint64_t header = 8;
        if (!bytes_.Read(at + 4, vr, 2)) return Fail("the file meta information runs past the end of the file");
        if (IsOneOf(vr, kLongVrs, std::size(kLongVrs))) {
            if (!U32(at + 8, length, false)) return Fail("the file meta information runs past the end of the file");
            header = 12;
        } else if (IsOneOf(vr, kShortVrs, std::size(kShortVrs))) {
            uint16_t shortLength = 0;
            U16(at + 6, shortLength, false);
            length = shortLength;
        } else {
            return Fail("file meta element (0002," + Hex(element) + ")" + At(at) + " has no known value representation");
        }
        if (length == kUndefined || at + header + length > bytes_.Size())
            return Fail("file meta element (0002," + Hex(element) + ")" + At(at) + " runs past the end of the file");
        if (element == 0x0000 && length == 4) {
            // GDCM reads the meta information as long as its group length says.
            uint32_t groupLength = 0;
            U32(at + header, groupLength, false);
            if (at + header + 4 + uint64_t{groupLength} > bytes_.Size())
                return Fail("the file meta information is " + std::to_string(groupLength) +
                            " bytes long by its group length, longer than the file");
        }
        if (element == 0x0010) {
            std::string text(length, '\0');
            bytes_.Read(at + header, text.data(), length);
            while (!text.empty() && (text.back() == '\0' || text.back() == ' ')) text.pop_back();
            syntax = text;
        }
        at += header + length;
    }
}

// A deflated data set, inflated into memory after the meta information.
bool Walker::Inflate(uint64_t at) {
    std::vector<unsigned char> packed(bytes_.Size() - at);
    if (!bytes_.Read(at, packed.data(), packed.size())) return Fail("cannot read the deflated data set");
    z_stream stream{};
    if (inflateInit2(&stream, -MAX_WBITS) != Z_OK) return Fail("cannot inflate the data set");
    std::vector<unsigned char> out;
    unsigned char chunk[1 << 16];
    stream.next_in = packed.data();
    stream.avail_in = static_cast<uInt>(packed.size());
    int status = Z_OK;
    while (status == Z_OK) {
        stream.next_out = chunk;
        stream.avail_out = sizeof(chunk);
        status = inflate(&stream, Z_NO_FLUSH);
        out.insert(out.end(), chunk, chunk + (sizeof(chunk) - stream.avail_out));
        if (out.size() > (uint64_t{1} << 32)) status = Z_MEM_ERROR;
    }
    inflateEnd(&stream);
    if (status != Z_STREAM_END) return Fail("the deflated data set does not inflate");
    bytes_.UseMemory(std::move(out), at);
    return true;
}

std::string Walker::Walk() {
    uint64_t at = 0;
    char mark[4] = {};
    if (bytes_.Read(128, mark, 4) && std::memcmp(mark, "DICM", 4) == 0) at = 132;
    std::string syntax;
    if (!Meta(at, syntax)) return problem_;
    if (syntax == "1.2.840.10008.1.2.1.99" && !Inflate(at)) return problem_;
    big_ = syntax == "1.2.840.10008.1.2.2";
    explicit_ = syntax != "1.2.840.10008.1.2";
    // Files without meta information, or whose data set does not follow the
    // syntax named (GDCM reads both): the first element's bytes tell.
    char vr[2] = {};
    if (bytes_.Read(at + 4, vr, 2)) {
        const bool letters = vr[0] >= 'A' && vr[0] <= 'Z' && vr[1] >= 'A' && vr[1] <= 'Z';
        if (syntax.empty() || letters != explicit_) explicit_ = letters;
    }
    if (at + 8 > bytes_.Size()) return "holds no data set after its file meta information";
    if (!Elements(at, bytes_.Size(), false, 0, true)) return problem_;
    return {};
}

}  // namespace

std::string StructureProblem(const std::string& path) { return Walker(path).Walk(); }

}  // namespace zrio::dicom
