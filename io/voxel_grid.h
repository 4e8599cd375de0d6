// A voxel grid as a file stores it, and the one rule that turns it into a
// volume the module can draw.
//
// The module looks every sample up in a table by its 16-bit word, and its slab
// reductions take the word as unsigned (a maximum starts at 0, an average counts
// positive samples). Real values in a file may be negative (CT in Hounsfield
// units) or scaled (NIfTI scl_slope, DICOM rescale). So integer data reaches
// the module as unsigned voxels that hold real value + offset, with the offset
// remembered per volume: every table is then built at entry = value + offset
// from a description in the volume's own units, and every value shown to a
// user is stored - offset. Data that is not integral after scaling becomes
// 32-bit float real values, which the module windows without a table.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

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

// Stored voxels, x fastest, then y, then z, with the file's scaling:
// real value = stored * slope + intercept.
struct VoxelGrid {
    glm::ivec3 dims{0};
    zrobjects::VolumeGeometry geometry;  // voxel centres in LPS world millimetres
    std::variant<std::vector<int8_t>, std::vector<uint8_t>, std::vector<int16_t>, std::vector<uint16_t>,
                 std::vector<int32_t>, std::vector<uint32_t>, std::vector<float>, std::vector<double>>
        voxels;
    double slope = 1.0;
    double intercept = 0.0;
    std::string units;  // "HU", "Gy", ... when the file says; empty when unknown
    std::optional<glm::dvec2> window;  // the file's own window (centre, width), real units
};

// How the module's voxels relate to real values.
struct VolumeValues {
    // Integer volumes: stored word = real value + offset. Float volumes: 0.
    int offset = 0;
    bool isFloat = false;
    std::string units;
    // The range of the real values.
    double min = 0.0, max = 0.0;
};

// A volume ready for the scene, with what a user needs to know about it.
struct LoadedVolume {
    std::shared_ptr<zrobjects::ZrVObjectVolume> volume;
    VolumeValues values;
    std::optional<glm::dvec2> window;   // the file's own window (centre, width), real units
    std::vector<std::string> warnings;  // said on standard error when the volume is used
};

// Makes the module volume of `grid`: unsigned 8-bit for data within 0..255,
// unsigned 16-bit with the smallest offset of 0, 1024 and 32768 that brings the
// real range into 0..65535, and 32-bit float otherwise (a non-integral scaling
// or a range too wide). `as` forces a voxel type: the real values are converted
// to it (truncated, clamped to its range) with offset 0, and a signed type
// earns a warning about the slab reductions. Throws std::invalid_argument for
// an empty or inconsistent grid.
LoadedVolume ToModuleVolume(VoxelGrid grid, std::optional<VoxelKind> as = std::nullopt);

// The labels of `loaded` as the unsigned 8-bit volume a mask must be (the
// module reads a mask's voxels as bytes whatever their type), on the same
// grid and placement. Throws std::invalid_argument when its values are not
// whole numbers in 0..255.
std::shared_ptr<zrobjects::ZrVObjectVolume> AsLabelVolume(const LoadedVolume& loaded);

// The range of the real values of a module volume whose stored words are
// real + offset (offset ignored for float volumes), from one pass over them.
VolumeValues MeasureValues(const zrobjects::ZrVObjectVolume& volume, int offset);

// The 1st and 99th percentiles of the same real values (what a window should
// cover): a histogram of every word, or a million samples of a float volume.
// Only shown to users, so measured only when asked for.
glm::dvec2 MeasurePercentiles(const zrobjects::ZrVObjectVolume& volume, int offset);

}  // namespace zrio
