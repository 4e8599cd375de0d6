#include "bench/sphere_s2.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <vector>

#ifndef ZR_BENCH_DATA_DIR
#define ZR_BENCH_DATA_DIR "bench-data"
#endif

namespace zrbench {

namespace {

// The machines we run on are little-endian, so values are written as they lie
// in memory.
template <class T>
void Put(std::vector<char>& bytes, T value) {
    const size_t at = bytes.size();
    bytes.resize(at + sizeof(T));
    std::memcpy(bytes.data() + at, &value, sizeof(T));
}

std::vector<char> StlBytes(const zrobjects::MeshArrays& s2) {
    const size_t triangles = s2.indices.size() / 3;
    std::vector<char> bytes(80, ' ');
    std::memcpy(bytes.data(), "S2 sphere, radius 80 mm, 1200 x 900", 35);
    bytes.reserve(84 + 50 * triangles);
    Put(bytes, static_cast<uint32_t>(triangles));
    for (size_t t = 0; t < triangles; ++t) {
        glm::vec3 corner[3];
        for (int k = 0; k < 3; ++k) {
            const float* p = &s2.positions[3 * static_cast<size_t>(s2.indices[3 * t + k])];
            corner[k] = glm::vec3(p[0], p[1], p[2]);
        }
        const glm::vec3 normal = glm::normalize(glm::cross(corner[1] - corner[0], corner[2] - corner[0]));
        for (int a = 0; a < 3; ++a) Put(bytes, normal[a]);
        for (const glm::vec3& c : corner)
            for (int a = 0; a < 3; ++a) Put(bytes, c[a]);
        Put(bytes, uint16_t{0});
    }
    return bytes;
}

std::vector<char> PlyBytes(const zrobjects::MeshArrays& s2) {
    const size_t vertices = s2.positions.size() / 3, triangles = s2.indices.size() / 3;
    const std::string header =
        "ply\nformat binary_little_endian 1.0\ncomment S2 sphere, radius 80 mm\n"
        "element vertex " +
        std::to_string(vertices) +
        "\nproperty float x\nproperty float y\nproperty float z\n"
        "element face " +
        std::to_string(triangles) + "\nproperty list uchar int vertex_indices\nend_header\n";
    std::vector<char> bytes(header.begin(), header.end());
    bytes.reserve(header.size() + 12 * vertices + 13 * triangles);
    for (const float x : s2.positions) Put(bytes, x);
    for (size_t t = 0; t < triangles; ++t) {
        Put(bytes, uint8_t{3});
        for (int k = 0; k < 3; ++k) Put(bytes, static_cast<int32_t>(s2.indices[3 * t + k]));
    }
    return bytes;
}

// The cached file `name`, written from `make` when it is missing or its size
// is not `size` bytes (0: any size).
std::string Cached(const std::string& name, uint64_t size,
                   const std::function<std::vector<char>(const zrobjects::MeshArrays&)>& make) {
    const std::string path = std::string(ZR_BENCH_DATA_DIR) + "/" + name;
    std::error_code error;
    const uint64_t found = std::filesystem::file_size(path, error);
    if (!error && (size == 0 || found == size)) return path;
    const std::vector<char> bytes = make(SphereS2Arrays());
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const std::string temporary = path + ".partial";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out) {
            out.close();
            std::filesystem::remove(temporary);
            throw std::runtime_error("cannot write the S2 mesh file " + temporary);
        }
    }
    std::filesystem::rename(temporary, path);
    return path;
}

}  // namespace

zrobjects::MeshArrays SphereS2Arrays() {
    zrobjects::MeshArrays s2 = zrobjects::MakeSphereArrays(80.0, 899, 1200, glm::dvec3(0.0));
    s2.normals.clear();
    return s2;
}

std::string SphereS2StlPath() { return Cached("s2.stl", 84 + 50 * uint64_t{kSphereS2Triangles}, StlBytes); }

std::string SphereS2PlyPath() { return Cached("s2.ply", 0, PlyBytes); }

}  // namespace zrbench
