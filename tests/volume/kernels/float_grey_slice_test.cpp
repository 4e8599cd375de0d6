#include "volume/kernels/float_grey_slice.h"

#include <cmath>
#include <stdexcept>

#include <gtest/gtest.h>

#include "tests/volume/kernels/slice_fixtures.h"

namespace {

using namespace slicetest;
using zrvolume::RenderFloatGreySlice;

constexpr uint32_t kUntouched = 0x77777777u;

uint32_t Grey(uint32_t g, bool inside = true) { return Bytes(g, g, g, inside ? 255 : 0); }

// Renders a constant float volume at a voxel centre, where the sample is the
// value itself, and returns the pixel.
uint32_t RenderValue(float v, const std::vector<glm::dvec2>* curve, float centre = 0.0f, float width = 1.0f) {
    auto volume = MakeVolumeFrom<float>({3, 3, 3}, [&](int, int, int) { return v; });
    auto image = MakeImage(2, 2);
    EXPECT_TRUE(RenderFloatGreySlice(*volume, IdentityRecord(), *image, LinePlane({1, 1, 1}, {1, 1, 1}, 2), nullptr,
                                     0, curve, centre, width));
    return Colours(*image)[0];
}

TEST(FloatGreyCurve, InterpolatesAndNormalisesByTheEndPoints) {
    const std::vector<glm::dvec2> curve = {{0, 0}, {100, 50}, {200, 100}};
    EXPECT_EQ(RenderValue(150.0f, &curve), Grey(191));  // y = 75 of 0 ... 100
    EXPECT_EQ(RenderValue(50.0f, &curve), Grey(63));    // y = 25
    EXPECT_EQ(RenderValue(0.0f, &curve), Grey(0));      // at the first input
    EXPECT_EQ(RenderValue(-7.0f, &curve), Grey(0));
    EXPECT_EQ(RenderValue(200.0f, &curve), Grey(255));  // at the last input
    EXPECT_EQ(RenderValue(1e6f, &curve), Grey(255));
}

TEST(FloatGreyCurve, OutputsAreRelativeToTheFirstAndLastPoint) {
    // Outputs 40 ... 60 span the whole grey range; the middle point is at 3/4.
    const std::vector<glm::dvec2> curve = {{10, 40}, {20, 55}, {30, 60}};
    EXPECT_EQ(RenderValue(20.0f, &curve), Grey(191));
    // An output above the last point's is clamped to it.
    const std::vector<glm::dvec2> overshoot = {{0, 0}, {10, 300}, {20, 100}};
    EXPECT_EQ(RenderValue(10.0f, &overshoot), Grey(255));
}

TEST(FloatGreyCurve, EmptyCurveFailsBeforeDrawing) {
    auto volume = MakeVolumeFrom<float>({3, 3, 3}, [](int, int, int) { return 1.0f; });
    auto image = MakeImage(2, 2);
    Fill(*image, kUntouched, 0);
    const std::vector<glm::dvec2> empty;
    try {
        RenderFloatGreySlice(*volume, IdentityRecord(), *image, LinePlane({1, 1, 1}, {1, 1, 1}, 2), nullptr, 0, &empty,
                             0.0f, 1.0f);
        FAIL() << "an empty curve must throw";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "invalid vector subscript");
    }
    EXPECT_EQ(Colours(*image)[0], kUntouched);
}

TEST(FloatGreyWindow, MapsTheWindowLinearly) {
    EXPECT_EQ(RenderValue(75.0f, nullptr, 100.0f, 50.0f), Grey(0));
    EXPECT_EQ(RenderValue(100.0f, nullptr, 100.0f, 50.0f), Grey(127));  // 25 x 5.1
    EXPECT_EQ(RenderValue(124.0f, nullptr, 100.0f, 50.0f), Grey(249));
    EXPECT_EQ(RenderValue(130.0f, nullptr, 100.0f, 50.0f), Grey(255));
}

TEST(FloatGreyWindow, DegenerateWidths) {
    // Zero width: anything above the centre is white, the rest black.
    EXPECT_EQ(RenderValue(100.5f, nullptr, 100.0f, 0.0f), Grey(255));
    EXPECT_EQ(RenderValue(100.0f, nullptr, 100.0f, 0.0f), Grey(0));
    // Negative width: lo = 110 and hi = 90 trade places; a value between them
    // is not above lo but is above hi, and comes out white.
    EXPECT_EQ(RenderValue(105.0f, nullptr, 100.0f, -20.0f), Grey(255));
    EXPECT_EQ(RenderValue(85.0f, nullptr, 100.0f, -20.0f), Grey(0));
}

TEST(FloatGreySlice, OutsidePixelsMapZeroAndHaveNoCoverage) {
    auto volume = MakeVolumeFrom<float>({3, 3, 3}, [](int, int, int) { return 1000.0f; });
    auto image = MakeImage(4, 2);
    Fill(*image, kUntouched, 0);
    // x = -2 ... 1: two pixels outside. Window -100 +- 25: 0 lies above it.
    ASSERT_TRUE(RenderFloatGreySlice(*volume, IdentityRecord(), *image, LinePlane({-2, 1, 1}, {1, 1, 1}, 4), nullptr, 0,
                                     nullptr, -100.0f, 50.0f));
    EXPECT_EQ(Colours(*image)[0], Grey(255, false));
    EXPECT_EQ(Colours(*image)[1], Grey(255, false));
    EXPECT_EQ(Colours(*image)[2], Grey(255));
    // Every pixel of the plane is written.
    for (int i = 0; i < 8; ++i) EXPECT_NE(Colours(*image)[i], kUntouched) << i;
}

// A ramp along x sampled between voxel centres and at the faces, through a
// window that maps value v to grey v.
TEST(FloatGreySlice, SamplesTheRampTrilinearlyAndClampsAtTheFaces) {
    auto volume = MakeVolumeFrom<float>({4, 3, 3}, [](int i, int, int) { return 10.0f + 40.0f * i; });
    auto image = MakeImage(9, 2);
    // x = -0.25 ... 3.25 in steps of 0.4375.
    ASSERT_TRUE(RenderFloatGreySlice(*volume, IdentityRecord(), *image, LinePlane({-0.25f, 1, 1}, {3.25f, 1, 1}, 9),
                                     nullptr, 0, nullptr, 127.5f, 255.0f));
    for (int k = 0; k < 9; ++k) {
        const double x = std::clamp(-0.25 + 0.4375 * k, 0.0, 3.0);
        EXPECT_EQ(Colours(*image)[k], Grey(static_cast<uint32_t>(10.0 + 40.0 * x))) << k;
    }
}

TEST(FloatGreySlice, IdenticalAtOneAndTwoThreads) {
    auto volume = MakeVolumeFrom<float>({19, 16, 9}, [](int i, int j, int k) { return std::sin(0.3 * i + 0.2 * j) * 100.0 + k; });
    auto image = MakeImage(31, 27);
    const auto plane = PlaneFromCorners({-1, 0.3f, 0.2f}, {18.5f, 3, 8.1f}, {0.5f, 15, 1}, {20, 17, 9}, 31, 27);
    const std::vector<glm::dvec2> curve = {{-100, 0}, {-20, 30}, {40, 35}, {110, 90}};
    for (const auto* c : {static_cast<const std::vector<glm::dvec2>*>(nullptr), &curve}) {
        auto [one, two] = RenderAtOneAndTwoThreads(*image, [&] {
            RenderFloatGreySlice(*volume, IdentityRecord(), *image, plane, nullptr, 0, c, 10.0f, 150.0f);
        });
        EXPECT_EQ(one, two);
    }
}

}  // namespace
