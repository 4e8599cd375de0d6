#include "volume/kernels/masked_otf_slice.h"

#include <cmath>

#include <gtest/gtest.h>

#include "tests/volume/kernels/slice_fixtures.h"

namespace {

using namespace slicetest;
using zrvolume::RenderMaskedOtfSlice;

// Row 0, entry t: names t in c0 with c1 = 0, c2 = 50. Row r > 0: the label
// colour (r * 10, 100, 200). All opaque.
uint32_t LabelledEntry(int row, int t) { return row == 0 ? Entry(t & 0xff, 0, 50, 255) : Entry(row * 10, 100, 200, 255); }
uint32_t BasePixel(int t, bool inside = true) { return Bytes(50, 0, t & 0xff, inside ? 255 : 0); }
// An opaque label entry replaces the base colour entirely, c2 in byte 0.
uint32_t LabelPixel(int label) { return Bytes(200, 100, label * 10, 255); }

using Mask = std::function<int(int, int, int)>;

template <class T>
class MaskedOtfSliceTyped : public ::testing::Test {
protected:
    // A 2 x 2 x 2 cell; the sample point sits inside it.
    uint32_t RenderCell(glm::vec3 p, const Mask& mask, int baseValue = 5) {
        auto volume = MakeVolumeFrom<T>({2, 2, 2}, [&](int, int, int) { return baseValue; });
        auto maskVolume = MakeVolumeFrom<unsigned char>({2, 2, 2}, mask);
        auto table = MakeExactTable(10, 256, LabelledEntry);
        auto image = MakeImage(2, 2);
        EXPECT_TRUE(RenderMaskedOtfSlice(*volume, IdentityRecord(), *maskVolume, *image, LinePlane(p, p, 2), {}, 0,
                                         0, 9, *table));
        return Colours(*image)[0];
    }
};
TYPED_TEST_SUITE(MaskedOtfSliceTyped, IntegerVoxelTypes);

TYPED_TEST(MaskedOtfSliceTyped, RoundedSampleIndexesTheRowWithoutScaling) {
    auto volume = MakeVolumeFrom<TypeParam>({8, 3, 3}, [](int i, int, int) { return 3 * i; });
    auto mask = MakeVolumeFrom<unsigned char>({8, 3, 3}, [](int, int, int) { return 0; });
    // Only 16 counted entries: a scaled lookup would read entry 0 for all.
    auto table = MakeExactTable(1, 16, LabelledEntry);
    auto image = MakeImage(9, 2);
    ASSERT_TRUE(RenderMaskedOtfSlice(*volume, IdentityRecord(), *mask, *image, LinePlane({1, 1, 1}, {5, 1, 1}, 9),
                                     {}, 0, 0, 0, *table));
    for (int k = 0; k < 9; ++k) {
        const int expected = static_cast<int>(std::floor(3.0 * (1.0 + 0.5 * k) + 0.5));  // 4.5 gives 5
        EXPECT_EQ(Values(*image)[k], expected) << k;
        EXPECT_EQ(Colours(*image)[k], BasePixel(expected)) << k;
    }
}

template <class T>
class MaskedOtfSliceSigned : public MaskedOtfSliceTyped<T> {};
TYPED_TEST_SUITE(MaskedOtfSliceSigned, SignedVoxelTypes);

TYPED_TEST(MaskedOtfSliceSigned, NegativeSampleWrapsToAHighIndex) {
    // -3 + 0.5 truncates toward zero to -2, stored and used as 65534.
    const uint32_t colour = this->RenderCell({0.5f, 0.5f, 0.5f}, [](int, int, int) { return 0; }, -3);
    EXPECT_EQ(colour, BasePixel(65534));
}

TYPED_TEST(MaskedOtfSliceTyped, ExactlyHalfTheWeightLabelledGivesLabelZero) {
    // At the cell centre every corner weighs 1/8; the z1 face carries 0.5.
    EXPECT_EQ(this->RenderCell({0.5f, 0.5f, 0.5f}, [](int, int, int k) { return k == 1 ? 3 : 0; }), BasePixel(5));
}

TYPED_TEST(MaskedOtfSliceTyped, MoreThanHalfPicksTheFirstLabelFromTheFarCorner) {
    // Five labelled corners (0.625): the far corner (1, 1, 1) has label 3.
    const Mask mask = [](int i, int j, int k) { return k == 1 ? 3 : (i == 0 && j == 0 ? 9 : 0); };
    EXPECT_EQ(this->RenderCell({0.5f, 0.5f, 0.5f}, mask), LabelPixel(3));
}

TYPED_TEST(MaskedOtfSliceTyped, PriorityBeatsWeight) {
    // Near corner (0, 0, 1): the z1 face carries 0.75, and the far corner,
    // with weight 0.047, still decides the label.
    const Mask mask = [](int i, int j, int k) { return k == 1 ? (i == 1 && j == 1 ? 7 : 2) : 0; };
    EXPECT_EQ(this->RenderCell({0.25f, 0.25f, 0.75f}, mask), LabelPixel(7));
    // Without the far corner, (z1, y1, x0) comes next.
    const Mask second = [](int i, int j, int k) { return k == 1 && !(i == 1 && j == 1) ? (i == 0 && j == 1 ? 4 : 2) : 0; };
    EXPECT_EQ(this->RenderCell({0.25f, 0.25f, 0.75f}, second), LabelPixel(4));
}

TYPED_TEST(MaskedOtfSliceTyped, IdenticalAtOneAndTwoThreads) {
    const glm::ivec3 dims(19, 16, 9);
    auto volume = MakeVolumeFrom<TypeParam>(dims, [](int i, int j, int k) { return (i * 7 + j * 13 + k * 29) % 97; });
    auto mask = MakeVolumeFrom<unsigned char>(dims, [](int i, int j, int k) { return (i / 4 + j / 5 + k / 3) % 4; });
    auto table = MakeExactTable(4, 256, LabelledEntry);
    auto image = MakeImage(31, 27);
    auto [one, two] = RenderAtOneAndTwoThreads(*image, [&] {
        RenderMaskedOtfSlice(*volume, IdentityRecord(), *mask, *image, ObliquePlane(31, 27), {}, 0, 0, 3,
                             *table);
    });
    EXPECT_EQ(one, two);
}

class MaskedOtfSliceColour : public ::testing::Test {
protected:
    uint32_t Render(const std::function<uint32_t(int, int)>& entry, int label) {
        auto volume = MakeVolumeFrom<unsigned short>({2, 2, 2}, [](int, int, int) { return 5; });
        auto mask = MakeVolumeFrom<unsigned char>({2, 2, 2}, [&](int, int, int) { return label; });
        auto table = MakeExactTable(2, 256, entry);
        auto image = MakeImage(2, 2);
        EXPECT_TRUE(RenderMaskedOtfSlice(*volume, IdentityRecord(), *mask, *image, LinePlane({0, 0, 0}, {0, 0, 0}, 2),
                                         {}, 0, 0, 1, *table));
        return Colours(*image)[0];
    }
};

// A transparent label shows the base colour; a half-opaque black one keeps
// 127/255 of a base of 100; the channel switch applies to label 0 only.
TEST_F(MaskedOtfSliceColour, LabelEntriesLieOverTheBaseByTheirOpacity) {
    EXPECT_EQ(
        Render([](int row, int) { return row == 0 ? Entry(100, 110, 120, 255) : Entry(9, 9, 9, 0); }, 1),
        Bytes(120, 110, 100, 255));
    EXPECT_EQ(
        Render([](int row, int) { return row == 0 ? Entry(100, 100, 100, 255) : Entry(0, 0, 0, 128); }, 1),
        Bytes(49, 49, 49, 255));
    ChannelSwitch on(zrvolume::ChannelOrderFamily::MaskedOtfSlice, true);
    const auto entries = [](int row, int) { return row == 0 ? Entry(1, 2, 3, 255) : Entry(10, 20, 30, 255); };
    EXPECT_EQ(Render(entries, 0), Bytes(1, 2, 3, 255));
    EXPECT_EQ(Render(entries, 1), Bytes(30, 20, 10, 255));
}

class MaskedOtfSliceScene : public ::testing::Test {
protected:
    std::shared_ptr<zrobjects::ZrVObjectVolume> volume =
        MakeVolumeFrom<unsigned short>({4, 3, 3}, [](int i, int, int) { return 10 + i; });
    std::shared_ptr<zrobjects::ZrVObjectVolume> mask =
        MakeVolumeFrom<unsigned char>({4, 3, 3}, [](int, int, int) { return 0; });
    std::shared_ptr<zrobjects::ZrObject> table = MakeExactTable(3, 256, LabelledEntry);
    std::shared_ptr<zrobjects::ZrIObject> image = MakeImage(6, 2);
    zrvolume::SlicePlane plane = LinePlane({-2, 1, 1}, {3, 1, 1}, 6);  // x = -2 ... 3

    bool Render(int maxLabel, const zrcommon::SliceClipState& clip = {}) {
        return RenderMaskedOtfSlice(*volume, IdentityRecord(), *mask, *image, plane, clip, 0, 0, maxLabel, *table);
    }
};

TEST_F(MaskedOtfSliceScene, OutsideWritesValueZeroWithoutCoverageAndClippedPixelsKeepBothBuffers) {
    Fill(*image);
    ASSERT_TRUE(Render(2, ClipBeyondX(1.5f)));  // x = -2 ... 3: two outside, two beyond the plane
    for (int x = 0; x < 6; ++x) {
        const uint32_t colour[] = {BasePixel(0, false), BasePixel(0, false), BasePixel(10),
                                   BasePixel(11),       kUntouched,          kUntouched};
        const uint16_t value[] = {0, 0, 10, 11, kUntouchedValue, kUntouchedValue};
        EXPECT_EQ(Colours(*image)[x], colour[x]) << x;
        EXPECT_EQ(Values(*image)[x], value[x]) << x;
    }
}

TEST_F(MaskedOtfSliceScene, WarnsOnlyWhenTheLargestLabelExceedsTheRowCount) {
    testing::internal::CaptureStdout();
    ASSERT_TRUE(Render(3));  // equal to the row count: silent
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    testing::internal::CaptureStdout();
    ASSERT_TRUE(Render(4));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "WARNNING! OTF mask value is larger than ptmap_data->array_lengths.y\n");
    EXPECT_EQ(Colours(*image)[2], BasePixel(10));  // and the render went on
}

TEST_F(MaskedOtfSliceScene, UnsupportedMainVolumeTypeDrawsNothing) {
    Fill(*image);
    volume = MakeVolumeFrom<float>({4, 3, 3}, [](int, int, int) { return 1.0f; });
    EXPECT_FALSE(Render(2));
    EXPECT_EQ(Colours(*image)[3], kUntouched);
}

}  // namespace
