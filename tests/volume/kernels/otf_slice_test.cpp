#include "volume/kernels/otf_slice.h"

#include <cmath>

#include <glm/gtc/matrix_transform.hpp>
#include <gtest/gtest.h>

#include "tests/volume/kernels/slice_fixtures.h"

// The thin slice's agreement at one and two threads is checked, byte for byte
// against its scalar form, in lane_identity_test.cpp.
namespace {

using namespace slicetest;
using zrcommon::SliceClipState;
using zrvolume::RenderOtfSlice;

// Entry t of every row names t in c0 (low byte) and c1 (high byte), with c2 = 7
// and full opacity, so a pixel tells which entry coloured it.
uint32_t NamingEntry(int, int t) { return Entry(t & 0xff, (t >> 8) & 0xff, 7, 255); }
// The pixel such an entry gives with the default channel order: c2 in byte 0.
uint32_t NamingPixel(int t, bool inside = true) { return Bytes(7, (t >> 8) & 0xff, t & 0xff, inside ? 255 : 0); }

// Draws along `plane` through `volume` with a naming table of `counted` entries
// into a `w` x 2 image filled with the untouched pattern.
std::shared_ptr<zrobjects::ZrIObject> Draw(zrobjects::ZrVObjectVolume& volume,
                                           const zrvolume::SlicePlane& plane, int counted = 65536,
                                           const SliceClipState& clip = {}, int valueIndex = 0) {
    auto table = MakeExactTable(1, counted, NamingEntry);
    auto image = MakeImage(plane.width, plane.height);
    Fill(*image);
    EXPECT_TRUE(RenderOtfSlice(volume, IdentityRecord(), *image, plane, clip, 0, valueIndex, *table));
    return image;
}

template <class T>
class OtfSliceTyped : public ::testing::Test {};
TYPED_TEST_SUITE(OtfSliceTyped, IntegerVoxelTypes);

// With 65536 counted entries the scaled lookup reads entry t for value t.
TYPED_TEST(OtfSliceTyped, RampSamplesAreTruncatedNotRounded) {
    auto volume = MakeVolumeFrom<TypeParam>({8, 3, 3}, [](int i, int, int) { return 3 * i; });
    // x = 1, 1.5, ..., 5: samples 3, 4.5, 6, ..., 15.
    auto image = Draw(*volume, LinePlane({1, 1, 1}, {5, 1, 1}, 9));
    for (int k = 0; k < 9; ++k) {
        const int expected = static_cast<int>(std::floor(3.0 * (1.0 + 0.5 * k)));
        EXPECT_EQ(Values(*image)[k], expected) << "pixel " << k;
        EXPECT_EQ(Colours(*image)[k], NamingPixel(expected)) << "pixel " << k;
        EXPECT_EQ(Colours(*image)[9 + k], Colours(*image)[k]) << "second row, pixel " << k;
    }
}

TYPED_TEST(OtfSliceTyped, OutsideTheVolumeShowsEntryZeroWithoutCoverage) {
    auto volume = MakeVolumeFrom<TypeParam>({4, 3, 3}, [](int, int, int) { return 9; });
    // x = -3 ... 1: the first three lie outside (x > -0.5 fails).
    auto image = Draw(*volume, LinePlane({-3, 1, 1}, {1, 1, 1}, 5));
    for (int k = 0; k < 5; ++k) {
        EXPECT_EQ(Colours(*image)[k], k < 3 ? NamingPixel(0, false) : NamingPixel(9)) << k;
        EXPECT_EQ(Values(*image)[k], k < 3 ? 0 : 9) << k;
    }
}

// Positions within half a voxel of a face read the face voxels (clamped
// neighbours), on x and on z; the margins keep those reads in storage.
TYPED_TEST(OtfSliceTyped, SamplesAtTheFacesClampToTheFaceVoxels) {
    auto volume = MakeVolumeFrom<TypeParam>({3, 3, 4}, [](int i, int, int k) { return 40 * i + 5 * k + 2; });
    // x = -0.25 (before the first voxel centre); z from -0.25 to 3.25 in steps
    // of 0.4375, all exact in binary.
    auto image = Draw(*volume, LinePlane({-0.25f, 1, -0.25f}, {-0.25f, 1, 3.25f}, 9));
    for (int k = 0; k < 9; ++k)
        EXPECT_EQ(Values(*image)[k], static_cast<int>(5.0 * std::clamp(-0.25 + 0.4375 * k, 0.0, 3.0) + 2.0))
            << k;
}

template <class T>
class OtfSliceSigned : public ::testing::Test {};
TYPED_TEST_SUITE(OtfSliceSigned, SignedVoxelTypes);

TYPED_TEST(OtfSliceSigned, NegativeSamplesTruncateTowardZeroAndWrap) {
    // Voxels 0, -1, -2, ...: x = 0.7 samples -0.7, x = 1.2 samples -1.2.
    auto volume = MakeVolumeFrom<TypeParam>({4, 2, 2}, [](int i, int, int) { return -i; });
    auto image = Draw(*volume, LinePlane({0.7f, 0, 0}, {1.2f, 0, 0}, 2), 4096);
    EXPECT_EQ(Values(*image)[0], 0);
    EXPECT_EQ(Colours(*image)[0], NamingPixel(0));
    // -1 is stored as 65535, whose scaled index is L itself, one past the
    // counted entries, unclamped.
    EXPECT_EQ(Values(*image)[1], 65535);
    EXPECT_EQ(Colours(*image)[1], NamingPixel(4096));
}

// The pixel of a constant volume of `value` through `table`.
uint32_t RenderConstant(unsigned short value, const std::shared_ptr<zrobjects::ZrObject>& table) {
    auto volume = MakeVolumeFrom<unsigned short>({3, 3, 3}, [&](int, int, int) { return value; });
    auto image = MakeImage(2, 2);
    EXPECT_TRUE(RenderOtfSlice(*volume, IdentityRecord(), *image, LinePlane({1, 1, 1}, {1, 1, 1}, 2), {}, 0,
                               0, *table));
    EXPECT_EQ(Values(*image)[0], value);
    return Colours(*image)[0];
}

TEST(OtfSliceLookup, TheIndexIsScaledByTheRowLengthBeforeTheFactorAndReachesL) {
    EXPECT_EQ(RenderConstant(0, MakeExactTable(1, 300, NamingEntry)), NamingPixel(0));
    // The largest value reads index L, one past the counted entries.
    EXPECT_EQ(RenderConstant(65535, MakeExactTable(1, 300, NamingEntry)), NamingPixel(300));
    // For 49468 and 3000 counted entries the two multiplication orders pick
    // neighbouring entries: length first gives 2265, factor first 2264.
    EXPECT_EQ(RenderConstant(49468, MakeExactTable(1, 3000, NamingEntry)), NamingPixel(2265));
}

TEST(OtfSliceLookup, ColourIsPremultipliedByOpacityAndCoverageIsSeparate) {
    EXPECT_EQ(RenderConstant(5, MakeExactTable(1, 16, [](int, int) { return Entry(200, 150, 100, 0); })),
              Bytes(0, 0, 0, 255));
    // Opacity 128 of 255 halves (and truncates) every channel.
    EXPECT_EQ(RenderConstant(5, MakeExactTable(1, 16, [](int, int) { return Entry(200, 150, 100, 128); })),
              Bytes(100 * 128 / 255, 150 * 128 / 255, 200 * 128 / 255, 255));
}

TEST(OtfSliceLookup, ChannelOrderSwitchSwapsBytesZeroAndTwo) {
    auto red = MakeExactTable(1, 16, [](int, int) { return Entry(255, 0, 0, 255); });
    EXPECT_EQ(RenderConstant(5, red), Bytes(0, 0, 255, 255));
    ChannelSwitch on(zrvolume::ChannelOrderFamily::OtfSlice, true);
    EXPECT_EQ(RenderConstant(5, red), Bytes(255, 0, 0, 255));
    // Only this family's switch counts.
    ChannelSwitch other(zrvolume::ChannelOrderFamily::MaskedOtfSlice, false);
    EXPECT_EQ(RenderConstant(5, red), Bytes(255, 0, 0, 255));
}

// Along x = 0 ... 6 through voxels 10 + x, pixels beyond a clip plane or outside
// a clip box keep both buffers; a point on the plane or a box face counts as
// inside. A negative value index leaves the value buffer alone.
TEST(OtfSliceClipping, ClippedPixelsAndADisabledValueBufferKeepTheirContent) {
    auto volume = MakeVolumeFrom<unsigned short>({8, 3, 3}, [](int i, int, int) { return 10 + i; });
    SliceClipState box;
    box.clipBox = true;  // size 2 along x centred on x = 2: faces at x = 1 and x = 3
    box.boxMatrix = zrcommon::ToMatrixRecord(glm::scale(glm::mat4(1.0f), glm::vec3(0.5f, 0.1f, 0.1f)) *
                                             glm::translate(glm::mat4(1.0f), glm::vec3(-2, -1, -1)));
    struct Case {
        SliceClipState clip;
        int valueIndex;
        int firstDrawn, lastDrawn;
    } cases[] = {{ClipBeyondX(3), 0, 0, 3}, {box, 0, 1, 3}, {{}, -1, 0, 6}};
    for (const Case& k : cases) {
        auto image = Draw(*volume, LinePlane({0, 1, 1}, {6, 1, 1}, 7), 65536, k.clip, k.valueIndex);
        for (int x = 0; x < 7; ++x) {
            const bool drawn = x >= k.firstDrawn && x <= k.lastDrawn;
            EXPECT_EQ(Colours(*image)[x], drawn ? NamingPixel(10 + x) : kUntouched) << x;
            EXPECT_EQ(Values(*image)[x], drawn && k.valueIndex >= 0 ? 10 + x : kUntouchedValue) << x;
        }
    }
}

TEST(OtfSliceGeometry, OnePixelImageIsWrittenAsOutside) {
    auto volume = MakeVolumeFrom<unsigned short>({3, 3, 3}, [](int, int, int) { return 5; });
    auto image = Draw(*volume, PlaneFromCorners({1, 1, 1}, {1, 1, 1}, {1, 1, 1}, {1, 1, 1}, 1, 1));
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
    auto volume = MakeVolumeFrom<unsigned short>(
        dims, [&](int i, int j, int k) { return ramp(glm::dvec3(i, j, k)); }, geometry);
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
    ASSERT_TRUE(RenderOtfSlice(*volume, zrcommon::ToMatrixRecord(volume->GetMatrixRS2OSf()), *image,
                               CameraPlane(*image), {}, 0, 0, *table));

    const auto* camera = image->GetCameraObject();
    const glm::dvec3 upper = glm::dvec3(dims) - 0.5;
    int checked = 0;
    for (int r = 0; r < view.size.y; ++r)
        for (int c = 0; c < view.size.x; ++c) {
            const glm::dvec3 voxel =
                (view.centre + (c - 0.5 * (view.size.x - 1)) * view.pixelSpacing.x * camera->RightAxis() +
                 (r - 0.5 * (view.size.y - 1)) * view.pixelSpacing.y * camera->DownAxis()) /
                spacing;
            const int index = r * view.size.x + c;
            // Coverage, away from the faces where rounding could decide.
            const uint32_t coverage = Colours(*image)[index] >> 24;
            const bool clearlyInside = glm::all(glm::greaterThan(voxel, glm::dvec3(-0.49))) &&
                                       glm::all(glm::lessThan(voxel, upper - 0.01));
            const bool clearlyOutside = glm::any(glm::lessThan(voxel, glm::dvec3(-0.51))) ||
                                        glm::any(glm::greaterThan(voxel, upper + 0.01));
            EXPECT_TRUE(!clearlyInside || coverage == 255u) << c << ", " << r << ": " << coverage;
            EXPECT_TRUE(!clearlyOutside || coverage == 0u) << c << ", " << r << ": " << coverage;
            // Values where no neighbour is clamped, so the ramp is exact.
            if (glm::all(glm::greaterThanEqual(voxel, glm::dvec3(0.0))) &&
                glm::all(glm::lessThanEqual(voxel, glm::dvec3(dims - 1)))) {
                const int value = Values(*image)[index];
                EXPECT_LE(value, ramp(voxel) + 0.01) << c << ", " << r;
                EXPECT_GT(value, ramp(voxel) - 1.01) << c << ", " << r;
                ++checked;
            }
        }
    EXPECT_GT(checked, 300);  // the section really crosses the volume
}

TEST(OtfSliceErrors, UnsupportedVoxelTypesDrawNothingAndAMistypedTableThrowsBeforeDrawing) {
    auto table = MakeExactTable(1, 16, NamingEntry);
    auto image = MakeImage(3, 2);
    Fill(*image);
    const auto plane = LinePlane({0, 1, 1}, {2, 1, 1}, 3);
    auto floats = MakeVolumeFrom<float>({3, 3, 3}, [](int, int, int) { return 1.0f; });
    auto ints = MakeVolumeFrom<int>({3, 3, 3}, [](int, int, int) { return 1; });
    EXPECT_FALSE(RenderOtfSlice(*floats, IdentityRecord(), *image, plane, {}, 0, 0, *table));
    EXPECT_FALSE(RenderOtfSlice(*ints, IdentityRecord(), *image, plane, {}, 0, 0, *table));
    auto shorts = MakeVolumeFrom<unsigned short>({3, 3, 3}, [](int, int, int) { return 1; });
    auto mistyped = std::make_shared<zrobjects::ZrObject>(zrenums::EzrObjectType_Table);
    mistyped->SetObjParam("_TableMap_OTF", 42);
    EXPECT_THROW(RenderOtfSlice(*shorts, IdentityRecord(), *image, plane, {}, 0, 0, *mistyped),
                 std::bad_any_cast);
    EXPECT_EQ(Colours(*image)[0], kUntouched);
    EXPECT_EQ(Values(*image)[0], kUntouchedValue);
}

}  // namespace
