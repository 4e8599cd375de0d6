#include "packed_frames.h"

#include <stdexcept>

#include "byte_source.h"
#include "input_error.h"
#include "packed_volume.h"

namespace zrio {

namespace {

int64_t ChosenFrame(const PackedFrames& packed, const VolumeChoice& choice, const std::string& path) {
    const std::string name = packed.frameName;
    const std::string range = "0 .. " + std::to_string(packed.frames - 1);
    if (!choice.series.empty())
        throw InputError(path, "\"series\" picks a DICOM series or part of one; this file holds one series (use \"frame\")");
    if (choice.frame && (*choice.frame < 0 || *choice.frame >= packed.frames))
        throw InputError(path, "\"frame\": " + std::to_string(*choice.frame) + " does not exist; the file holds " +
                                   std::to_string(packed.frames) + " " + name + (packed.frames == 1 ? "" : "s") +
                                   (packed.frames == 1 ? "" : ", " + range));
    if (!choice.frame && packed.frames > 1)
        throw InputError(path, "holds " + std::to_string(packed.frames) + " " + name + "s; pick one with \"frame\": " +
                                   range + " in its volume object");
    return choice.frame.value_or(0);
}

}  // namespace

VolumeFileInfo ChooseFrameInfo(const PackedFrames& packed, VolumeFileInfo info, const VolumeChoice& choice,
                               const std::string& path) {
    if (packed.frames > 1 && !choice.frame && choice.series.empty()) {
        info.choices = {std::to_string(packed.frames) + " " + packed.frameName + "s: \"frame\": 0 .. " +
                        std::to_string(packed.frames - 1)};
        return info;
    }
    const int64_t frame = ChosenFrame(packed, choice, path);
    if (packed.frames > 1)
        info.notes.push_back(std::string(packed.frameName) + " " + std::to_string(frame) + " of " +
                             std::to_string(packed.frames));
    return info;
}

namespace {

// Where the chosen frame's voxels start in the (decompressed) data file;
// `grid` takes the frame's shape, placement and scaling, `out` the info a
// request sees.
uint64_t ChosenFrameStart(const PackedFrames& packed, VolumeFileInfo info, const VolumeChoice& choice,
                          const std::string& path, VoxelGrid& grid, VolumeFileInfo& out) {
    const int64_t frame = ChosenFrame(packed, choice, path);
    try {
        CheckVolumeSize(info.dims, StoredTypeBytes(packed.type));
    } catch (const std::invalid_argument& e) {
        throw InputError(path, e.what());
    }
    const uint64_t count = static_cast<uint64_t>(info.dims.x) * info.dims.y * info.dims.z;
    grid.dims = info.dims;
    grid.geometry = info.geometry;
    grid.slope = info.slope;
    grid.intercept = info.intercept;
    grid.units = info.units;
    grid.window = info.window;
    out = ChooseFrameInfo(packed, std::move(info), choice, path);
    return packed.dataOffset + static_cast<uint64_t>(frame) * count * StoredTypeBytes(packed.type);
}

}  // namespace

VoxelGrid ReadChosenFrame(const PackedFrames& packed, VolumeFileInfo info, const VolumeChoice& choice,
                          const std::string& path, VolumeFileInfo& out) {
    VoxelGrid grid;
    const uint64_t start = ChosenFrameStart(packed, std::move(info), choice, path, grid, out);
    ByteSource data(packed.dataPath);
    data.SkipTo(start, "the voxel data");
    ReadStoredVoxels(data, packed.type, static_cast<uint64_t>(grid.dims.x) * grid.dims.y * grid.dims.z,
                     packed.bigEndian, grid);
    return grid;
}

LoadedVolume ReadChosenVolume(const PackedFrames& packed, VolumeFileInfo info, const VolumeChoice& choice,
                              const std::string& path, VolumeFileInfo& out, LoadProgress* progress) {
    VoxelGrid shape;
    const uint64_t start = ChosenFrameStart(packed, std::move(info), choice, path, shape, out);
    ByteSource data(packed.dataPath);
    data.SkipTo(start, "the voxel data");
    return ReadPackedVolume(data, packed.type, packed.bigEndian, std::move(shape), progress);
}

}  // namespace zrio
