#include "volume/kernels/curved_reformation.h"

#include <cmath>
#include <cstdlib>
#include <numbers>

#include "thick_fixtures.h"
#include "volume/kernels/otf_slice.h"

namespace {

using namespace thicktest;
using zrvolume::CurvedReformationArgs;
using zrvolume::CurvedSectionGeometry;
using zrvolume::RenderCurvedReformation;
using zrvolume::RenderCurvedSection;

// A volume, a table, a target image and a centre line, with voxel (i, j, k) at
// world (i, j, k) mm unless `placement` says otherwise.
struct CurveScene {
    std::shared_ptr<zrobjects::ZrVObjectVolume> volume;
    std::shared_ptr<zrobjects::ZrObject> table = IndexTable();
    std::shared_ptr<zrobjects::ZrIObject> image;
    zrobjects::VolumeGeometry placement;
    std::vector<glm::vec3> points, ups, tangents;

    template <class F>
    CurveScene(glm::ivec3 dims, F value, glm::ivec2 size = {3, 3})
        : volume(VolumeFrom(dims, value)), image(TargetImage(size.x, size.y)) {}
    CurveScene() = default;

    // A straight line of `n` samples from `start` along +x, `spacing` apart, up =
    // +z: its depth axis (up x tangent) is +y.
    void StraightAlongX(glm::vec3 start, int n, float spacing = 1.0f) {
        points.clear();
        for (int i = 0; i < n; ++i) points.push_back(start + glm::vec3(spacing * i, 0, 0));
        ups.assign(n, glm::vec3(0, 0, 1));
        tangents.assign(n, glm::vec3(1, 0, 0));
    }
    CurvedReformationArgs Args(int code = 0, float thickness = 0.0f) const {
        CurvedReformationArgs a = CurvedArgs(*volume, *table, *image, points, ups, tangents);
        a.worldToVoxel = WorldToVoxel(placement);
        a.projectionCode = code;
        a.thickness = thickness;
        return a;
    }
    uint16_t Value(int c, int r) const { return Values(*image)[r * image->Width() + c]; }
    uint32_t Pixel(int c, int r) const { return Colour(*image)[r * image->Width() + c]; }
    bool Untouched(int c, int r) const {
        return Value(c, r) == kUntouchedValue && Pixel(c, r) == kUntouchedPixel;
    }
};

const auto kRampX = [](int i, int, int) { return 10 * i + 100; };
const auto kRampY = [](int, int j, int) { return 10 * j + 100; };
const auto kRampZ = [](int, int, int k) { return 10 * k + 100; };

TEST(CurvedReformationLayout, ColumnsAndRowsFollowTheViewWithTheTopRowOnThePlusUpSide) {
    CurveScene s({12, 10, 10}, kRampX, {9, 3});
    s.StraightAlongX({2, 5, 5}, 5);  // x = 2 .. 6
    CurvedReformationArgs a = s.Args();
    // (first column, last column) in millimetres along the unrolled curve (one
    // per sample here): the whole curve, then a pan and a zoom.
    for (auto [first, last] : {std::pair{0.0f, 4.0f}, {1.0f, 2.6f}}) {
        SetCurvedView(a, first, last, 2.5f, 0.5f);
        ASSERT_TRUE(RenderCurvedReformation(a));
        for (int c = 0; c < 9; ++c) {
            const float x = 2.0f + first + (last - first) * c / 8.0f;
            if (c == 8 && last == 4.0f) {  // exactly on the last sample: untouched
                EXPECT_TRUE(s.Untouched(c, 1));
                continue;
            }
            EXPECT_EQ(s.Value(c, 1), static_cast<int>(10.0f * x + 100.5f)) << first << ": " << c;
            EXPECT_EQ(ByteOf(s.Pixel(c, 1), 3), 255u);
        }
    }
    CurveScene z({10, 10, 10}, kRampZ, {4, 5});
    z.StraightAlongX({2, 5, 5}, 4);
    CurvedReformationArgs b = z.Args();
    for (float height : {4.0f, 2.0f}) {  // rows from z = 5 + height / 2 down to 5 - height / 2, at pixel centres
        b.planeHeight = height;
        WholeCurvedView(b);
        ASSERT_TRUE(RenderCurvedReformation(b));
        for (int r = 0; r < 5; ++r)
            EXPECT_EQ(z.Value(1, r), static_cast<int>(150.0f + 5.0f * height - 2.0f * height * (r + 0.5f) + 0.5f))
                << height << ", " << r;
    }
    // Zoomed out: rows beyond the lateral extent are left untouched.
    z.image = TargetImage(4, 5);
    b.image = z.image.get();
    SetCurvedView(b, 0.0f, 2.0f, 3.5f, -0.5f);  // lateral 3.5 .. -0.5 with the extent 0 .. 2
    ASSERT_TRUE(RenderCurvedReformation(b));
    EXPECT_TRUE(z.Untouched(1, 0));
    EXPECT_TRUE(z.Untouched(1, 1));
    EXPECT_EQ(z.Value(1, 2), 155);
    EXPECT_EQ(z.Value(1, 3), 145);
    EXPECT_TRUE(z.Untouched(1, 4));
}

TEST(CurvedReformationLayout, DepthOffsetMovesAlongUpCrossTangentAndRightSideMirrorsIt) {
    CurveScene s({10, 10, 10}, kRampY, {4, 3});
    s.StraightAlongX({2, 5, 5}, 4);
    CurvedReformationArgs a = s.Args();
    a.halfThickness = 2.0f;
    ASSERT_TRUE(RenderCurvedReformation(a));
    EXPECT_EQ(s.Value(1, 1), 170);  // y = 5 + 2
    a.rightSide = true;
    ASSERT_TRUE(RenderCurvedReformation(a));
    EXPECT_EQ(s.Value(1, 1), 130);  // y = 5 - 2
}

TEST(CurvedReformationLayout, WorldMillimetresAreMappedThroughTheVolumePlacement) {
    CurveScene s;
    s.placement.spacing = {0.5, 2.0, 1.0};
    s.placement.origin = {10.0, -4.0, 0.0};
    s.volume = VolumeFrom({20, 8, 8}, kRampX, s.placement);
    s.image = TargetImage(3, 3);
    s.StraightAlongX({11, 2, 4}, 3, 2.0f);  // world x 11, 13, 15 = voxel x 2, 6, 10
    ASSERT_TRUE(RenderCurvedReformation(s.Args()));
    for (int c = 0; c < 2; ++c) EXPECT_EQ(s.Value(c, 1), 120 + 40 * c);
}

TEST(CurvedReformationEnds, PositionsAtOrPastTheLastSampleOrBeforeTheFirstLeaveTheColumnUntouched) {
    CurveScene s({12, 10, 10}, kRampX);
    s.StraightAlongX({2, 5, 5}, 4);
    s.points[3].x = 8.0f;  // the last step is four voxels long
    const CurvedReformationArgs a = s.Args();
    CurvedSectionGeometry g = zrvolume::MakeCurvedSectionGeometry(a);
    EXPECT_EQ(g.firstColumnPosition, 0.0f);
    EXPECT_EQ(g.lastColumnPosition, 2.0f);

    g.lastColumnPosition = 3.0f;
    ASSERT_TRUE(RenderCurvedSection(a, g));
    EXPECT_EQ(s.Value(0, 1), 120);  // first column on the first sample
    EXPECT_EQ(s.Value(1, 1), 135);  // u = 1.5: x = 3.5
    for (int r = 0; r < 3; ++r) EXPECT_TRUE(s.Untouched(2, r)) << r;
    // Just below N - 1 the column interpolates the last two samples.
    for (auto [u, expected] : {std::pair{2.5f, 160}, {std::nextafter(3.0f, 0.0f), 180}}) {
        g.firstColumnPosition = g.lastColumnPosition = u;
        ASSERT_TRUE(RenderCurvedSection(a, g));
        EXPECT_EQ(s.Value(2, 1), expected) << u;
    }
    g.firstColumnPosition = g.lastColumnPosition = -0.01f;
    s.image = TargetImage(3, 3);
    ASSERT_TRUE(RenderCurvedSection(s.Args(), g));
    EXPECT_TRUE(s.Untouched(1, 1));
}

TEST(CurvedReformationEnds, TheFrameIsInterpolatedBetweenSamplesAndNormalised) {
    CurveScene s({12, 12, 12}, [](int, int j, int k) { return 10 * (j + k) + 100; });
    s.StraightAlongX({2, 5, 5}, 3);
    s.ups[2] = {0, 3, 0};  // longer than one: only its direction counts
    CurvedReformationArgs a = s.Args();
    a.planeHeight = 5.0f;
    SetCurvedView(a, 0.0f, 2.0f, 4.5f, 0.5f);  // top row 2 mm up
    CurvedSectionGeometry g = zrvolume::MakeCurvedSectionGeometry(a);
    g.firstColumnPosition = g.lastColumnPosition = 1.75f;
    ASSERT_TRUE(RenderCurvedSection(a, g));
    // Interpolated first, then normalised: up = 0.25 (0, 0, 1) + 0.75 (0, 3, 0).
    const glm::vec3 top = glm::vec3(3.75f, 5, 5) + 2.0f * glm::normalize(glm::vec3(0, 2.25f, 0.25f));
    EXPECT_EQ(s.Value(1, 0), static_cast<int>(10 * (top.y + top.z) + 100 + 0.5f));
    EXPECT_EQ(s.Value(1, 1), 200);
}

TEST(CurvedReformationEnds, ShortOrMissingCurvesAndOneColumnOrOneRowImagesDrawNothing) {
    CurveScene s({8, 8, 8}, [](int, int, int) { return 50; });
    s.StraightAlongX({1, 3, 3}, 1);
    EXPECT_TRUE(RenderCurvedReformation(s.Args()));
    s.StraightAlongX({1, 3, 3}, 4);
    CurvedReformationArgs a = s.Args();
    a.upVectors = nullptr;
    EXPECT_TRUE(RenderCurvedReformation(a));
    for (int p = 0; p < 9; ++p) EXPECT_TRUE(s.Untouched(p % 3, p / 3));
    for (glm::ivec2 size : {glm::ivec2(1, 4), glm::ivec2(4, 1)}) {
        s.image = TargetImage(size.x, size.y);
        for (auto [code, thickness] : {std::pair{0, 0.0f}, {1, 2.0f}, {10, 2.0f}, {11, 2.0f}, {12, 2.0f}}) {
            ASSERT_TRUE(RenderCurvedReformation(s.Args(code, thickness)));
            for (int p = 0; p < size.x * size.y; ++p)
                EXPECT_TRUE(s.Untouched(p % size.x, p / size.x)) << code;
        }
    }
}

// Value j + 1 along the depth axis; the curve at y = `y` with two layers of 1 mm.
CurveScene DepthRamp(float y = 1.0f) {
    CurveScene s({8, 6, 6}, [](int, int j, int) { return j + 1; });
    s.StraightAlongX({1, y, 3}, 4);
    return s;
}

TEST(CurvedReformationSlab, ReductionsCountOutsideLayersAsZeroAndSkipClippedOnes) {
    struct Case {
        const char* name;
        float y;      // layers at y - 1 and y: the first T / 2 in front of the curve
        float clipY;  // layers below it are clipped (none when negative)
        int code, expected;
        bool covered;
    } cases[] = {
        {"samples 1, 2", 1.0f, -1, 10, 2, true},     {"samples 1, 2", 1.0f, -1, 11, 1, true},
        {"samples 1, 2", 1.0f, -1, 12, 1, true},  // 1.5 truncated
        {"outside, 1.5", 0.5f, -1, 11, 0, true},     {"outside, 1.5", 0.5f, -1, 10, 2, true},
        {"outside, 1.5", 0.5f, -1, 12, 0, true},  // (0 + 1.5) / 2 truncated
        {"first clipped", 1.0f, 0.5f, 11, 2, true},  {"first clipped", 1.0f, 0.5f, 12, 2, true},
        {"all clipped", 1.0f, 100.0f, 11, 0, false},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(testing::Message() << k.name << ", code " << k.code);
        CurveScene s = DepthRamp(k.y);
        CurvedReformationArgs a = s.Args(k.code, 2.0f);
        a.clip.clipPlane = k.clipY >= 0;
        a.clip.planePoint = {0, k.clipY, 0};
        a.clip.planeNormal = {0, -1, 0};
        ASSERT_TRUE(RenderCurvedReformation(a));
        EXPECT_EQ(s.Value(1, 1), k.expected);
        EXPECT_EQ(ByteOf(s.Pixel(1, 1), 3), k.covered ? 255u : 0u);
    }
}

TEST(CurvedReformationSlab, LayerCountFollowsThicknessOverStep) {
    const CurveScene s = DepthRamp();  // the arguments point into its centre line
    CurvedReformationArgs a = s.Args(10, 20.0f);
    a.layerStep = 0.4f;
    CurvedSectionGeometry g = zrvolume::MakeCurvedSectionGeometry(a);
    EXPECT_EQ(g.lastLayer, 49);
    EXPECT_EQ(g.slabSpan, 20.0f);
    a.layerStep = 0.0f;
    EXPECT_EQ(zrvolume::MakeCurvedSectionGeometry(a).lastLayer, 0);
}

TEST(CurvedReformationSinglePlane, ClippedPixelsKeepTheirContentAndOutsidePixelsLoseCoverage) {
    CurveScene s({10, 10, 10}, kRampZ, {4, 5});
    s.StraightAlongX({2, 5, 5}, 4);
    CurvedReformationArgs a = s.Args();
    a.clip.clipPlane = true;
    a.clip.planePoint = {0, 0, 5.5f};
    a.clip.planeNormal = {0, 0, 1};  // rows above z = 5.5 are clipped
    ASSERT_TRUE(RenderCurvedReformation(a));
    EXPECT_TRUE(s.Untouched(1, 0));
    EXPECT_EQ(s.Value(1, 2), 150);
    EXPECT_EQ(s.Value(1, 4), 130);

    CurveScene o({6, 6, 6}, [](int, int, int) { return 40; });
    o.StraightAlongX({-0.5f, 2, 2}, 3);  // column 0 at x = -0.5: outside
    ASSERT_TRUE(RenderCurvedReformation(o.Args()));
    EXPECT_EQ(o.Value(0, 1), 0);
    EXPECT_EQ(ByteOf(o.Pixel(0, 1), 3), 0u);
    o.StraightAlongX({-0.49f, 2, 2}, 3);  // inside, both x indices clamp to 0
    ASSERT_TRUE(RenderCurvedReformation(o.Args()));
    EXPECT_EQ(o.Value(0, 1), 40);
    EXPECT_EQ(ByteOf(o.Pixel(0, 1), 3), 255u);
}

TEST(CurvedReformationLookup, EveryReductionLooksItsValueUpScaledByTheTableLength) {
    // Entry t of a 4096-entry table tells t by its colour; value v reads entry
    // trunc(v * L / 65535 + 0.5), not entry v.
    CurveScene s({12, 10, 10}, [](int i, int j, int k) { return 9000 + 4000 * i + 700 * j + 300 * k; }, {8, 5});
    s.table = IndexTable(4096);
    s.StraightAlongX({2, 5, 5}, 8);
    for (auto [code, thickness] : {std::pair{0, 0.0f}, {10, 3.0f}, {11, 3.0f}, {12, 3.0f}}) {
        ASSERT_TRUE(RenderCurvedReformation(s.Args(code, thickness)));
        for (int c = 0; c < 7; ++c)
            for (int r = 0; r < 5; ++r) {
                const uint32_t pixel = s.Pixel(c, r);
                const int index = static_cast<int>(ByteOf(pixel, 1) << 8 | ByteOf(pixel, 2));
                EXPECT_EQ(index, static_cast<int>(s.Value(c, r) * 4096.0f * 1.5259022e-5f + 0.5f)) << code;
                EXPECT_GT(s.Value(c, r), 4096) << code;
            }
    }
}

TEST(CurvedReformationDispatch, CodesAndThickness) {
    CurveScene s = DepthRamp();
    EXPECT_FALSE(RenderCurvedReformation(s.Args(1, -1.0f)));
    EXPECT_FALSE(RenderCurvedReformation(s.Args(0, -0.5f)));
    for (int code : {-1, 2, 9, 13, 120}) EXPECT_FALSE(RenderCurvedReformation(s.Args(code, 1.0f))) << code;
    EXPECT_EQ(s.Pixel(1, 1), kUntouchedPixel);
    for (int code : {10, 11, 12}) EXPECT_TRUE(RenderCurvedReformation(s.Args(code, -1.0f))) << code;
    EXPECT_TRUE(RenderCurvedReformation(s.Args(0, 0.0f)));
    EXPECT_TRUE(RenderCurvedReformation(s.Args(1, 2.0f)));
    CurvedReformationArgs a = s.Args();
    a.height = 4;  // taller than the frame buffers
    EXPECT_FALSE(RenderCurvedReformation(a));
}

TEST(CurvedReformationProperties, StraightThinReformationMatchesThePlanarSlice) {
    CurveScene s;
    s.placement.spacing = {0.8, 0.9, 1.1};
    s.placement.origin = {-3.0, 2.0, 1.0};
    s.volume = VolumeFrom({28, 26, 24}, [](int i, int j, int k) {
        return 2000 + 40 * i - 25 * j + 30 * k + 3 * ((i * j + j * k) % 11);
    }, s.placement);
    const int width = 40, height = 31;
    s.image = TargetImage(width, height);
    const glm::vec3 a{0.3f, 5.7f, 4.6f}, b{18.7f, 16.3f, 19.6f};
    const glm::vec3 tangent = glm::normalize(b - a);
    const glm::vec3 up = glm::normalize(glm::cross(tangent, glm::vec3(0.3f, 1.0f, -0.2f)));
    // One sample per column from a to b, and one past b: the last column lies
    // before the last sample.
    for (int i = 0; i <= width; ++i) s.points.push_back(a + (b - a) * (static_cast<float>(i) / (width - 1)));
    s.ups.assign(width + 1, up);
    s.tangents.assign(width + 1, tangent);
    CurvedReformationArgs args = s.Args();
    args.planeHeight = 24.8f;
    SetCurvedView(args, 0.0f, width - 1.0f, 24.4f, 0.4f);  // rows 12 mm either side of the curve
    ASSERT_TRUE(RenderCurvedReformation(args));

    auto planar = TargetImage(width, height);
    const auto plane = slicetest::PlaneFromCorners(a + 12.0f * up, b + 12.0f * up, a - 12.0f * up,
                                                   b - 12.0f * up, width, height);
    ASSERT_TRUE(zrvolume::RenderOtfSlice(*s.volume, args.worldToVoxel, *planar, plane, {}, 1, 0, *s.table));
    const auto curved = ValueCopy(*s.image), flat = ValueCopy(*planar);
    const auto curvedColour = ColourCopy(*s.image), flatColour = ColourCopy(*planar);
    int inside = 0;
    for (int p = 0; p < width * height; ++p) {
        EXPECT_EQ(ByteOf(curvedColour[p], 3), ByteOf(flatColour[p], 3)) << p;
        EXPECT_LE(std::abs(static_cast<int>(curved[p]) - static_cast<int>(flat[p])), 1) << p;
        inside += ByteOf(flatColour[p], 3) == 255u;
    }
    EXPECT_GT(inside, width * height / 2);
}

TEST(CurvedReformationProperties, ImagesAreIdenticalAtOneAndTwoThreads) {
    CurveScene s({30, 30, 24},
                 [](int i, int j, int k) {
                     const float d = glm::length(glm::vec3(i - 14.5f, j - 14.5f, k - 11.5f));
                     return d < 11.0f ? 2500 - 150 * static_cast<int>(d) + (7 * i + 13 * j + 31 * k) % 17 : 0;
                 },
                 {48, 37});
    s.table = zrobjects::MakeTableObject({zrobjects::WindowTableEntries(1200.0, 2500.0, 4096)});
    s.volume->SetObjParam("_float2_GraidentMagMinMax", glm::vec2(0.0f, 600.0f));
    const int n = 64;
    for (int i = 0; i < n; ++i) {
        const float t = -std::numbers::pi_v<float> + 2.0f * std::numbers::pi_v<float> * i / (n - 1);
        s.points.push_back({14.5f + 8.0f * std::cos(t), 14.5f + 8.0f * std::sin(t), 11.5f + 5.0f * t / 3.1416f});
        s.tangents.push_back({-8.0f * std::sin(t), 8.0f * std::cos(t), 5.0f / 3.1416f});
    }
    s.ups.assign(n, glm::vec3(0, 0, 1));
    for (auto [code, thickness] : {std::pair{0, 0.0f}, {0, 4.0f}, {1, 4.0f}, {10, 6.0f}, {11, 6.0f}, {12, 6.0f}}) {
        CurvedReformationArgs a = s.Args(code, thickness);
        a.planeHeight = 20.0f;
        WholeCurvedView(a);
        a.layerStep = 0.7f;
        a.gradientMagnitude = code == 1;
        a.viewDirection = {0, 1, 0};
        a.clip.clipPlane = true;
        a.clip.planePoint = {14, 14, 16};
        a.clip.planeNormal = {0, 0, 1};
        ExpectSameBytesAtOneAndTwoThreads(*s.image, [&] { return RenderCurvedReformation(a); }, code);
    }
}

}  // namespace
