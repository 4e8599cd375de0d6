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
// The type named "int8", "uint8", ... "float64" (StoredTypeName's names, and
// "float" for float32); throws std::invalid_argument naming the text otherwise.
StoredType ParseStoredType(const std::string& text);

// Reads `count` voxels of `type` from `source` in the given byte order into
// `grid.voxels`. 64-bit integers, which the module has no type for, become
// 32-bit integers when every value fits and doubles otherwise.
void ReadStoredVoxels(ByteSource& source, StoredType type, uint64_t count, bool bigEndian, VoxelGrid& grid);

// The same from memory in this machine's byte order (a program's own array):
// the grid holds exactly what a raw file of these bytes would give it.
void CopyStoredVoxels(const void* data, StoredType type, uint64_t count, VoxelGrid& grid);

}  // namespace zrio
