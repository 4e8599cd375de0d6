// Scratch folders and small file writers for the command-line host's tests.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace zrio::testing {

// A fresh folder under the system's temporary folder, removed at the end.
class ScratchFolder {
public:
    explicit ScratchFolder(const std::string& name) {
        path_ = std::filesystem::temp_directory_path() / ("zrslice-test-" + name + "-" + std::to_string(getpid()));
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~ScratchFolder() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }
    const std::filesystem::path& Path() const { return path_; }

private:
    std::filesystem::path path_;
};

inline void WriteBytes(const std::string& path, const std::vector<char>& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline void WriteText(const std::string& path, const std::string& text) {
    std::ofstream out(path);
    out << text;
}

template <class T>
void Append(std::vector<char>& bytes, const T& value) {
    const char* p = reinterpret_cast<const char*>(&value);
    bytes.insert(bytes.end(), p, p + sizeof(T));
}

// A minimal single-file NIfTI-1 volume of signed 16-bit voxels with the given
// spacing, no orientation codes (so readers place it at the origin).
inline std::vector<char> NiftiInt16(int nx, int ny, int nz, float sx, float sy, float sz,
                                    const std::vector<int16_t>& voxels) {
    std::vector<char> header(352, 0);
    const auto put = [&](size_t at, auto v) { std::memcpy(&header[at], &v, sizeof v); };
    put(0, int32_t{348});  // sizeof_hdr
    // dim[0..6]: three dimensions, then ones; datatype signed short, 16 bits.
    const int16_t dims[] = {3, int16_t(nx), int16_t(ny), int16_t(nz), 1, 1, 1};
    for (int d = 0; d < 7; ++d) put(40 + 2 * d, dims[d]);
    put(70, int16_t{4});
    put(72, int16_t{16});
    const float pixdim[] = {1.0f, sx, sy, sz};  // pixdim[0] is qfac
    for (int d = 0; d < 4; ++d) put(76 + 4 * d, pixdim[d]);
    put(108, 352.0f);                       // vox_offset
    put(112, 1.0f);                         // scl_slope
    header[123] = 10;                       // xyzt_units: mm, s
    std::memcpy(&header[344], "n+1\0", 4);  // magic
    std::vector<char> bytes = header;
    for (int16_t v : voxels) Append(bytes, v);
    return bytes;
}

}  // namespace zrio::testing
