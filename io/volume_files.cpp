// The choice of reader by file kind, size checks and raw files. The format
// readers live in their own files (volume_readers.h).
#include "volume_files.h"

#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <vector>

#include "byte_source.h"
#include "input_error.h"
#include "mesh_files.h"
#include "packed_volume.h"
#include "stored_voxels.h"
#include "volume_readers.h"

namespace zrio {

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

LoadedVolume ReadRawVolume(const std::string& path, const RawVolumeHeader& header, LoadProgress* progress) {
    try {
        CheckVolumeSize(header.dims, StoredTypeBytes(header.type));
    } catch (const std::invalid_argument& e) {
        throw InputError(path, e.what());
    }
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) throw InputError(path, "no such file");
    const uint64_t fileBytes = std::filesystem::file_size(path, ec);
    if (ec) throw InputError(path, "cannot read the file size: " + ec.message());
    const uint64_t voxelBytes = static_cast<uint64_t>(header.dims.x) * header.dims.y * header.dims.z *
                                StoredTypeBytes(header.type);
    if (fileBytes < header.headerBytes + voxelBytes)
        throw InputError(path, "raw file holds " + std::to_string(fileBytes) + " bytes, its header needs " +
                                   std::to_string(header.headerBytes + voxelBytes) + " (" +
                                   std::to_string(header.headerBytes) + " header + " + std::to_string(voxelBytes) +
                                   " voxel bytes)");
    ByteSource source(path, ByteSource::Compression::None);
    source.SkipTo(header.headerBytes, "the voxel data");
    VoxelGrid shape;
    shape.dims = header.dims;
    shape.geometry = header.geometry;
    try {
        return ReadPackedVolume(source, header.type, header.bigEndian, std::move(shape), progress);
    } catch (const std::invalid_argument& e) {
        throw InputError(path, e.what());
    } catch (const std::bad_alloc&) {
        throw InputError(path, "not enough memory to read the volume");
    }
}

namespace {

void CheckIsVolumeInput(const std::string& path) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) throw InputError(path, "no such file or directory");
    if (IsMeshFileName(path) && !std::filesystem::is_directory(path, ec))
        throw InputError(path, "is a mesh file, not a volume; give it as {\"type\": \"mesh\", \"file\": ...}");
}

}  // namespace

VolumeFileInfo ReadVolumeFileInfo(const std::string& path, const VolumeChoice& choice) {
    CheckIsVolumeInput(path);
    if (IsDicomInput(path)) return ReadDicomInfo(path, choice);
    if (IsNiftiFile(path)) return ReadNiftiInfo(path, choice);
    if (IsMghFile(path)) return ReadMghInfo(path, choice);
    return ReadItkInfo(path, choice);
}

VoxelGrid ReadVoxelGrid(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info) {
    CheckIsVolumeInput(path);
    try {
        if (IsDicomInput(path)) return ReadDicomGrid(path, choice, info);
        if (IsNiftiFile(path)) return ReadNiftiGrid(path, choice, info);
        if (IsMghFile(path)) return ReadMghGrid(path, choice, info);
        return ReadItkGrid(path, choice, info);
    } catch (const std::bad_alloc&) {
        throw InputError(path, "not enough memory to read the volume");
    }
}

VolumeFile ReadVolumeFile(const std::string& path, const VolumeChoice& choice, std::optional<VoxelKind> as,
                          LoadProgress* progress) {
    VolumeFile file;
    CheckIsVolumeInput(path);
    // Without a forced type, packed files go straight into the module volume.
    const bool packed = !as && !IsDicomInput(path);
    try {
        if (packed && IsNiftiFile(path))
            file.loaded = ReadNiftiVolume(path, choice, file.info, progress);
        else if (packed && IsMghFile(path))
            file.loaded = ReadMghVolume(path, choice, file.info, progress);
        else
            file.loaded = ToModuleVolume(ReadVoxelGrid(path, choice, file.info), as);
        file.loaded.warnings.insert(file.loaded.warnings.begin(), file.info.warnings.begin(), file.info.warnings.end());
    } catch (const std::invalid_argument& e) {
        throw InputError(path, e.what());
    } catch (const std::bad_alloc&) {
        throw InputError(path, "not enough memory to read the volume");
    }
    return file;
}

}  // namespace zrio
