// Volumes from files: NIfTI, NRRD, MetaImage and DICOM series directories
// through ITK (with their spacing, origin and direction), and raw voxel files
// described by an explicit header. Every failure is an InputError naming the
// file. ITK stays inside volume_files_itk.cpp so that nothing else compiles its
// headers.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <glm/glm.hpp>

#include "host/volume_builder.h"

namespace zrio {

// Voxel types the module can draw.
enum class VoxelKind { Int8, UInt8, Int16, UInt16, Float32 };

// Parses "int8", "uint8", "int16", "uint16", "float32" (also "float"); throws
// std::invalid_argument naming the text otherwise.
VoxelKind ParseVoxelKind(const std::string& text);
const char* VoxelKindName(VoxelKind kind);
size_t VoxelKindBytes(VoxelKind kind);

// What a volume file holds, without its voxels.
struct VolumeFileInfo {
    std::string format;         // "NIfTI", "NRRD", "MetaImage", "DICOM series", ...
    std::string componentType;  // as stored, e.g. "short", "double"
    int components = 1;
    glm::ivec3 dims{0};
    zrobjects::VolumeGeometry geometry;
};

VolumeFileInfo ReadVolumeFileInfo(const std::string& path);

// Reads a volume file (or a DICOM series directory). Without `as` the stored
// component type is kept when the module can draw it, 64-bit floats become
// 32-bit floats, and other types are refused with a hint to give "voxelType".
// With `as` the voxels are converted to that type.
std::shared_ptr<zrobjects::ZrVObjectVolume> ReadVolumeFile(const std::string& path,
                                                           std::optional<VoxelKind> as = std::nullopt);

// A raw file: `headerBytes` skipped, then dims.x * dims.y * dims.z voxels of
// `kind`, x fastest, in the given byte order.
struct RawVolumeHeader {
    glm::ivec3 dims{0};
    VoxelKind kind = VoxelKind::UInt16;
    bool bigEndian = false;
    uint64_t headerBytes = 0;
    zrobjects::VolumeGeometry geometry;
};

std::shared_ptr<zrobjects::ZrVObjectVolume> ReadRawVolume(const std::string& path, const RawVolumeHeader& header);

// Refuses a voxel grid that is absurd or would not fit into this machine's
// memory; `what` names it in the message. Throws std::invalid_argument.
void CheckVolumeSize(const glm::ivec3& dims, size_t voxelBytes);

// Physical memory of this machine in bytes (a large fallback when unknown).
uint64_t PhysicalMemoryBytes();

}  // namespace zrio
