// `zrslice info`: a short text description of a volume file, DICOM folder or
// mesh file (format, size, voxel type and placement, or mesh counts and bounds).
#pragma once

#include <string>

namespace zrio {

// Throws InputError naming the file when it cannot be read.
std::string DescribeFile(const std::string& path);

// True for file names that assimp reads as meshes (by extension).
bool IsMeshFileName(const std::string& path);

}  // namespace zrio
