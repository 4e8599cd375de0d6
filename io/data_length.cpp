#include "data_length.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>

#include "input_error.h"

namespace zrio {

namespace {

namespace fs = std::filesystem;

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

uint64_t FileBytes(const std::string& path) {
    std::error_code ec;
    const uint64_t size = fs::file_size(path, ec);
    if (ec) throw InputError(path, "its voxel file cannot be read: " + ec.message());
    return size;
}

// The data file named in a header, relative to the header's folder.
std::string Beside(const std::string& header, const std::string& name) {
    const fs::path p(name);
    return p.is_absolute() ? name : (fs::path(header).parent_path() / p).string();
}

// `voxelBytes` must fit in the data file after the header. `name` is the data
// file a header names (empty or "LOCAL": its own), `skip` the bytes before the
// voxels ("-1": the voxels are the file's last bytes).
void RequireLength(const std::string& path, uint64_t headerBytes, const std::string& name, const std::string& skip,
                   uint64_t voxelBytes) {
    std::string dataPath = path;
    uint64_t before = headerBytes;
    if (!name.empty() && Lower(name) != "local") {
        dataPath = Beside(path, name);
        before = 0;
    }
    if (skip == "-1") before = 0;
    else if (!skip.empty()) before += static_cast<uint64_t>(std::max(0LL, std::atoll(skip.c_str())));
    const uint64_t size = FileBytes(dataPath);
    const uint64_t available = size >= before ? size - before : 0;
    if (available < voxelBytes)
        throw InputError(dataPath, "is truncated: its voxels need " + std::to_string(voxelBytes) + " bytes after " +
                                       std::to_string(before) + " header bytes, the file holds " +
                                       std::to_string(available));
}

// The "key<separator>value" lines of a text header (keys in lower case),
// up to an empty line or the line whose key is `lastKey`; `headerBytes` is
// where the header ends. Comment lines (#) and other lines are passed over.
struct HeaderFields {
    std::map<std::string, std::string> fields;
    uint64_t headerBytes = 0;
};

HeaderFields ReadHeaderFields(const std::string& path, char separator, const std::string& lastKey) {
    std::ifstream in(path, std::ios::binary);
    HeaderFields header;
    std::string line;
    while (std::getline(in, line)) {
        header.headerBytes += line.size() + 1;
        line = Trim(line);
        if (line.empty()) break;
        if (line[0] == '#') continue;
        const size_t at = line.find(separator);
        if (at == std::string::npos) continue;
        const std::string key = Lower(Trim(line.substr(0, at)));
        header.fields[key] = Trim(line.substr(at + 1));
        if (key == lastKey) break;
    }
    return header;
}

}  // namespace

void CheckNrrdDataLength(const std::string& path, uint64_t voxelBytes) {
    // Fields up to the first empty line ("key: value").
    HeaderFields header = ReadHeaderFields(path, ':', "");
    auto& fields = header.fields;
    if (Lower(fields["encoding"]) != "raw") return;
    const std::string name = fields.count("data file") ? fields["data file"] : fields["datafile"];
    if (name.rfind("LIST", 0) == 0 || name.find('%') != std::string::npos) return;  // several files
    RequireLength(path, header.headerBytes, name, fields["byte skip"], voxelBytes);
}

void CheckMetaImageDataLength(const std::string& path, uint64_t voxelBytes) {
    // "Key = Value" lines; ElementDataFile is the last one.
    HeaderFields header = ReadHeaderFields(path, '=', "elementdatafile");
    auto& fields = header.fields;
    if (Lower(fields["compresseddata"]) == "true") return;
    const std::string name = fields["elementdatafile"];
    if (name.empty() || name.rfind("LIST", 0) == 0 || name.find('%') != std::string::npos) return;
    RequireLength(path, header.headerBytes, name, fields["headersize"], voxelBytes);
}

}  // namespace zrio
