// Voxel kinds, size checks and raw files. The ITK readers live in
// volume_files_itk.cpp.
#include "volume_files.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <stdexcept>
#include <vector>

#include "input_error.h"

namespace zrio {

namespace {

template <class T>
std::shared_ptr<zrobjects::ZrVObjectVolume> BuildFromBytes(const std::vector<char>& bytes, const RawVolumeHeader& header) {
    const size_t count = bytes.size() / sizeof(T);
    std::vector<T> voxels(count);
    std::memcpy(voxels.data(), bytes.data(), count * sizeof(T));
    // Raw files name their byte order; swap when it is not this machine's.
    const bool swap = (std::endian::native == std::endian::big) != header.bigEndian;
    if (swap && sizeof(T) > 1) {
        for (T& v : voxels) {
            auto* b = reinterpret_cast<unsigned char*>(&v);
            std::reverse(b, b + sizeof(T));
        }
    }
    return zrobjects::MakeVolume<T>(std::span<const T>(voxels), header.dims, header.geometry);
}

}  // namespace

std::string FirstLine(const std::string& text) {
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        const auto first = line.find_first_not_of(" \t\r");
        if (first != std::string::npos) {
            line = line.substr(first);
            while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
            return line;
        }
        start = end + 1;
    }
    return text;
}

VoxelKind ParseVoxelKind(const std::string& text) {
    if (text == "int8") return VoxelKind::Int8;
    if (text == "uint8") return VoxelKind::UInt8;
    if (text == "int16") return VoxelKind::Int16;
    if (text == "uint16") return VoxelKind::UInt16;
    if (text == "float32" || text == "float") return VoxelKind::Float32;
    throw std::invalid_argument("unknown voxel type \"" + text + "\" (int8, uint8, int16, uint16 or float32)");
}

const char* VoxelKindName(VoxelKind kind) {
    switch (kind) {
        case VoxelKind::Int8: return "int8";
        case VoxelKind::UInt8: return "uint8";
        case VoxelKind::Int16: return "int16";
        case VoxelKind::UInt16: return "uint16";
        case VoxelKind::Float32: return "float32";
    }
    return "?";
}

size_t VoxelKindBytes(VoxelKind kind) {
    switch (kind) {
        case VoxelKind::Int8:
        case VoxelKind::UInt8: return 1;
        case VoxelKind::Int16:
        case VoxelKind::UInt16: return 2;
        case VoxelKind::Float32: return 4;
    }
    return 1;
}

uint64_t PhysicalMemoryBytes() {
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGE_SIZE);
    if (pages <= 0 || pageSize <= 0) return uint64_t{1} << 40;
    return static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
}

void CheckVolumeSize(const glm::ivec3& dims, size_t voxelBytes) {
    const std::string text = std::to_string(dims.x) + " x " + std::to_string(dims.y) + " x " + std::to_string(dims.z);
    if (dims.x <= 0 || dims.y <= 0 || dims.z <= 0)
        throw std::invalid_argument("volume dimensions must be positive, got " + text);
    // The host stores two margin voxels on each side of every axis.
    const uint64_t stored = static_cast<uint64_t>(dims.x + 4) * static_cast<uint64_t>(dims.y + 4) *
                            static_cast<uint64_t>(dims.z + 4) * voxelBytes;
    if (dims.x > 65536 || dims.y > 65536 || dims.z > 65536 || stored > PhysicalMemoryBytes() / 2)
        throw std::invalid_argument("volume of " + text + " voxels is too large for this machine's memory");
}

std::shared_ptr<zrobjects::ZrVObjectVolume> ReadRawVolume(const std::string& path, const RawVolumeHeader& header) {
    try {
        CheckVolumeSize(header.dims, VoxelKindBytes(header.kind));
    } catch (const std::invalid_argument& e) {
        throw InputError(path, e.what());
    }
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) throw InputError(path, "no such file");
    const uint64_t fileBytes = std::filesystem::file_size(path, ec);
    if (ec) throw InputError(path, "cannot read the file size: " + ec.message());
    const uint64_t voxelBytes = static_cast<uint64_t>(header.dims.x) * header.dims.y * header.dims.z *
                                VoxelKindBytes(header.kind);
    if (fileBytes < header.headerBytes + voxelBytes)
        throw InputError(path, "raw file holds " + std::to_string(fileBytes) + " bytes, its header needs " +
                                   std::to_string(header.headerBytes + voxelBytes) + " (" +
                                   std::to_string(header.headerBytes) + " header + " + std::to_string(voxelBytes) +
                                   " voxel bytes)");
    std::ifstream in(path, std::ios::binary);
    if (!in) throw InputError(path, "cannot open the file");
    std::vector<char> bytes(voxelBytes);
    in.seekg(static_cast<std::streamoff>(header.headerBytes));
    in.read(bytes.data(), static_cast<std::streamsize>(voxelBytes));
    if (!in) throw InputError(path, "read failed before the end of the voxel data");
    try {
        switch (header.kind) {
            case VoxelKind::Int8: return BuildFromBytes<char>(bytes, header);
            case VoxelKind::UInt8: return BuildFromBytes<unsigned char>(bytes, header);
            case VoxelKind::Int16: return BuildFromBytes<short>(bytes, header);
            case VoxelKind::UInt16: return BuildFromBytes<unsigned short>(bytes, header);
            case VoxelKind::Float32: return BuildFromBytes<float>(bytes, header);
        }
    } catch (const std::invalid_argument& e) {
        throw InputError(path, e.what());
    }
    throw InputError(path, "unknown voxel type");
}

}  // namespace zrio
