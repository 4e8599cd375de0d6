// Files whose volumes are packed arrays one after another (NIfTI time points,
// MGH frames): which one a request picks, and reading it into a grid.
#pragma once

#include <cstdint>
#include <string>

#include "load_progress.h"
#include "stored_voxels.h"
#include "volume_files.h"

namespace zrio {

struct PackedFrames {
    std::string dataPath;     // the file holding the voxels
    uint64_t dataOffset = 0;  // where the first frame starts (decompressed)
    StoredType type = StoredType::UInt8;
    bool bigEndian = false;
    int64_t frames = 1;
    const char* frameName = "frame";  // "time point" for NIfTI, "frame" for MGH
};

// `info` as a request with `choice` sees it: a chosen frame is checked and the
// list of frames dropped. Throws InputError naming `path` for a choice that
// does not exist ("series" names DICOM series only).
VolumeFileInfo ChooseFrameInfo(const PackedFrames& packed, VolumeFileInfo info, const VolumeChoice& choice,
                               const std::string& path);

// Reads the frame `choice` picks (the only one when there is one) into a grid
// placed and scaled as `info` says; `info` ends up in `out`.
VoxelGrid ReadChosenFrame(const PackedFrames& packed, VolumeFileInfo info, const VolumeChoice& choice,
                          const std::string& path, VolumeFileInfo& out);

// The same frame read straight into the module volume ToModuleVolume makes of
// its grid (packed_volume.h); `progress` (may be null) hears how far it is.
LoadedVolume ReadChosenVolume(const PackedFrames& packed, VolumeFileInfo info, const VolumeChoice& choice,
                              const std::string& path, VolumeFileInfo& out, LoadProgress* progress);

}  // namespace zrio
