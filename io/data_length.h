// NRRD and MetaImage files keep uncompressed voxels after a text header or in
// a file of their own. The toolkit reading them pads a short file with
// whatever memory held, so the length is checked here, from the header,
// before the voxels are read.
#pragma once

#include <cstdint>
#include <string>

namespace zrio {

// Throws InputError naming the file that holds too few bytes for
// `voxelBytes` of uncompressed voxel data. Compressed data and headers this
// check does not understand are left to the reader.
void CheckNrrdDataLength(const std::string& path, uint64_t voxelBytes);
void CheckMetaImageDataLength(const std::string& path, uint64_t voxelBytes);

}  // namespace zrio
