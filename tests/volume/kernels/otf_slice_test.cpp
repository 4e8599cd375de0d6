#include "volume/kernels/otf_slice.h"

#include <cmath>

#include <glm/gtc/matrix_transform.hpp>
#include <gtest/gtest.h>

#include "tests/volume/kernels/slice_fixtures.h"

namespace {

using namespace slicetest;
using zrvolume::RenderOtfSlice;
using zrvolume::SliceClipState;

constexpr uint32_t kUntouched = 0x77777777u;
constexpr uint16_t kUntouchedValue = 0x7777;

// Entry t of every row names t in c0 (low byte) and c1 (high byte), with c2 = 7
// and full opacity, so a pixel tells which entry coloured it.
uint32_t NamingEntry(int, int t) { return Entry(t & 0xff, (t >> 8) & 0xff, 7, 255); }
// The pixel such an entry gives with the default channel order: c2 in byte 0.
uint32_t NamingPixel(int t, bool inside = true) { return Bytes(7, (t >> 8) & 0xff, t & 0xff, inside ? 255 : 0); }

template <class T>
class OtfSliceTyped : public ::testing::Test {};
TYPED_TEST_SUITE(OtfSliceTyped, IntegerVoxelTypes);

// With 65536 counted entries the scaled lookup reads entry t for value t.
TYPED_TEST(OtfSliceTyped, RampSamplesAreTruncatedNotRounded) {
    auto volume = MakeVolumeFrom<TypeParam>({8, 3, 3}, [](int i, int, int) { return 3 * i; });
    auto table = MakeExactTable(1, 65536, NamingEntry);
    auto image = MakeImage(9, 2);
    // x = 1, 1.5, ..., 5: samples 3, 4.5, 6, ..., 15.
    const auto plane = LinePlane({1, 1, 1}, {5, 1, 1}, 9);
    ASSERT_TRUE(RenderOtfSlice(*volume, IdentityRecord(), *image, plane, {}, 0, 0, *table));
    for (int k = 0; k < 9; ++k) {
        const int expected = static_cast<int>(std::floor(3.0 * (1.0 + 0.5 * k)));
        EXPECT_EQ(Values(*image)[k], expected) << "pixel " << k;
        EXPECT_EQ(Colours(*image)[k], NamingPixel(expected)) << "pixel " << k;
        EXPECT_EQ(Colours(*image)[9 + k], Colours(*image)[k]) << "second row, pixel " << k;
    }
}

template <class T>
class OtfSliceSigned : public ::testing::Test {};
TYPED_TEST_SUITE(OtfSliceSigned, SignedVoxelTypes);

TYPED_TEST(OtfSliceSigned, NegativeSamplesTruncateTowardZeroAndWrap) {
    // Voxels 0, -1, -2, ...: x = 0.7 samples -0.7, x = 1.2 samples -1.2.
    auto volume = MakeVolumeFrom<TypeParam>({4, 2, 2}, [](int i, int, int) { return -i; });
    auto table = MakeExactTable(1, 4096, NamingEntry);
    auto image = MakeImage(2, 2);
    const auto plane = LinePlane({0.7f, 0, 0}, {1.2f, 0, 0}, 2);
    ASSERT_TRUE(RenderOtfSlice(*volume, IdentityRecord(), *image, plane, {}, 0, 0, *table));
    EXPECT_EQ(Values(*image)[0], 0);
    EXPECT_EQ(Colours(*image)[0], NamingPixel(0));
    // -1 is stored as 65535, whose scaled index is L itself, one past the
    // counted entries, unclamped.
    EXPECT_EQ(Values(*image)[1], 65535);
    EXPECT_EQ(Colours(*image)[1], NamingPixel(4096));
}

TYPED_TEST(OtfSliceTyped, OutsideTheVolumeShowsEntryZeroWithoutCoverage) {
    auto volume = MakeVolumeFrom<TypeParam>({4, 3, 3}, [](int, int, int) { return 9; });
    auto table = MakeExactTable(1, 65536, NamingEntry);
    auto image = MakeImage(5, 2);
    Fill(*image, kUntouched, kUntouchedValue);
    // x = -3 ... 1: the first three lie outside (x > -0.5 fails).
    ASSERT_TRUE(RenderOtfSlice(*volume, IdentityRecord(), *image, LinePlane({-3, 1, 1}, {1, 1, 1}, 5), {}, 0, 0,
                               *table));
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(Colours(*image)[k], NamingPixel(0, false)) << k;
        EXPECT_EQ(Values(*image)[k], 0) << k;
    }
    for (int k = 3; k < 5; ++k) {
        EXPECT_EQ(Colours(*image)[k], NamingPixel(9)) << k;
        EXPECT_EQ(Values(*image)[k], 9) << k;
    }
}

// Positions within half a voxel of a face read the face voxels (clamped
// neighbours), on x and on z; the margins keep those reads in storage.
TYPED_TEST(OtfSliceTyped, SamplesAtTheFacesClampToTheFaceVoxels) {
    auto volume = MakeVolumeFrom<TypeParam>({3, 3, 4}, [](int i, int, int k) { return 40 * i + 5 * k + 2; });
    auto table = MakeExactTable(1, 65536, NamingEntry);
    auto image = MakeImage(9, 2);
    // x = -0.25 (before the first voxel centre); z from -0.25 to 3.25 in steps
    // of 0.4375, all exact in binary.
    const auto plane = LinePlane({-0.25f, 1, -0.25f}, {-0.25f, 1, 3.25f}, 9);
    ASSERT_TRUE(RenderOtfSlice(*volume, IdentityRecord(), *image, plane, {}, 0, 0, *table));
    for (int k = 0; k < 9; ++k) {
        const double z = std::clamp(-0.25 + 0.4375 * k, 0.0, 3.0);
        EXPECT_EQ(Values(*image)[k], static_cast<int>(5.0 * z + 2.0)) << "z index " << k;
    }
}

TYPED_TEST(OtfSliceTyped, IdenticalAtOneAndTwoThreads) {
    auto volume = MakeVolumeFrom<TypeParam>({20, 17, 9}, [](int i, int j, int k) { return (i * 7 + j * 13 + k * 29) % 97; });
    auto table = MakeExactTable(1, 4096, NamingEntry);
    auto image = MakeImage(37, 23);
    const auto plane = PlaneFromCorners({-1, 0.3f, 0.2f}, {19.5f, 3, 8.1f}, {0.5f, 16, 1}, {21, 18, 9}, 37, 23);
    auto [one, two] = RenderAtOneAndTwoThreads(
        *image, [&] { RenderOtfSlice(*volume, IdentityRecord(), *image, plane, {}, 0, 0, *table); });
    EXPECT_EQ(one, two);
}

class OtfSliceLookup : public ::testing::Test {
protected:
    std::shared_ptr<zrobjects::ZrIObject> image = MakeImage(2, 2);
    zrvolume::SlicePlane plane = LinePlane({1, 1, 1}, {1, 1, 1}, 2);

    uint32_t RenderConstant(unsigned short value, const std::shared_ptr<zrobjects::ZrObject>& table) {
        auto volume = MakeVolumeFrom<unsigned short>({3, 3, 3}, [&](int, int, int) { return value; });
        EXPECT_TRUE(RenderOtfSlice(*volume, IdentityRecord(), *image, plane, {}, 0, 0, *table));
        return Colours(*image)[0];
    }
};

TEST_F(OtfSliceLookup, LargestValueReadsIndexLOnePastTheCountedEntries) {
    EXPECT_EQ(RenderConstant(65535, MakeExactTable(1, 300, NamingEntry)), NamingPixel(300));
    EXPECT_EQ(Values(*image)[0], 65535);
    EXPECT_EQ(RenderConstant(0, MakeExactTable(1, 300, NamingEntry)), NamingPixel(0));
}

TEST_F(OtfSliceLookup, ScalesByTheRowLengthBeforeTheFactor) {
    // For 49468 and 3000 counted entries the two multiplication orders pick
    // neighbouring entries: length first gives 2265, factor first 2264.
    EXPECT_EQ(RenderConstant(49468, MakeExactTable(1, 3000, NamingEntry)), NamingPixel(2265));
}

TEST_F(OtfSliceLookup, ColourIsPremultipliedByOpacityAndCoverageIsSeparate) {
    auto transparent = MakeExactTable(1, 16, [](int, int) { return Entry(200, 150, 100, 0); });
    EXPECT_EQ(RenderConstant(5, transparent), Bytes(0, 0, 0, 255));
    // Opacity 128 of 255 halves (and truncates) every channel.
    auto half = MakeExactTable(1, 16, [](int, int) { return Entry(200, 150, 100, 128); });
    EXPECT_EQ(RenderConstant(5, half), Bytes(100 * 128 / 255, 150 * 128 / 255, 200 * 128 / 255, 255));
}

TEST_F(OtfSliceLookup, ChannelOrderSwitchSwapsBytesZeroAndTwo) {
    auto red = MakeExactTable(1, 16, [](int, int) { return Entry(255, 0, 0, 255); });
    EXPECT_EQ(RenderConstant(5, red), Bytes(0, 0, 255, 255));
    ChannelSwitch on(zrvolume::ChannelOrderFamily::OtfSlice, true);
    EXPECT_EQ(RenderConstant(5, red), Bytes(255, 0, 0, 255));
    // Only this family's switch counts.
    ChannelSwitch other(zrvolume::ChannelOrderFamily::MaskedOtfSlice, false);
    EXPECT_EQ(RenderConstant(5, red), Bytes(255, 0, 0, 255));
}

class OtfSliceClipping : public ::testing::Test {
protected:
    std::shared_ptr<zrobjects::ZrVObjectVolume> volume =
        MakeVolumeFrom<unsigned short>({8, 3, 3}, [](int i, int, int) { return 10 + i; });
    std::shared_ptr<zrobjects::ZrObject> table = MakeExactTable(1, 65536, NamingEntry);
    std::shared_ptr<zrobjects::ZrIObject> image = MakeImage(7, 2);
    zrvolume::SlicePlane plane = LinePlane({0, 1, 1}, {6, 1, 1}, 7);  // x = 0 ... 6

    void ExpectDrawnExactly(const std::vector<bool>& drawn) {
        for (int x = 0; x < 7; ++x) {
            if (drawn[x]) {
                EXPECT_EQ(Colours(*image)[x], NamingPixel(10 + x)) << x;
                EXPECT_EQ(Values(*image)[x], 10 + x) << x;
            } else {
                EXPECT_EQ(Colours(*image)[x], kUntouched) << x;
                EXPECT_EQ(Values(*image)[x], kUntouchedValue) << x;
            }
        }
    }
};

TEST_F(OtfSliceClipping, PixelsBeyondTheClipPlaneKeepTheirValues) {
    Fill(*image, kUntouched, kUntouchedValue);
    SliceClipState clip;
    clip.clipPlane = true;
    clip.planePoint = {3, 0, 0};
    clip.planeNormal = {1, 0, 0};
    ASSERT_TRUE(RenderOtfSlice(*volume, IdentityRecord(), *image, plane, clip, 0, 0, *table));
    ExpectDrawnExactly({true, true, true, true, false, false, false});  // on the plane is kept
}

TEST_F(OtfSliceClipping, PixelsOutsideTheClipBoxKeepTheirValuesAndFacesCountAsInside) {
    Fill(*image, kUntouched, kUntouchedValue);
    SliceClipState clip;
    clip.clipBox = true;
    // Box of size 2 along x centred on x = 2: faces at x = 1 and x = 3.
    clip.boxMatrix = zrvolume::ToMatrixRecord(glm::scale(glm::mat4(1.0f), glm::vec3(0.5f, 0.1f, 0.1f)) *
                                              glm::translate(glm::mat4(1.0f), glm::vec3(-2, -1, -1)));
    ASSERT_TRUE(RenderOtfSlice(*volume, IdentityRecord(), *image, plane, clip, 0, 0, *table));
    ExpectDrawnExactly({false, true, true, true, false, false, false});
}

TEST_F(OtfSliceClipping, NegativeValueIndexLeavesTheValueBufferAlone) {
    Fill(*image, kUntouched, kUntouchedValue);
    ASSERT_TRUE(RenderOtfSlice(*volume, IdentityRecord(), *image, plane, {}, 0, -1, *table));
    EXPECT_EQ(Colours(*image)[2], NamingPixel(12));
    EXPECT_EQ(Values(*image)[2], kUntouchedValue);
}

TEST(OtfSliceGeometry, OnePixelImageIsWrittenAsOutside) {
    auto volume = MakeVolumeFrom<unsigned short>({3, 3, 3}, [](int, int, int) { return 5; });
    auto table = MakeExactTable(1, 65536, NamingEntry);
    auto image = MakeImage(1, 1);
    Fill(*image, kUntouched, kUntouchedValue);
    const auto plane = PlaneFromCorners({1, 1, 1}, {1, 1, 1}, {1, 1, 1}, {1, 1, 1}, 1, 1);
    ASSERT_TRUE(RenderOtfSlice(*volume, IdentityRecord(), *image, plane, {}, 0, 0, *table));
    EXPECT_EQ(Colours(*image)[0], NamingPixel(0, false));
    EXPECT_EQ(Values(*image)[0], 0);
}

// An oblique section through a linear ramp, where trilinear sampling is exact:
// each value must match the ramp at the pixel's position computed
// independently from the camera's pixel layout and the volume placement.
TEST(OtfSliceGeometry, ObliqueSectionOfARampMatchesTheAnalyticRamp) {
    const glm::dvec3 spacing(0.5, 0.6, 0.8);
    zrobjects::VolumeGeometry geometry;
    geometry.spacing = spacing;
    const glm::ivec3 dims(24, 22, 16);
    const auto ramp = [](glm::dvec3 p) { return 20.0 * p.x + 30.0 * p.y + 40.0 * p.z + 100.0; };
    auto volume =
        MakeVolumeFrom<unsigned short>(dims, [&](int i, int j, int k) { return ramp(glm::dvec3(i, j, k)); }, geometry);
    auto table = MakeExactTable(1, 65536, NamingEntry);

    zrobjects::SectionView view;
    view.centre = glm::dvec3(dims - 1) * spacing * 0.5;
    view.viewDirection = glm::dvec3(0.3, -0.5, 0.8);
    view.up = glm::dvec3(0.2, -1.0, 0.1);
    view.pixelSpacing = glm::dvec2(0.37, 0.41);
    view.size = glm::ivec2(33, 29);
    auto image = zrobjects::MakeSectionImage(view);
    image->InsertFrameBuffer(zrobjects::MakeDataType<zrobjects::color4>(), 1, "out");
    image->InsertFrameBuffer(zrobjects::MakeDataType<unsigned short>(), 3, "values");
    const auto plane = CameraPlane(*image);
    const auto planeToVoxel = zrvolume::ToMatrixRecord(volume->GetMatrixRS2OSf());
    ASSERT_TRUE(RenderOtfSlice(*volume, planeToVoxel, *image, plane, {}, 0, 0, *table));

    const auto* camera = image->GetCameraObject();
    int checked = 0;
    for (int r = 0; r < view.size.y; ++r) {
        for (int c = 0; c < view.size.x; ++c) {
            const glm::dvec3 world = view.centre + (c - 0.5 * (view.size.x - 1)) * view.pixelSpacing.x * camera->RightAxis() +
                                     (r - 0.5 * (view.size.y - 1)) * view.pixelSpacing.y * camera->DownAxis();
            const glm::dvec3 voxel = world / spacing;
            const int index = r * view.size.x + c;
            const uint32_t coverage = Colours(*image)[index] >> 24;
            // Coverage, away from the faces where rounding could decide.
            const glm::dvec3 upper = glm::dvec3(dims) - 0.5;
            const bool clearlyInside = glm::all(glm::greaterThan(voxel, glm::dvec3(-0.49))) &&
                                       glm::all(glm::lessThan(voxel, upper - 0.01));
            const bool clearlyOutside = glm::any(glm::lessThan(voxel, glm::dvec3(-0.51))) ||
                                        glm::any(glm::greaterThan(voxel, upper + 0.01));
            if (clearlyInside) {
                EXPECT_EQ(coverage, 255u) << c << ", " << r;
            }
            if (clearlyOutside) {
                EXPECT_EQ(coverage, 0u) << c << ", " << r;
            }
            // Values where no neighbour is clamped, so the ramp is exact.
            if (glm::all(glm::greaterThanEqual(voxel, glm::dvec3(0.0))) &&
                glm::all(glm::lessThanEqual(voxel, glm::dvec3(dims - 1)))) {
                const double expected = ramp(voxel);
                const int value = Values(*image)[index];
                EXPECT_LE(value, expected + 0.01) << c << ", " << r;
                EXPECT_GT(value, expected - 1.01) << c << ", " << r;
                ++checked;
            }
        }
    }
    EXPECT_GT(checked, 300);  // the section really crosses the volume
}

TEST(OtfSliceErrors, UnsupportedVoxelTypesDrawNothing) {
    auto table = MakeExactTable(1, 16, NamingEntry);
    auto image = MakeImage(3, 2);
    Fill(*image, kUntouched, kUntouchedValue);
    const auto plane = LinePlane({0, 1, 1}, {2, 1, 1}, 3);
    auto floats = MakeVolumeFrom<float>({3, 3, 3}, [](int, int, int) { return 1.0f; });
    auto ints = MakeVolumeFrom<int>({3, 3, 3}, [](int, int, int) { return 1; });
    EXPECT_FALSE(RenderOtfSlice(*floats, IdentityRecord(), *image, plane, {}, 0, 0, *table));
    EXPECT_FALSE(RenderOtfSlice(*ints, IdentityRecord(), *image, plane, {}, 0, 0, *table));
    EXPECT_EQ(Colours(*image)[0], kUntouched);
    EXPECT_EQ(Values(*image)[0], kUntouchedValue);
}

TEST(OtfSliceErrors, MistypedTableThrowsBeforeDrawing) {
    auto volume = MakeVolumeFrom<unsigned short>({3, 3, 3}, [](int, int, int) { return 1; });
    auto owner = std::make_shared<zrobjects::ZrObject>(zrenums::EzrObjectType_Table);
    owner->SetObjParam("_TableMap_OTF", 42);
    auto image = MakeImage(3, 2);
    Fill(*image, kUntouched, kUntouchedValue);
    EXPECT_THROW(RenderOtfSlice(*volume, IdentityRecord(), *image, LinePlane({0, 1, 1}, {2, 1, 1}, 3), {}, 0, 0, *owner),
                 std::bad_any_cast);
    EXPECT_EQ(Colours(*image)[0], kUntouched);
}

}  // namespace
