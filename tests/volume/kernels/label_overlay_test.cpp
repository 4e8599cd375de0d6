#include "volume/kernels/label_overlay.h"

#include <cmath>
#include <type_traits>

#include <gtest/gtest.h>

#include "tests/volume/kernels/slice_fixtures.h"

namespace {

using namespace slicetest;
using zrvolume::RenderLabelOverlaySlice;

constexpr uint32_t kOld = Bytes(10, 20, 30, 40);

// The old pixel kOld tinted by 50/255 of the colour (c0, c1, c2): byte 0 mixes
// old byte 2 with c2, byte 2 mixes old byte 0 with c0.
uint32_t TintedOld(int c0, int c1, int c2) {
    const auto mix = [](int old, int c) { return static_cast<uint32_t>(std::floor(old * 205.0 / 255.0 + c * 50.0 / 255.0)); };
    return Bytes(mix(30, c2), mix(20, c1), mix(10, c0), 255);
}

// With 65536 counted entries, label l reads entry l. Entry 0 is transparent
// unless asked otherwise, every other label white, and entry 65536 (index L)
// pure c0.
uint32_t OverlayEntry(int t, uint32_t entryZero = 0) {
    if (t == 0) return entryZero;
    if (t == 65536) return Entry(255, 0, 0, 255);
    return Entry(255, 255, 255, 255);
}

template <class T>
class LabelOverlayTyped : public ::testing::Test {
protected:
    // One pixel at p in a 2 x 2 x 2 label volume over an image filled with kOld.
    uint32_t Render(glm::vec3 p, const std::function<int(int, int, int)>& labels, uint32_t entryZero = 0) {
        auto volume = MakeVolumeFrom<T>({2, 2, 2}, labels);
        auto table = MakeExactTable(1, 65536, [&](int, int t) { return OverlayEntry(t, entryZero); });
        auto image = MakeImage(2, 2);
        Fill(*image, kOld, 0);
        EXPECT_TRUE(RenderLabelOverlaySlice(*volume, IdentityRecord(), *image, LinePlane(p, p, 2), {}, 0, *table));
        return Colours(*image)[0];
    }
};
TYPED_TEST_SUITE(LabelOverlayTyped, IntegerVoxelTypes);

TYPED_TEST(LabelOverlayTyped, BackgroundIsTintedOnlyWhenEntryZeroIsVisible) {
    const auto none = [](int, int, int) { return 0; };
    EXPECT_EQ(this->Render({0.3f, 0.6f, 0.2f}, none), kOld);
    // Black at opacity 1 tints exactly as much as black at opacity 255.
    EXPECT_EQ(this->Render({0.3f, 0.6f, 0.2f}, none, Entry(0, 0, 0, 1)), Bytes(24, 16, 8, 255));
    EXPECT_EQ(this->Render({0.3f, 0.6f, 0.2f}, none, Entry(0, 0, 0, 255)), Bytes(24, 16, 8, 255));
}

TYPED_TEST(LabelOverlayTyped, TheLabelWithMostWeightWinsAndZeroCountsAsALabel) {
    const auto rightNine = [](int i, int, int) { return i == 1 ? 9 : 0; };
    EXPECT_EQ(this->Render({0.6f, 0, 0}, rightNine), TintedOld(255, 255, 255));  // 9 has 0.6
    EXPECT_EQ(this->Render({0.4f, 0, 0}, rightNine), kOld);                      // 0 has 0.6
}

TYPED_TEST(LabelOverlayTyped, ATieNeverLabelsThePixel) {
    // Two labels of 0.5 each: the smaller one is kept, but 0.5 is no majority.
    const int low = std::is_signed_v<TypeParam> ? -2 : 3;
    const auto split = [&](int i, int, int) { return i == 0 ? low : 5; };
    EXPECT_EQ(this->Render({0.5f, 0, 0}, split), kOld);
    // Four corners of 3 and four of 7 around the cell centre.
    const auto checker = [](int i, int j, int k) { return (i + j + k) % 2 ? 7 : 3; };
    EXPECT_EQ(this->Render({0.5f, 0.5f, 0.5f}, checker), kOld);
}

TYPED_TEST(LabelOverlayTyped, SpreadLabelsWinOnlyWithAMajority) {
    // Three labels around the cell centre: 5 on four corners (0.5), 8 on two,
    // 9 on two. No majority, nothing drawn; one more corner of 5 wins.
    const auto three = [](int i, int, int k) { return k == 0 ? 5 : (i == 0 ? 8 : 9); };
    EXPECT_EQ(this->Render({0.5f, 0.5f, 0.5f}, three), kOld);
    const auto five = [](int i, int j, int k) { return k == 0 || (i == 0 && j == 0) ? 5 : (i == 0 ? 8 : 9); };
    EXPECT_EQ(this->Render({0.5f, 0.5f, 0.5f}, five), TintedOld(255, 255, 255));
}

template <class T>
class LabelOverlaySigned : public LabelOverlayTyped<T> {};
TYPED_TEST_SUITE(LabelOverlaySigned, SignedVoxelTypes);

TYPED_TEST(LabelOverlaySigned, NegativeLabelWrapsToIndexL) {
    // -2 + 0.5 truncates to -1, read as 65535, whose scaled index is L.
    EXPECT_EQ(this->Render({0.5f, 0.5f, 0.5f}, [](int, int, int) { return -2; }), TintedOld(255, 0, 0));
}

TYPED_TEST(LabelOverlayTyped, IdenticalAtOneAndTwoThreads) {
    const glm::ivec3 dims(19, 16, 9);
    auto volume = MakeVolumeFrom<TypeParam>(dims, [](int i, int j, int k) { return (i / 3 + j / 4 + k / 2) % 5; });
    auto table = MakeExactTable(1, 65536, [](int, int t) { return Entry((t * 40) & 0xff, 90, 200, t == 0 ? 0 : 255); });
    auto image = MakeImage(31, 27);
    for (int i = 0; i < 31 * 27; ++i) Colours(*image)[i] = static_cast<uint32_t>(i) * 2654435761u;
    auto [one, two] = RenderAtOneAndTwoThreads(*image, [&] {
        RenderLabelOverlaySlice(*volume, IdentityRecord(), *image, ObliquePlane(31, 27), {}, 0, *table);
    });
    EXPECT_EQ(one, two);
}

// The pixel at the corner of a constant label volume over an image of kOld.
template <class T>
uint32_t RenderConstant(T label, int counted, const std::function<uint32_t(int, int)>& entry) {
    auto volume = MakeVolumeFrom<T>({2, 2, 2}, [&](int, int, int) { return label; });
    auto table = MakeExactTable(1, counted, entry);
    auto image = MakeImage(2, 2);
    Fill(*image, kOld, 0);
    EXPECT_TRUE(RenderLabelOverlaySlice(*volume, IdentityRecord(), *image, LinePlane({0, 0, 0}, {1, 0, 0}, 2),
                                        {}, 0, *table));
    EXPECT_EQ(Colours(*image)[1], Colours(*image)[0]);
    return Colours(*image)[0];
}

TEST(LabelOverlay, EntryChannelTwoMeetsOldByteTwoInByteZero) {
    EXPECT_EQ(RenderConstant<unsigned char>(4, 65536,
                                            [](int, int t) { return t == 4 ? Entry(0, 0, 255, 200) : 0; }),
              Bytes(74, 16, 8, 255));
}

TEST(LabelOverlay, ScalesByTheFactorBeforeTheRowLength) {
    // For label 49468 and 3000 counted entries the two multiplication orders
    // pick neighbouring entries: factor first gives 2264, length first 2265.
    EXPECT_EQ(RenderConstant<unsigned short>(
                  49468, 3000, [](int, int t) { return t == 2264 ? Entry(255, 255, 255, 255) : 0; }),
              TintedOld(255, 255, 255));
}

TEST(LabelOverlay, OutsideAndClippedPixelsAreLeftAlone) {
    auto volume = MakeVolumeFrom<unsigned short>({3, 2, 2}, [](int, int, int) { return 1; });
    auto table = MakeExactTable(1, 65536, [](int, int t) { return OverlayEntry(t); });
    auto image = MakeImage(6, 2);
    Fill(*image, kOld, 0);
    // x = -2 ... 3: -2 and -1 outside, 2 beyond the clip plane, 3 both.
    ASSERT_TRUE(RenderLabelOverlaySlice(*volume, IdentityRecord(), *image,
                                        LinePlane({-2, 0, 0}, {3, 0, 0}, 6), ClipBeyondX(1.5f), 0, *table));
    const uint32_t tinted = TintedOld(255, 255, 255);
    const uint32_t expected[6] = {kOld, kOld, tinted, tinted, kOld, kOld};
    for (int x = 0; x < 6; ++x) EXPECT_EQ(Colours(*image)[x], expected[x]) << x;
}

TEST(LabelOverlay, UnsupportedLabelTypeDrawsNothing) {
    auto volume = MakeVolumeFrom<float>({2, 2, 2}, [](int, int, int) { return 1.0f; });
    auto table = MakeExactTable(1, 65536, [](int, int t) { return OverlayEntry(t); });
    auto image = MakeImage(2, 2);
    Fill(*image, kOld, 0);
    EXPECT_FALSE(RenderLabelOverlaySlice(*volume, IdentityRecord(), *image, LinePlane({0, 0, 0}, {1, 0, 0}, 2), {}, 0,
                                         *table));
    EXPECT_EQ(Colours(*image)[0], kOld);
}

}  // namespace
