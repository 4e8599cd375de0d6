// `zrslice info`: a short text description of a volume file, DICOM folder or
// mesh file (format, size, voxel type and placement, or mesh counts and bounds).
#pragma once

#include <string>

#include "volume_files.h"

namespace zrio {

// `choice` picks one volume of a file or folder that holds several; without
// one, such an input is described by the list of its volumes and how to pick
// each. Throws InputError naming the file when it cannot be read.
std::string DescribeFile(const std::string& path, const VolumeChoice& choice = {});


}  // namespace zrio
