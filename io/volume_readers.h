// The format readers behind ReadVoxelGrid, one per file kind. Each fills
// `info` from the header (placement rule, notes, choices, scaling) and, for
// the grid, reads the voxels of the chosen volume. Each throws InputError
// naming the file, with one line of our own, never a library's text.
#pragma once

#include <string>

#include "load_progress.h"
#include "volume_files.h"

namespace zrio {

// NIfTI-1 and NIfTI-2 (.nii, .nii.gz, .hdr/.img pairs).
bool IsNiftiFile(const std::string& path);
VolumeFileInfo ReadNiftiInfo(const std::string& path, const VolumeChoice& choice);
VoxelGrid ReadNiftiGrid(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info);
// The chosen volume read straight into a module volume (packed_volume.h).
LoadedVolume ReadNiftiVolume(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info,
                             LoadProgress* progress);

// FreeSurfer MGH (.mgh, .mgz).
bool IsMghFile(const std::string& path);
VolumeFileInfo ReadMghInfo(const std::string& path, const VolumeChoice& choice);
VoxelGrid ReadMghGrid(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info);
LoadedVolume ReadMghVolume(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info,
                           LoadProgress* progress);

// DICOM: a folder holding one or more series, or a single (multi-frame) file.
bool IsDicomInput(const std::string& path);
VolumeFileInfo ReadDicomInfo(const std::string& path, const VolumeChoice& choice);
VoxelGrid ReadDicomGrid(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info);

// NRRD and MetaImage through ITK.
VolumeFileInfo ReadItkInfo(const std::string& path, const VolumeChoice& choice);
VoxelGrid ReadItkGrid(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info);

}  // namespace zrio
