// Volumes from arrays: layout with margins, placement, and input errors.
#include "host/volume_builder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <vector>

using namespace zrobjects;

TEST(VolumeBuilder, VoxelsAreAddressedThroughSlicePointersWithMargins) {
    std::vector<short> voxels(4 * 3 * 2);
    std::iota(voxels.begin(), voxels.end(), short{-5});
    VolumeGeometry geometry;
    geometry.margins = {1, 2, 3};
    auto volume = MakeVolume<short>(voxels, {4, 3, 2}, geometry);
    VolumeData& data = *volume->GetVolumeData();
    EXPECT_EQ(data.voxelType, MakeDataType<short>());
    EXPECT_EQ(data.slices.size(), 2u + 6u);
    EXPECT_EQ(data.RowPitch(), 6);
    for (int z = 0; z < 2; ++z)
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x) {
                const short* slice = static_cast<const short*>(data.slices[z + 3]);
                ASSERT_EQ(slice[(x + 1) + (y + 2) * 6], voxels[x + 4 * (y + 3 * z)]);
            }
    EXPECT_TRUE(volume->IsDefined());
}

TEST(VolumeBuilder, MarginsRepeatTheFaces) {
    std::vector<unsigned char> voxels{1, 2, 3, 4, 5, 6, 7, 8};
    auto volume = MakeVolume<unsigned char>(voxels, {2, 2, 2});
    VolumeData& data = *volume->GetVolumeData();
    EXPECT_EQ(VoxelAt<unsigned char>(data, -2, 0, 0), 1);
    EXPECT_EQ(VoxelAt<unsigned char>(data, 3, 1, 0), 4);
    EXPECT_EQ(VoxelAt<unsigned char>(data, 1, 1, 3), 8);
    EXPECT_EQ(VoxelAt<unsigned char>(data, 0, -1, -2), 1);
}

TEST(VolumeBuilder, PlacementMapsVoxelCentresToReferenceSpace) {
    std::vector<float> voxels(2 * 2 * 2, 0.0f);
    VolumeGeometry geometry;
    geometry.spacing = {0.5, 2.0, 3.0};
    geometry.origin = {10, 20, 30};
    geometry.direction = glm::dmat3(glm::dvec3(0, 1, 0), glm::dvec3(-1, 0, 0), glm::dvec3(0, 0, 1));
    auto volume = MakeVolume<float>(voxels, {2, 2, 2}, geometry);
    const glm::vec4 p = volume->GetMatrixOS2RSf() * glm::vec4(1, 1, 1, 1);
    EXPECT_NEAR(p.x, 10 - 2.0f, 1e-5);
    EXPECT_NEAR(p.y, 20 + 0.5f, 1e-5);
    EXPECT_NEAR(p.z, 30 + 3.0f, 1e-5);
    const glm::vec4 back = volume->GetMatrixRS2OSf() * p;
    EXPECT_NEAR(glm::length(glm::vec3(back) - glm::vec3(1)), 0.0f, 1e-5);
    AaBbMinMax box;
    volume->GetOrthoBoundingBox(box);
    EXPECT_EQ(box.pos_min, glm::dvec3(-0.5));
    EXPECT_EQ(box.pos_max, glm::dvec3(1.5));
    EXPECT_EQ(volume->GetVolumeData()->voxelPitch, geometry.spacing);
}

TEST(VolumeBuilder, AShearedGridKeepsItsStepAsTheThirdColumn) {
    // A 20 degree gantry tilt: slices 2.5 mm apart along z, each shifted
    // along y; the k column is the step between slice positions.
    std::vector<float> voxels(2 * 2 * 2, 0.0f);
    const double shift = 2.5 * std::tan(20.0 * 3.14159265358979 / 180.0);
    const glm::dvec3 step(0.0, shift, 2.5);
    VolumeGeometry geometry;
    geometry.spacing = {0.5, 0.5, glm::length(step)};
    geometry.origin = {-10, -8, 20};
    geometry.direction = glm::dmat3(glm::dvec3(1, 0, 0), glm::dvec3(0, 1, 0), step / glm::length(step));
    auto volume = MakeVolume<float>(voxels, {2, 2, 2}, geometry);
    const glm::mat4 m = volume->GetMatrixOS2RSf();
    EXPECT_NEAR(m[2][0], 0.0f, 1e-6);
    EXPECT_NEAR(m[2][1], shift, 1e-5);
    EXPECT_NEAR(m[2][2], 2.5f, 1e-5);
    const glm::vec4 p = m * glm::vec4(1, 1, 1, 1);
    EXPECT_NEAR(glm::length(glm::vec3(p) - glm::vec3(-9.5f, -7.5f + static_cast<float>(shift), 22.5f)), 0.0f, 1e-5);
    const glm::vec4 back = volume->GetMatrixRS2OSf() * p;
    EXPECT_NEAR(glm::length(glm::vec3(back) - glm::vec3(1)), 0.0f, 1e-5);
}

TEST(VolumeBuilder, TableDirectoryReadsMissingNamesAsNull) {
    std::vector<unsigned short> voxels(1, 0);
    auto volume = MakeVolume<unsigned short>(voxels, {1, 1, 1});
    EXPECT_EQ(volume->GetTableObject("WINDOWING"), nullptr);
    auto table = std::make_shared<ZrObject>(zrenums::EzrObjectType_Table);
    volume->SetTableObject("WINDOWING", table);
    EXPECT_EQ(volume->GetTableObject("WINDOWING"), table.get());
    EXPECT_EQ(volume->GetTableObject("windowing"), nullptr);
}

TEST(VolumeBuilderErrors, BadDimensionsCountsAndSpacingsAreRejected) {
    std::vector<unsigned char> voxels(8);
    EXPECT_THROW(MakeVolume<unsigned char>(voxels, {0, 2, 4}), std::invalid_argument);
    EXPECT_THROW(MakeVolume<unsigned char>(voxels, {-2, -2, 2}), std::invalid_argument);
    EXPECT_THROW(MakeVolume<unsigned char>(voxels, {2, 2, 3}), std::invalid_argument);
    EXPECT_THROW(MakeVolume<unsigned char>(voxels, {70000, 70000, 70000}), std::invalid_argument);
    VolumeGeometry flat;
    flat.spacing = {1.0, 0.0, 1.0};
    EXPECT_THROW(MakeVolume<unsigned char>(voxels, {2, 2, 2}, flat), std::invalid_argument);
    try {
        MakeVolume<unsigned char>(voxels, {2, 2, 3});
        FAIL();
    } catch (const std::invalid_argument& e) {
        EXPECT_NE(std::string(e.what()).find("needs 12 voxels, got 8"), std::string::npos) << e.what();
    }
}
