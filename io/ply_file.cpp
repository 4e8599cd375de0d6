#include "ply_file.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <vector>

#include "buffered_bytes.h"
#include "byte_source.h"
#include "input_error.h"

namespace zrio {

namespace {

enum class Type { Int8, Uint8, Int16, Uint16, Int32, Uint32, Float32, Float64 };

std::optional<Type> TypeNamed(std::string_view name) {
    static const std::pair<std::string_view, Type> kNames[] = {
        {"char", Type::Int8},      {"int8", Type::Int8},       {"uchar", Type::Uint8},
        {"uint8", Type::Uint8},    {"short", Type::Int16},     {"int16", Type::Int16},
        {"ushort", Type::Uint16},  {"uint16", Type::Uint16},   {"int", Type::Int32},
        {"int32", Type::Int32},    {"uint", Type::Uint32},     {"uint32", Type::Uint32},
        {"float", Type::Float32},  {"float32", Type::Float32}, {"double", Type::Float64},
        {"float64", Type::Float64}};
    for (const auto& [known, type] : kNames)
        if (name == known) return type;
    return std::nullopt;
}

size_t SizeOf(Type type) {
    switch (type) {
        case Type::Int8:
        case Type::Uint8:
            return 1;
        case Type::Int16:
        case Type::Uint16:
            return 2;
        case Type::Int32:
        case Type::Uint32:
        case Type::Float32:
            return 4;
        case Type::Float64:
            return 8;
    }
    return 0;
}

bool IsInteger(Type type) { return type != Type::Float32 && type != Type::Float64; }

template <class T>
T Load(const unsigned char* at, bool swap) {
    T value;
    std::memcpy(&value, at, sizeof(T));
    if (swap) SwapBytes(&value, 1, sizeof(T));
    return value;
}

// A stored value of `type` as a `Result`. Integer results are asked only of
// integer types (the header is checked for that).
template <class Result>
Result LoadAs(const unsigned char* at, Type type, bool swap) {
    switch (type) {
        case Type::Int8:
            return static_cast<Result>(Load<int8_t>(at, swap));
        case Type::Uint8:
            return static_cast<Result>(Load<uint8_t>(at, swap));
        case Type::Int16:
            return static_cast<Result>(Load<int16_t>(at, swap));
        case Type::Uint16:
            return static_cast<Result>(Load<uint16_t>(at, swap));
        case Type::Int32:
            return static_cast<Result>(Load<int32_t>(at, swap));
        case Type::Uint32:
            return static_cast<Result>(Load<uint32_t>(at, swap));
        case Type::Float32:
            if constexpr (std::is_floating_point_v<Result>) return static_cast<Result>(Load<float>(at, swap));
            break;
        case Type::Float64:
            if constexpr (std::is_floating_point_v<Result>) return static_cast<Result>(Load<double>(at, swap));
            break;
    }
    return Result{0};
}

// What a vertex property is to the mesh.
enum class Role { None, X, Y, Z, NormalX, NormalY, NormalZ };

struct Property {
    std::string name;
    Type type = Type::Float32;  // of the items, for a list
    bool list = false;
    Type countType = Type::Uint8;
    size_t offset = 0;  // in the record, while every property before it is a scalar
    Role role = Role::None;
};

struct Element {
    std::string name;
    uint64_t count = 0;
    std::vector<Property> properties;
    bool fixedSize = true;
    size_t minimumBytes = 0;  // the record's size when fixed; scalars and list counts otherwise

    int Find(std::string_view wanted) const {
        for (size_t k = 0; k < properties.size(); ++k)
            if (properties[k].name == wanted) return static_cast<int>(k);
        return -1;
    }
};

struct Header {
    std::string format;
    bool swap = false;
    std::vector<Element> elements;
};

// Lists longer than this are refused rather than read piecemeal: a polygon of
// more corners is a damaged count far more likely than a face.
constexpr uint64_t kMaxListItems = 65536;

std::vector<std::string_view> Words(std::string_view line) {
    std::vector<std::string_view> words;
    size_t at = 0;
    while (at < line.size()) {
        while (at < line.size() && (line[at] == ' ' || line[at] == '\t')) ++at;
        size_t end = at;
        while (end < line.size() && line[end] != ' ' && line[end] != '\t') ++end;
        if (end > at) words.push_back(line.substr(at, end - at));
        at = end;
    }
    return words;
}

Header ReadHeader(BufferedBytes& in, const std::string& path) {
    std::string line;
    if (!in.TakeLine(line) || line != "ply")
        throw InputError(path, "is not a PLY file: its first line is not \"ply\"");
    Header header;
    for (int number = 2;; ++number) {
        if (!in.TakeLine(line)) throw InputError(path, "is truncated: its header has no end_header line");
        // Header lines are text; bytes that are not are the data, met before
        // any end_header line.
        if (std::any_of(line.begin(), line.end(),
                        [](unsigned char c) { return (c < 0x20 && c != '\t') || c == 0x7F; }))
            throw InputError(path, "its header has no end_header line before its binary data");
        const std::vector<std::string_view> words = Words(line);
        const std::string where = "header line " + std::to_string(number) + ": ";
        if (words.empty() || words[0] == "comment" || words[0] == "obj_info") continue;
        if (words[0] == "end_header") break;
        if (words[0] == "format") {
            if (words.size() < 2 || (words[1] != "ascii" && words[1] != "binary_little_endian" &&
                                     words[1] != "binary_big_endian"))
                throw InputError(path, where + "unknown format \"" + line + "\"");
            header.format = words[1];
            header.swap = (words[1] == "binary_big_endian") != (std::endian::native == std::endian::big);
        } else if (words[0] == "element") {
            Element element;
            const auto count = words.size() == 3 ? words[2] : std::string_view();
            const auto parsed = std::from_chars(count.data(), count.data() + count.size(), element.count);
            if (words.size() != 3 || parsed.ec != std::errc() || parsed.ptr != count.data() + count.size())
                throw InputError(path, where + "expects \"element NAME COUNT\", got \"" + line + "\"");
            element.name = words[1];
            header.elements.push_back(std::move(element));
        } else if (words[0] == "property") {
            if (header.elements.empty()) throw InputError(path, where + "a property before any element");
            Element& element = header.elements.back();
            Property property;
            const bool list = words.size() == 5 && words[1] == "list";
            const auto type = TypeNamed(words.size() > 2 ? words[list ? 3 : 1] : std::string_view());
            const auto countType = list ? TypeNamed(words[2]) : std::optional<Type>(Type::Uint8);
            if ((words.size() != 3 && !list) || !type || !countType)
                throw InputError(path, where +
                                           "expects \"property TYPE NAME\" or \"property list COUNT_TYPE "
                                           "TYPE NAME\" with PLY's types, got \"" +
                                           line + "\"");
            if (list && !IsInteger(*countType))
                throw InputError(path, where + "a list counted by a " + std::string(words[2]));
            property.name = words.back();
            property.type = *type;
            property.list = list;
            property.countType = *countType;
            property.offset = element.minimumBytes;
            element.minimumBytes += SizeOf(list ? *countType : *type);
            element.fixedSize = element.fixedSize && !list;
            element.properties.push_back(std::move(property));
        } else {
            throw InputError(path, where + "unknown keyword \"" + std::string(words[0]) + "\"");
        }
    }
    if (header.format.empty()) throw InputError(path, "its header has no format line");
    return header;
}

// Reads one record of `element`: `scalar(k, at)` for each scalar property k,
// `list(k, count, at)` for each list property. False when the file ends first.
template <class Scalar, class List>
bool ReadRecord(BufferedBytes& in, const Element& element, bool swap, Scalar&& scalar, List&& list,
                const std::string& path, uint64_t record) {
    if (element.fixedSize) {
        const unsigned char* at = in.Take(element.minimumBytes);
        if (!at) return false;
        for (size_t k = 0; k < element.properties.size(); ++k) scalar(k, at + element.properties[k].offset);
        return true;
    }
    for (size_t k = 0; k < element.properties.size(); ++k) {
        const Property& property = element.properties[k];
        if (!property.list) {
            const unsigned char* at = in.Take(SizeOf(property.type));
            if (!at) return false;
            scalar(k, at);
            continue;
        }
        const unsigned char* counted = in.Take(SizeOf(property.countType));
        if (!counted) return false;
        const int64_t count = LoadAs<int64_t>(counted, property.countType, swap);
        if (count < 0 || static_cast<uint64_t>(count) > kMaxListItems)
            throw InputError(path, element.name + " " + std::to_string(record) + " has a " + property.name +
                                       " list of " + std::to_string(count) + " items");
        const unsigned char* items = in.Take(static_cast<size_t>(count) * SizeOf(property.type));
        if (!items) return false;
        list(k, static_cast<size_t>(count), items);
    }
    return true;
}

// The file must hold at least the fixed part of every record the header
// declares; checked before anything is allocated for them.
void CheckLength(const Header& header, uint64_t available, const std::string& path) {
    uint64_t needed = 0;
    bool short_ = false;
    std::string declared;
    for (const Element& element : header.elements) {
        declared += (declared.empty() ? "" : ", ") + std::to_string(element.count) + " " + element.name;
        if (element.minimumBytes == 0 || short_) continue;
        if (element.count > (available - std::min(available, needed)) / element.minimumBytes)
            short_ = true;
        else
            needed += element.count * element.minimumBytes;
    }
    if (short_)
        throw InputError(path, "is truncated: its header declares " + declared +
                                   " records, which do not fit in the " + std::to_string(available) +
                                   " bytes after the header");
}

}  // namespace

std::optional<zrobjects::MeshArrays> ReadBinaryPly(const std::string& path, LoadProgress* progress) {
    ByteSource source(path, ByteSource::Compression::None);
    BufferedBytes in(source);
    Header header = ReadHeader(in, path);
    if (header.format == "ascii") return std::nullopt;
    const bool swap = header.swap;

    Element* vertex = nullptr;
    Element* face = nullptr;
    for (Element& element : header.elements) {
        if (element.name == "vertex" && !vertex) vertex = &element;
        if (element.name == "face" && !face) face = &element;
    }
    if (!vertex || vertex->count == 0) throw InputError(path, "holds no vertices");
    if (vertex->count > static_cast<uint64_t>(INT32_MAX))
        throw InputError(path, "holds more vertices than a mesh can index");
    const char* names[] = {"x", "y", "z", "nx", "ny", "nz"};
    int found[6];
    for (int r = 0; r < 6; ++r) {
        found[r] = vertex->Find(names[r]);
        if (found[r] >= 0 && vertex->properties[found[r]].list) found[r] = -1;
    }
    if (found[0] < 0 || found[1] < 0 || found[2] < 0)
        throw InputError(path, "its vertex element has no x, y and z properties");
    const bool normals = found[3] >= 0 && found[4] >= 0 && found[5] >= 0;
    for (int r = 0; r < (normals ? 6 : 3); ++r) vertex->properties[found[r]].role = static_cast<Role>(r + 1);
    int corners = -1;
    if (face) {
        corners = face->Find("vertex_indices");
        if (corners < 0) corners = face->Find("vertex_index");
        if (corners < 0 || !face->properties[corners].list)
            throw InputError(path, "its face element has no vertex_indices list");
        if (!IsInteger(face->properties[corners].type))
            throw InputError(path, "its face vertex indices are not integers");
    }
    CheckLength(header, source.FileBytes() - in.Offset(), path);

    zrobjects::MeshArrays mesh;
    const uint64_t vertexCount = vertex->count;
    mesh.positions.resize(3 * vertexCount);
    if (normals) mesh.normals.resize(3 * vertexCount);
    if (face) mesh.indices.reserve(3 * face->count);

    for (const Element& element : header.elements) {
        // An element without properties holds no bytes, however many it counts.
        if (element.properties.empty()) continue;
        const bool isVertex = &element == vertex, isFace = &element == face;
        for (uint64_t record = 0; record < element.count; ++record) {
            if (progress && record % 65536 == 0)
                progress->Step("reading",
                               static_cast<double>(in.Offset()) / static_cast<double>(source.FileBytes()));
            auto scalar = [&](size_t k, const unsigned char* at) {
                if (!isVertex) return;
                const Property& property = element.properties[k];
                switch (property.role) {
                    case Role::None:
                        return;
                    case Role::X:
                    case Role::Y:
                    case Role::Z:
                        mesh.positions[3 * record + static_cast<int>(property.role) - 1] =
                            static_cast<float>(LoadAs<double>(at, property.type, swap));
                        return;
                    default:
                        mesh.normals[3 * record + static_cast<int>(property.role) - 4] =
                            static_cast<float>(LoadAs<double>(at, property.type, swap));
                        return;
                }
            };
            auto list = [&](size_t k, size_t count, const unsigned char* at) {
                if (!isFace || static_cast<int>(k) != corners) return;
                if (count < 3) return;  // a point or an edge: no surface to cut
                const Type type = element.properties[k].type;
                const size_t size = SizeOf(type);
                uint32_t first = 0, previous = 0;
                for (size_t j = 0; j < count; ++j) {
                    const int64_t index = LoadAs<int64_t>(at + j * size, type, swap);
                    if (index < 0 || static_cast<uint64_t>(index) >= vertexCount)
                        throw InputError(path, "face " + std::to_string(record) + " names vertex " +
                                                   std::to_string(index) + ", past the " +
                                                   std::to_string(vertexCount) + " vertices");
                    const auto v = static_cast<uint32_t>(index);
                    // A polygon becomes the fan of triangles around its first corner.
                    if (j == 0) first = v;
                    if (j >= 2) mesh.indices.insert(mesh.indices.end(), {first, previous, v});
                    previous = v;
                }
            };
            if (!ReadRecord(in, element, swap, scalar, list, path, record))
                throw InputError(path, "is truncated: it ends in " + element.name + " " +
                                           std::to_string(record) + " of " + std::to_string(element.count));
        }
    }

    if (mesh.indices.empty()) {
        if (face && face->count > 0)
            throw InputError(
                path, "its faces have fewer than three corners; only surfaces and point sets can be drawn");
        mesh.topology = 3;  // a point set
        return mesh;
    }
    if (mesh.indices.size() / 3 > static_cast<size_t>(INT32_MAX))
        throw InputError(path, "holds more triangles than a mesh can index");
    mesh.indices.shrink_to_fit();
    return mesh;
}

}  // namespace zrio
