// Voxels as a file stores them, read straight into the grid's typed array (no
// second copy) and put into this machine's byte order.
#pragma once

#include <cstdint>
#include <string>

#include "byte_source.h"
#include "voxel_grid.h"

namespace zrio {

enum class StoredType { Int8, UInt8, Int16, UInt16, Int32, UInt32, Int64, UInt64, Float32, Float64 };

size_t StoredTypeBytes(StoredType type);
const char* StoredTypeName(StoredType type);

// Reads `count` voxels of `type` from `source` in the given byte order into
// `grid.voxels`. 64-bit integers, which the module has no type for, become
// 32-bit integers when every value fits and doubles otherwise.
void ReadStoredVoxels(ByteSource& source, StoredType type, uint64_t count, bool bigEndian, VoxelGrid& grid);

}  // namespace zrio
