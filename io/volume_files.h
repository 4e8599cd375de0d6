// Volumes from files: one reader per format behind one interface (NIfTI-1/2,
// FreeSurfer MGH, NRRD, MetaImage, DICOM), each saying which rule placed the
// grid in LPS world coordinates, and raw voxel files described by an explicit
// header. Every failure is an InputError naming the file, in one line of our
// own. A grid becomes a module volume by ToModuleVolume (voxel_grid.h).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <glm/glm.hpp>

#include "load_progress.h"
#include "stored_voxels.h"
#include "voxel_grid.h"

namespace zrio {

// Which volume of a file to take when it holds several: a DICOM series (its
// UID or number), a part of a series (echo, time point, orientation) and the
// time point of a 4-D file. Empty means "the only one"; a file with several
// and no choice is refused with the list.
struct VolumeChoice {
    std::string series;
    std::optional<int> frame;
};

// What a volume file holds, from its header.
struct VolumeFileInfo {
    std::string format;         // "NIfTI-1", "NRRD", "MetaImage", "DICOM series", ...
    std::string componentType;  // as stored, e.g. "short", "double"
    int components = 1;
    glm::ivec3 dims{0};
    zrobjects::VolumeGeometry geometry;  // LPS
    // The rule that placed the grid, e.g. "sform (code 2)", "qform", "pixdim
    // only", "space directions", "image positions of 40 slices".
    std::string placement;
    // What a user should know: differing transforms, a sheared grid, a gantry
    // tilt, uneven spacing, scaling applied...
    std::vector<std::string> notes;
    // What a user must hear whenever the volume is used, because its placement
    // rests on a weaker rule (a spacing from another attribute); said on
    // standard error by every command that reads the volume.
    std::vector<std::string> warnings;
    // The volumes a request may choose from ("series" / "frame"), one line each;
    // empty when the file holds one.
    std::vector<std::string> choices;
    int frames = 1;  // time points of a 4-D file
    // real value = stored * slope + intercept
    double slope = 1.0, intercept = 0.0;
    std::string units;
    std::optional<glm::dvec2> window;  // the file's own window (centre, width), real units
};

VolumeFileInfo ReadVolumeFileInfo(const std::string& path, const VolumeChoice& choice = {});

// Reads a volume file (or a DICOM series directory) and makes its module
// volume by ToModuleVolume; `as` forces a voxel type. NIfTI and MGH volumes
// (unless `as` is given) are read straight into the module volume, and
// `progress` (may be null) hears how far that has come.
struct VolumeFile {
    LoadedVolume loaded;
    VolumeFileInfo info;
};
VolumeFile ReadVolumeFile(const std::string& path, const VolumeChoice& choice = {},
                          std::optional<VoxelKind> as = std::nullopt, LoadProgress* progress = nullptr);

// The stored grid of a file without making a module volume.
VoxelGrid ReadVoxelGrid(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info);

// A raw file: `headerBytes` skipped, then dims.x * dims.y * dims.z voxels of
// `type`, x fastest, in the given byte order.
struct RawVolumeHeader {
    glm::ivec3 dims{0};
    StoredType type = StoredType::UInt16;
    bool bigEndian = false;
    uint64_t headerBytes = 0;
    zrobjects::VolumeGeometry geometry;
};

// Raw voxels are taken as real values (no offset is known): signed kinds are
// offset into the unsigned range like any file's.
LoadedVolume ReadRawVolume(const std::string& path, const RawVolumeHeader& header, LoadProgress* progress = nullptr);

// Refuses a voxel grid that is absurd or would not fit into this machine's
// memory. Throws std::invalid_argument.
void CheckVolumeSize(const glm::ivec3& dims, size_t voxelBytes);

// Physical memory of this machine in bytes (a large fallback when unknown).
uint64_t PhysicalMemoryBytes();

}  // namespace zrio
