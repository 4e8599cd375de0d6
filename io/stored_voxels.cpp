#include "stored_voxels.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <stdexcept>
#include <utility>
#include <vector>

#include "input_error.h"

namespace zrio {

namespace {

template <class T>
std::vector<T> ReadArray(ByteSource& source, uint64_t count, bool bigEndian) {
    std::vector<T> voxels(static_cast<size_t>(count));
    source.ReadExactly(voxels.data(), count * sizeof(T), "the voxel data");
    if (sizeof(T) > 1 && bigEndian != (std::endian::native == std::endian::big))
        SwapBytes(voxels.data(), count, sizeof(T));
    return voxels;
}

template <class T>
std::vector<T> CopyArray(const void* data, uint64_t count) {
    const T* first = static_cast<const T*>(data);
    return std::vector<T>(first, first + count);
}

template <class T>
void NarrowWideIntegers(std::vector<T> wide, VoxelGrid& grid) {
    const bool fits = std::all_of(wide.begin(), wide.end(), [](T v) {
        return std::cmp_greater_equal(v, std::numeric_limits<int32_t>::min()) &&
               std::cmp_less_equal(v, std::numeric_limits<int32_t>::max());
    });
    if (fits) {
        grid.voxels = std::vector<int32_t>(wide.begin(), wide.end());
        return;
    }
    std::vector<double> values(wide.size());
    std::transform(wide.begin(), wide.end(), values.begin(), [](T v) { return static_cast<double>(v); });
    grid.voxels = std::move(values);
}

}  // namespace

size_t StoredTypeBytes(StoredType type) {
    switch (type) {
        case StoredType::Int8:
        case StoredType::UInt8: return 1;
        case StoredType::Int16:
        case StoredType::UInt16: return 2;
        case StoredType::Int32:
        case StoredType::UInt32:
        case StoredType::Float32: return 4;
        case StoredType::Int64:
        case StoredType::UInt64:
        case StoredType::Float64: return 8;
    }
    return 1;
}

const char* StoredTypeName(StoredType type) {
    switch (type) {
        case StoredType::Int8: return "int8";
        case StoredType::UInt8: return "uint8";
        case StoredType::Int16: return "int16";
        case StoredType::UInt16: return "uint16";
        case StoredType::Int32: return "int32";
        case StoredType::UInt32: return "uint32";
        case StoredType::Int64: return "int64";
        case StoredType::UInt64: return "uint64";
        case StoredType::Float32: return "float32";
        case StoredType::Float64: return "float64";
    }
    return "?";
}

StoredType ParseStoredType(const std::string& text) {
    for (StoredType type : {StoredType::Int8, StoredType::UInt8, StoredType::Int16, StoredType::UInt16,
                            StoredType::Int32, StoredType::UInt32, StoredType::Int64, StoredType::UInt64,
                            StoredType::Float32, StoredType::Float64})
        if (text == StoredTypeName(type)) return type;
    if (text == "float") return StoredType::Float32;
    throw std::invalid_argument("unknown voxel type \"" + text +
                                "\" (int8, uint8, int16, uint16, int32, uint32, int64, uint64, float32 or float64)");
}

void ReadStoredVoxels(ByteSource& source, StoredType type, uint64_t count, bool bigEndian, VoxelGrid& grid) {
    switch (type) {
        case StoredType::Int8: grid.voxels = ReadArray<int8_t>(source, count, bigEndian); break;
        case StoredType::UInt8: grid.voxels = ReadArray<uint8_t>(source, count, bigEndian); break;
        case StoredType::Int16: grid.voxels = ReadArray<int16_t>(source, count, bigEndian); break;
        case StoredType::UInt16: grid.voxels = ReadArray<uint16_t>(source, count, bigEndian); break;
        case StoredType::Int32: grid.voxels = ReadArray<int32_t>(source, count, bigEndian); break;
        case StoredType::UInt32: grid.voxels = ReadArray<uint32_t>(source, count, bigEndian); break;
        case StoredType::Int64: NarrowWideIntegers(ReadArray<int64_t>(source, count, bigEndian), grid); break;
        case StoredType::UInt64: NarrowWideIntegers(ReadArray<uint64_t>(source, count, bigEndian), grid); break;
        case StoredType::Float32: grid.voxels = ReadArray<float>(source, count, bigEndian); break;
        case StoredType::Float64: grid.voxels = ReadArray<double>(source, count, bigEndian); break;
    }
}

void CopyStoredVoxels(const void* data, StoredType type, uint64_t count, VoxelGrid& grid) {
    switch (type) {
        case StoredType::Int8: grid.voxels = CopyArray<int8_t>(data, count); break;
        case StoredType::UInt8: grid.voxels = CopyArray<uint8_t>(data, count); break;
        case StoredType::Int16: grid.voxels = CopyArray<int16_t>(data, count); break;
        case StoredType::UInt16: grid.voxels = CopyArray<uint16_t>(data, count); break;
        case StoredType::Int32: grid.voxels = CopyArray<int32_t>(data, count); break;
        case StoredType::UInt32: grid.voxels = CopyArray<uint32_t>(data, count); break;
        case StoredType::Int64: NarrowWideIntegers(CopyArray<int64_t>(data, count), grid); break;
        case StoredType::UInt64: NarrowWideIntegers(CopyArray<uint64_t>(data, count), grid); break;
        case StoredType::Float32: grid.voxels = CopyArray<float>(data, count); break;
        case StoredType::Float64: grid.voxels = CopyArray<double>(data, count); break;
    }
}

}  // namespace zrio
