// VTK XML polydata (.vtp): the XML names each array's type, layout and place;
// the numbers are inline text ("ascii"), inline base64 ("binary") or in the
// appended block at an offset ("appended", raw or base64). Binary arrays start
// with a header of the file's header type (UInt32 or UInt64): the byte count,
// or, with the zlib compressor, the block count, block size, last block size
// and each block's compressed size.
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <bit>
#include <cstring>
#include <fstream>
#include <sstream>

#include <pugixml.hpp>

#include "byte_source.h"
#include "input_error.h"
#include "vtk_poly_data.h"

namespace zrio {

namespace {

struct XmlFile {
    std::string path;
    bool bigEndian = false;
    bool compressed = false;
    size_t headerBytes = 4;
    std::string appended;  // the appended block after its "_" marker
    bool appendedBase64 = false;

    [[noreturn]] void Fail(const std::string& what) const { throw InputError(path, what); }
};

std::string Base64Decode(const std::string& text, size_t start, size_t end, const XmlFile& file) {
    static const auto table = [] {
        std::array<int, 256> t;
        t.fill(-1);
        const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        for (int k = 0; k < 64; ++k) t[static_cast<unsigned char>(alphabet[k])] = k;
        return t;
    }();
    std::string out;
    out.reserve((end - start) * 3 / 4);
    uint32_t bits = 0;
    int count = 0;
    for (size_t k = start; k < end; ++k) {
        const unsigned char c = static_cast<unsigned char>(text[k]);
        if (std::isspace(c)) continue;
        if (c == '=') break;
        if (table[c] < 0) file.Fail("holds an array that is not valid base64");
        bits = (bits << 6) | static_cast<uint32_t>(table[c]);
        if (++count == 4) {
            out.push_back(static_cast<char>(bits >> 16));
            out.push_back(static_cast<char>(bits >> 8));
            out.push_back(static_cast<char>(bits));
            bits = 0, count = 0;
        }
    }
    if (count == 2) out.push_back(static_cast<char>(bits >> 4));
    if (count == 3) {
        out.push_back(static_cast<char>(bits >> 10));
        out.push_back(static_cast<char>(bits >> 2));
    }
    return out;
}

// Reads a header word (UInt32 or UInt64) at `at` of `bytes`.
uint64_t HeaderWord(const std::string& bytes, size_t at, const XmlFile& file) {
    if (at + file.headerBytes > bytes.size()) file.Fail("is truncated: an array header ends early");
    uint64_t value = 0;
    if (file.headerBytes == 4) {
        uint32_t v;
        std::memcpy(&v, bytes.data() + at, 4);
        if (file.bigEndian != (std::endian::native == std::endian::big)) SwapBytes(&v, 1, 4);
        value = v;
    } else {
        std::memcpy(&value, bytes.data() + at, 8);
        if (file.bigEndian != (std::endian::native == std::endian::big)) SwapBytes(&value, 1, 8);
    }
    return value;
}

// The array's bytes from a binary stream that starts at `at` of `bytes` (its
// header, then its data or compressed blocks); `inlineBase64` arrays encode
// the header and the data (or blocks) one after the other.
std::string ArrayBytes(const std::string& source, size_t at, const XmlFile& file, bool base64) {
    const size_t h = file.headerBytes;
    if (!file.compressed) {
        if (!base64) {
            const uint64_t n = HeaderWord(source, at, file);
            if (n > source.size() - at - h) file.Fail("is truncated: an array ends early");
            return source.substr(at + h, static_cast<size_t>(n));
        }
        // The header and the data are encoded one after the other.
        const size_t headerChars = (h + 2) / 3 * 4;
        if (at + headerChars > source.size()) file.Fail("is truncated: an array header ends early");
        const uint64_t n = HeaderWord(Base64Decode(source, at, at + headerChars, file), 0, file);
        const std::string decoded = Base64Decode(source, at + headerChars, source.size(), file);
        if (n > decoded.size()) file.Fail("is truncated: an array ends early");
        return decoded.substr(0, static_cast<size_t>(n));
    }
    std::string header, blocks;
    if (!base64) {
        const uint64_t count = HeaderWord(source, at, file);
        if (count > (source.size() - at) / h) file.Fail("is truncated: an array header ends early");
        header = source.substr(at, static_cast<size_t>((3 + count) * h));
        blocks = source.substr(std::min(source.size(), at + header.size()));
    } else {
        // The header is encoded on its own: decode its first word to know its length.
        const std::string first = Base64Decode(source, at, std::min(source.size(), at + 16), file);
        const uint64_t count = HeaderWord(first, 0, file);
        if (count > source.size()) file.Fail("is truncated: an array header ends early");
        const size_t headerChars = static_cast<size_t>(((3 + count) * h + 2) / 3 * 4);
        if (at + headerChars > source.size()) file.Fail("is truncated: an array header ends early");
        header = Base64Decode(source, at, at + headerChars, file);
        blocks = Base64Decode(source, at + headerChars, source.size(), file);
    }
    const uint64_t count = HeaderWord(header, 0, file);
    const uint64_t blockSize = HeaderWord(header, h, file);
    const uint64_t lastSize = HeaderWord(header, 2 * h, file);
    std::string out;
    size_t read = 0;
    for (uint64_t b = 0; b < count; ++b) {
        const uint64_t compressedSize = HeaderWord(header, static_cast<size_t>((3 + b) * h), file);
        const uint64_t size = (b + 1 == count && lastSize != 0) ? lastSize : blockSize;
        if (compressedSize > blocks.size() - read || size > (uint64_t{1} << 32))
            file.Fail("is truncated: a compressed array ends early");
        std::string block(static_cast<size_t>(size), '\0');
        uLongf got = static_cast<uLongf>(size);
        if (uncompress(reinterpret_cast<Bytef*>(block.data()), &got,
                       reinterpret_cast<const Bytef*>(blocks.data() + read), static_cast<uLong>(compressedSize)) != Z_OK ||
            got != size)
            file.Fail("holds a compressed array that does not decompress");
        out += block;
        read += static_cast<size_t>(compressedSize);
    }
    return out;
}

template <class Stored, class Out>
void Convert(const std::string& bytes, const XmlFile& file, std::vector<Out>& out) {
    out.resize(bytes.size() / sizeof(Stored));
    for (size_t k = 0; k < out.size(); ++k) {
        Stored value;
        std::memcpy(&value, bytes.data() + k * sizeof(Stored), sizeof(Stored));
        if (file.bigEndian != (std::endian::native == std::endian::big)) SwapBytes(&value, 1, sizeof(Stored));
        out[k] = static_cast<Out>(value);
    }
}

template <class Out>
std::vector<Out> ReadArray(const pugi::xml_node& array, const XmlFile& file) {
    const std::string type = array.attribute("type").as_string();
    const std::string format = array.attribute("format").as_string("ascii");
    std::vector<Out> out;
    if (format == "ascii") {
        std::istringstream text(array.child_value());
        double value;
        while (text >> value) out.push_back(static_cast<Out>(value));
        if (!text.eof()) file.Fail("holds an ascii array with text that is not a number");
        return out;
    }
    std::string bytes;
    if (format == "binary") {
        const std::string text = array.child_value();
        const size_t start = text.find_first_not_of(" \t\r\n");
        bytes = ArrayBytes(text, start == std::string::npos ? text.size() : start, file, true);
    } else if (format == "appended") {
        const uint64_t offset = array.attribute("offset").as_ullong(~uint64_t{0});
        if (offset >= file.appended.size()) file.Fail("names an appended array past the end of the file");
        bytes = ArrayBytes(file.appended, static_cast<size_t>(offset), file, file.appendedBase64);
    } else {
        file.Fail("holds an array in format \"" + format + "\", not ascii, binary or appended");
    }
    if (type == "Float32") Convert<float>(bytes, file, out);
    else if (type == "Float64") Convert<double>(bytes, file, out);
    else if (type == "Int8") Convert<int8_t>(bytes, file, out);
    else if (type == "UInt8") Convert<uint8_t>(bytes, file, out);
    else if (type == "Int16") Convert<int16_t>(bytes, file, out);
    else if (type == "UInt16") Convert<uint16_t>(bytes, file, out);
    else if (type == "Int32") Convert<int32_t>(bytes, file, out);
    else if (type == "UInt32") Convert<uint32_t>(bytes, file, out);
    else if (type == "Int64") Convert<int64_t>(bytes, file, out);
    else if (type == "UInt64") Convert<uint64_t>(bytes, file, out);
    else file.Fail("holds an array of type \"" + type + "\", which this program cannot read");
    return out;
}

pugi::xml_node NamedArray(const pugi::xml_node& parent, const char* name) {
    for (const pugi::xml_node& array : parent.children("DataArray"))
        if (std::string(array.attribute("Name").as_string()) == name) return array;
    return {};
}

VtkCells ReadCells(const pugi::xml_node& piece, const char* element, int64_t expected, const XmlFile& file) {
    VtkCells cells;
    const pugi::xml_node node = piece.child(element);
    if (!node || expected == 0) return cells;
    const pugi::xml_node connectivity = NamedArray(node, "connectivity");
    const pugi::xml_node offsets = NamedArray(node, "offsets");
    if (!connectivity || !offsets) file.Fail(std::string("its ") + element + " lack a connectivity or offsets array");
    cells.connectivity = ReadArray<int64_t>(connectivity, file);
    // The file's offsets are the ends of the cells; ours start with 0.
    cells.offsets = ReadArray<int64_t>(offsets, file);
    cells.offsets.insert(cells.offsets.begin(), 0);
    if (static_cast<int64_t>(cells.Count()) != expected)
        file.Fail(std::string("declares ") + std::to_string(expected) + " " + element + " but holds " +
                  std::to_string(cells.Count()));
    return cells;
}

}  // namespace

VtkPolyData ReadVtkXmlPolyData(const std::string& path) {
    XmlFile file;
    file.path = path;
    std::string text;
    {
        std::ifstream in(path, std::ios::binary);
        if (!in) file.Fail("cannot open the file");
        std::ostringstream all;
        all << in.rdbuf();
        text = all.str();
    }
    // Raw appended data is not XML: cut it out before parsing.
    const size_t appendedTag = text.find("<AppendedData");
    if (appendedTag != std::string::npos) {
        const size_t tagEnd = text.find('>', appendedTag);
        const size_t marker = tagEnd == std::string::npos ? std::string::npos : text.find('_', tagEnd);
        const size_t close = text.rfind("</AppendedData>");
        if (marker == std::string::npos || close == std::string::npos || close < marker)
            file.Fail("is truncated: its appended data has no end");
        file.appendedBase64 = text.substr(appendedTag, tagEnd - appendedTag).find("base64") != std::string::npos;
        file.appended = text.substr(marker + 1, close - marker - 1);
        text = text.substr(0, appendedTag) + "</VTKFile>";
    }
    pugi::xml_document document;
    const pugi::xml_parse_result parsed = document.load_buffer(text.data(), text.size());
    if (!parsed) file.Fail(std::string("is not valid XML: ") + parsed.description());
    const pugi::xml_node root = document.child("VTKFile");
    if (!root) file.Fail("is not a VTK XML file: it has no VTKFile element");
    const std::string type = root.attribute("type").as_string();
    if (type != "PolyData")
        file.Fail("holds " + (type.empty() ? std::string("no dataset") : type) +
                  "; meshes are read from PolyData (surfaces, as segmentation tools export them)");
    file.bigEndian = std::string(root.attribute("byte_order").as_string("LittleEndian")) == "BigEndian";
    file.headerBytes = std::string(root.attribute("header_type").as_string("UInt32")) == "UInt64" ? 8 : 4;
    const std::string compressor = root.attribute("compressor").as_string();
    if (!compressor.empty() && compressor != "vtkZLibDataCompressor")
        file.Fail("is compressed with " + compressor + "; this program reads uncompressed and zlib-compressed files");
    file.compressed = !compressor.empty();

    VtkPolyData data;
    const pugi::xml_node pieces = root.child("PolyData");
    int pieceCount = 0;
    for (const pugi::xml_node& piece : pieces.children("Piece")) {
        // Several pieces are concatenated: later indices move past earlier points.
        ++pieceCount;
        const int64_t base = static_cast<int64_t>(data.points.size() / 3);
        const pugi::xml_node points = piece.child("Points").child("DataArray");
        const int64_t pointCount = piece.attribute("NumberOfPoints").as_llong(0);
        std::vector<double> positions = pointCount ? ReadArray<double>(points, file) : std::vector<double>{};
        if (static_cast<int64_t>(positions.size()) != pointCount * 3)
            file.Fail("declares " + std::to_string(pointCount) + " points but holds " +
                      std::to_string(positions.size() / 3));
        data.points.insert(data.points.end(), positions.begin(), positions.end());
        auto append = [&](VtkCells& into, VtkCells cells) {
            if (cells.offsets.empty()) return;
            if (into.offsets.empty()) into.offsets.push_back(0);
            const int64_t start = static_cast<int64_t>(into.connectivity.size());
            for (size_t k = 1; k < cells.offsets.size(); ++k) into.offsets.push_back(start + cells.offsets[k]);
            for (const int64_t index : cells.connectivity) into.connectivity.push_back(index + base);
        };
        append(data.verts, ReadCells(piece, "Verts", piece.attribute("NumberOfVerts").as_llong(0), file));
        append(data.lines, ReadCells(piece, "Lines", piece.attribute("NumberOfLines").as_llong(0), file));
        append(data.polys, ReadCells(piece, "Polys", piece.attribute("NumberOfPolys").as_llong(0), file));
        append(data.strips, ReadCells(piece, "Strips", piece.attribute("NumberOfStrips").as_llong(0), file));
    }
    if (pieceCount == 0) file.Fail("holds no PolyData piece");
    return data;
}

}  // namespace zrio
