// Packed voxels (a NIfTI or MGH volume, a raw file) read straight into the
// module volume that ToModuleVolume makes of them, slice by slice, without a
// second copy of the volume in memory: 8- and 16-bit integers are widened into
// the volume's words as they arrive, their range tracked in the same pass, and
// once the range has chosen the value offset the words are offset in place.
// Other voxel types are read into a VoxelGrid and converted from there.
#pragma once

#include "byte_source.h"
#include "load_progress.h"
#include "stored_voxels.h"
#include "voxel_grid.h"

namespace zrio {

// Reads dims.x * dims.y * dims.z voxels of `type` in the given byte order from
// `source` into the volume ToModuleVolume(grid) makes of them (no forced voxel
// type), word for word. `shape` gives the dimensions, placement, scaling,
// units and window; its voxels are not used. `progress`, when given, hears how
// far the read has come. Throws InputError naming the file when it ends before
// the voxels do, std::invalid_argument as ToModuleVolume does.
LoadedVolume ReadPackedVolume(ByteSource& source, StoredType type, bool bigEndian, VoxelGrid shape,
                              LoadProgress* progress = nullptr);

}  // namespace zrio
