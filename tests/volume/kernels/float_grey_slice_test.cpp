#include "volume/kernels/float_grey_slice.h"

#include <cmath>
#include <stdexcept>

#include <gtest/gtest.h>

#include "tests/volume/kernels/slice_fixtures.h"

namespace {

using namespace slicetest;
using zrvolume::RenderFloatGreySlice;

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

// Value and grey level with a curve or a window.
struct GreyCase {
    float value;
    uint32_t grey;
};

TEST(FloatGreyCurve, InterpolatesAndNormalisesByTheFirstAndLastPoint) {
    // Outputs run from the first point's (black) to the last point's (white),
    // clamped beyond both; the middle point of the second curve lies at 3/4.
    const std::vector<glm::dvec2> curve = {{0, 0}, {100, 50}, {200, 100}},
                                  offset = {{10, 40}, {20, 55}, {30, 60}},
                                  overshoot = {{0, 0}, {10, 300}, {20, 100}};
    const std::pair<const std::vector<glm::dvec2>*, GreyCase> cases[] = {
        {&curve, {150, 191}}, {&curve, {50, 63}},    {&curve, {0, 0}},     {&curve, {-7, 0}},
        {&curve, {200, 255}}, {&curve, {1e6f, 255}}, {&offset, {20, 191}}, {&overshoot, {10, 255}}};
    for (const auto& [c, k] : cases) EXPECT_EQ(RenderValue(k.value, c), Grey(k.grey)) << k.value;
}

TEST(FloatGreyWindow, MapsTheWindowLinearlyAndDegenerateWidthsByTheirEnds) {
    // Window 100 +- 25: 25 x 5.1 at the centre. Zero width: above the centre is
    // white. Negative width: lo = 110 and hi = 90 trade places; a value between
    // them is not above lo but is above hi, and comes out white.
    const std::pair<glm::vec2, GreyCase> cases[] = {
        {{100, 50}, {75, 0}},      {{100, 50}, {100, 127}}, {{100, 50}, {124, 249}},  {{100, 50}, {130, 255}},
        {{100, 0}, {100.5f, 255}}, {{100, 0}, {100, 0}},    {{100, -20}, {105, 255}}, {{100, -20}, {85, 0}}};
    for (const auto& [window, k] : cases)
        EXPECT_EQ(RenderValue(k.value, nullptr, window.x, window.y), Grey(k.grey))
            << k.value << " in " << window.x << ", " << window.y;
}

TEST(FloatGreyCurve, EmptyCurveFailsBeforeDrawing) {
    auto volume = MakeVolumeFrom<float>({3, 3, 3}, [](int, int, int) { return 1.0f; });
    auto image = MakeImage(2, 2);
    Fill(*image);
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

TEST(FloatGreySlice, OutsidePixelsMapZeroAndHaveNoCoverage) {
    auto volume = MakeVolumeFrom<float>({3, 3, 3}, [](int, int, int) { return 1000.0f; });
    auto image = MakeImage(4, 2);
    Fill(*image);
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
    const auto plane = ObliquePlane(31, 27);
    const std::vector<glm::dvec2> curve = {{-100, 0}, {-20, 30}, {40, 35}, {110, 90}};
    for (const auto* c : {static_cast<const std::vector<glm::dvec2>*>(nullptr), &curve}) {
        auto [one, two] = RenderAtOneAndTwoThreads(*image, [&] {
            RenderFloatGreySlice(*volume, IdentityRecord(), *image, plane, nullptr, 0, c, 10.0f, 150.0f);
        });
        EXPECT_EQ(one, two);
    }
}

}  // namespace
