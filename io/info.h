// `zrslice info`: a short text description of a volume file, DICOM folder or
// mesh file (format, size, voxel type and placement, or mesh counts and bounds).
#pragma once

#include <string>

#include "volume_files.h"

namespace zrio {

// Throws InputError naming the file when it cannot be read. A file holding
// several volumes (DICOM series, time points) and no `choice` is described
// from its headers, with the list of what a request may pick.
std::string DescribeFile(const std::string& path, const VolumeChoice& choice = {});

}  // namespace zrio
