// Packed voxels read straight into the module volume: every stored word, the
// margins included, must be what converting the whole grid at once gives
// (ToModuleVolume), for every 8- and 16-bit type, byte order and scaling, and
// across the slices the reader reads one at a time.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "io/byte_source.h"
#include "io/input_error.h"
#include "io/packed_volume.h"
#include "io/stored_voxels.h"
#include "io/voxel_grid.h"
#include "tests/io/file_test_support.h"

namespace zrio {
namespace {

using testing::ScratchFolder;

constexpr glm::ivec3 kDims{5, 3, 4};
constexpr int kCount = kDims.x * kDims.y * kDims.z;

// The stored values: a ramp from `first` in steps of `step` (wrapping in T),
// so that every slice holds different values.
template <class T>
std::vector<T> Ramp(int first, int step) {
    std::vector<T> values(kCount);
    for (int k = 0; k < kCount; ++k) values[k] = static_cast<T>(first + k * step);
    return values;
}

template <class T>
std::vector<char> FileBytes(const std::vector<T>& values, bool bigEndian) {
    std::vector<char> bytes(values.size() * sizeof(T));
    std::memcpy(bytes.data(), values.data(), bytes.size());
    if (bigEndian) SwapBytes(bytes.data(), values.size(), sizeof(T));
    return bytes;
}

VoxelGrid Shape(double slope, double intercept) {
    VoxelGrid shape;
    shape.dims = kDims;
    shape.geometry.spacing = {0.5, 0.75, 2.0};
    shape.slope = slope;
    shape.intercept = intercept;
    shape.units = "HU";
    return shape;
}

std::vector<unsigned char> StoredBytes(const LoadedVolume& loaded) {
    const zrobjects::VolumeData& data = *loaded.volume->GetVolumeData();
    const size_t bytes = static_cast<size_t>(data.RowPitch()) * (data.dims.y + 2 * data.margins.y) *
                         (data.dims.z + 2 * data.margins.z) * data.voxelType.size;
    const auto* first = reinterpret_cast<const unsigned char*>(data.storage.get());
    return {first, first + bytes};
}

// Reads `values` written to a file in the given byte order both ways and
// compares the volumes; returns the one read straight.
template <class T>
LoadedVolume ExpectSameAsWholeGrid(StoredType type, const std::vector<T>& values, bool bigEndian, double slope,
                                   double intercept) {
    ScratchFolder dir("packed_volume");
    const std::string path = dir / "voxels.raw";
    testing::WriteBytes(path, FileBytes(values, bigEndian));

    VoxelGrid grid = Shape(slope, intercept);
    {
        ByteSource source(path, ByteSource::Compression::None);
        ReadStoredVoxels(source, type, kCount, bigEndian, grid);
    }
    const LoadedVolume whole = ToModuleVolume(std::move(grid));
    ByteSource source(path, ByteSource::Compression::None);
    LoadedVolume straight = ReadPackedVolume(source, type, bigEndian, Shape(slope, intercept));

    const std::string what = std::string(StoredTypeName(type)) + (bigEndian ? " big-endian" : "") + ", slope " +
                             std::to_string(slope) + ", intercept " + std::to_string(intercept);
    EXPECT_EQ(straight.volume->GetVolumeData()->voxelType, whole.volume->GetVolumeData()->voxelType) << what;
    EXPECT_EQ(StoredBytes(straight), StoredBytes(whole)) << what;
    EXPECT_EQ(straight.values.offset, whole.values.offset) << what;
    EXPECT_EQ(straight.values.isFloat, whole.values.isFloat) << what;
    EXPECT_EQ(straight.values.min, whole.values.min) << what;
    EXPECT_EQ(straight.values.max, whole.values.max) << what;
    EXPECT_EQ(straight.values.units, "HU") << what;
    return straight;
}

// Integral scalings keep 16-bit words with an offset; the others (and ranges
// too wide for 16 bits) become float values.
const std::vector<std::pair<double, double>> kScalings = {
    {1.0, 0.0}, {1.0, -1024.0}, {2.0, 0.0}, {-1.0, 0.0}, {0.5, 0.25}, {3.0, 10000.0}};

template <class T>
void ExpectEveryScalingAndOrder(StoredType type, const std::vector<std::vector<T>>& ramps) {
    for (const auto& values : ramps)
        for (const auto& [slope, intercept] : kScalings)
            for (const bool bigEndian : {false, true}) ExpectSameAsWholeGrid(type, values, bigEndian, slope, intercept);
}

TEST(PackedVolume, SignedWordsMatchTheWholeGridConversion) {
    // Non-negative (offset 0), down to -7 (1024) and down to -30000 (32768).
    ExpectEveryScalingAndOrder<int16_t>(StoredType::Int16, {Ramp<int16_t>(3, 61), Ramp<int16_t>(-7, 3),
                                                            Ramp<int16_t>(-30000, 1000)});
    ExpectEveryScalingAndOrder<int8_t>(StoredType::Int8, {Ramp<int8_t>(0, 2), Ramp<int8_t>(-128, 4)});
}

TEST(PackedVolume, UnsignedWordsMatchTheWholeGridConversion) {
    ExpectEveryScalingAndOrder<uint16_t>(StoredType::UInt16, {Ramp<uint16_t>(0, 1000), Ramp<uint16_t>(65535, -1)});
    ExpectEveryScalingAndOrder<uint8_t>(StoredType::UInt8, {Ramp<uint8_t>(0, 4), Ramp<uint8_t>(255, -3)});
}

TEST(PackedVolume, WiderTypesMatchTheWholeGridConversion) {
    ExpectSameAsWholeGrid<int32_t>(StoredType::Int32, Ramp<int32_t>(-100000, 7919), false, 1.0, 0.0);
    ExpectSameAsWholeGrid<float>(StoredType::Float32, Ramp<float>(-5, 3), true, 1.0, 0.0);
}

TEST(PackedVolume, WordsHoldValuePlusOffset) {
    // Hand-worked: int16 values -7, -4, ... take offset 1024; voxel k holds
    // -7 + 3k + 1024, and the margins repeat the faces.
    const LoadedVolume loaded = ExpectSameAsWholeGrid(StoredType::Int16, Ramp<int16_t>(-7, 3), false, 1.0, 0.0);
    zrobjects::VolumeData& data = *loaded.volume->GetVolumeData();
    ASSERT_EQ(data.voxelType, zrobjects::MakeDataType<unsigned short>());
    EXPECT_EQ(loaded.values.offset, 1024);
    EXPECT_EQ(loaded.values.min, -7);
    EXPECT_EQ(loaded.values.max, -7 + 3 * (kCount - 1));
    for (int z = 0; z < kDims.z; ++z)
        for (int y = 0; y < kDims.y; ++y)
            for (int x = 0; x < kDims.x; ++x)
                EXPECT_EQ(zrobjects::VoxelAt<unsigned short>(data, x, y, z), 1017 + 3 * ((z * kDims.y + y) * kDims.x + x));
    EXPECT_EQ(zrobjects::VoxelAt<unsigned short>(data, -2, -2, -2), 1017);
    EXPECT_EQ(zrobjects::VoxelAt<unsigned short>(data, kDims.x + 1, kDims.y + 1, kDims.z + 1), 1017 + 3 * (kCount - 1));

    // Scaled by 2 with intercept -1024 (a CT): stored 600 is 176 HU, word 1200.
    const LoadedVolume ct = ExpectSameAsWholeGrid(StoredType::UInt16, Ramp<uint16_t>(600, 1), false, 2.0, -1024.0);
    EXPECT_EQ(ct.values.offset, 0);
    EXPECT_EQ(zrobjects::VoxelAt<unsigned short>(*ct.volume->GetVolumeData(), 0, 0, 0), 176);
    EXPECT_EQ(ct.values.min, 176);
}

TEST(PackedVolume, AFileEndingInALaterSliceIsReportedForTheWholeVolume) {
    ScratchFolder dir("packed_volume_short");
    const std::string path = dir / "short.raw";
    std::vector<char> bytes = FileBytes(Ramp<int16_t>(0, 1), false);
    bytes.resize(bytes.size() - 9);
    testing::WriteBytes(path, bytes);
    ByteSource source(path, ByteSource::Compression::None);
    try {
        ReadPackedVolume(source, StoredType::Int16, false, Shape(1.0, 0.0));
        ADD_FAILURE() << "a short file was read";
    } catch (const InputError& e) {
        EXPECT_EQ(std::string(e.what()), "is truncated: the voxel data needs " + std::to_string(kCount * 2) +
                                             " bytes from offset 0, the file holds " +
                                             std::to_string(kCount * 2 - 9) + " bytes there");
    }
}

}  // namespace
}  // namespace zrio
