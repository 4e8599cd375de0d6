#include "volume/kernels/slab_compositing.h"

#include <any>
#include <cmath>
#include <cstdlib>

#include "thick_fixtures.h"
#include "volume/kernels/curved_reformation.h"
#include "volume/kernels/slab_projection.h"

namespace {

using namespace thicktest;

// Two table entries with distinct colours and opacities, everything else clear.
struct Entry {
    int index;
    uint8_t c0, c1, c2, opacity;
};
constexpr Entry kFirst{130, 200, 100, 50, 102};   // opacity 0.4
constexpr Entry kSecond{140, 20, 240, 120, 153};  // opacity 0.6

std::shared_ptr<zrobjects::ZrObject> TwoEntryTable(uint32_t background = 0) {
    std::vector<uint32_t> entries(zrobjects::kFullTableLength, background);
    for (const Entry& e : {kFirst, kSecond}) entries[e.index] = zrobjects::PackEntry(e.c2, e.c1, e.c0, e.opacity);
    return zrobjects::MakeTableObject({entries});
}

struct Layer {
    Entry entry;
    double alpha;  // opacity after any magnitude weighting
    double d;      // |cos| between the gradient and the light
};

// Front-to-back compositing in double precision, straight from the rule.
uint32_t ExpectedPixel(const std::vector<Layer>& layers, glm::dvec4 k) {
    double channel[3] = {0, 0, 0}, a = 0;
    for (const Layer& l : layers) {
        const double shade = k.x + k.y * l.d + k.z * std::pow(l.d, k.w);
        const double c[3] = {l.entry.c0 / 255.0, l.entry.c1 / 255.0, l.entry.c2 / 255.0};
        for (int i = 0; i < 3; ++i) channel[i] += c[i] * l.alpha * shade * (1 - a);
        a += l.alpha * (1 - a);
    }
    const auto limited = [](double x) { return std::min(255, static_cast<int>(x * 255)); };
    const double aByte = limited(a);
    uint32_t bytes[3];
    for (int i = 0; i < 3; ++i) bytes[i] = static_cast<uint32_t>(limited(channel[i]) * aByte / 255.0);
    return bytes[2] | bytes[1] << 8 | bytes[0] << 16 | 0xff000000u;  // switch off: c2 first
}

void ExpectPixelNear(uint32_t actual, uint32_t expected) {
    for (int b = 0; b < 4; ++b)
        EXPECT_LE(std::abs(static_cast<int>(ByteOf(actual, b)) - static_cast<int>(ByteOf(expected, b))), 1)
            << "byte " << b << ": " << std::hex << actual << " vs " << expected;
}

// f = 10 x + 100, so a layer at voxel x samples 10 x + 100 and the unhalved
// gradient inside is (20, 0, 0).
struct RampScene {
    std::shared_ptr<zrobjects::ZrVObjectVolume> volume =
        VolumeFrom({8, 4, 4}, [](int i, int, int) { return 10 * i + 100; });
    std::shared_ptr<zrobjects::ZrObject> table = TwoEntryTable();
    std::shared_ptr<zrobjects::ZrIObject> image = TargetImage(2, 2);

    // A 2 x 2 image in the plane x = `x`, marching `count` layers along +x.
    zrvolume::SlabProjectionArgs Args(float x, int count, int code = 0) const {
        zrvolume::SlabProjectionArgs a;
        a.volume = volume.get();
        a.tableOwner = table.get();
        a.image = image.get();
        a.valueIndex = 0;
        a.width = 2;
        a.height = 2;
        a.geometry.topLeft = {x, 1, 1};
        a.geometry.topRight = {x, 2, 1};
        a.geometry.bottomLeft = {x, 1, 2};
        a.geometry.bottomRight = {x, 2, 2};
        a.geometry.layerStep = {1, 0, 0};
        a.geometry.layerCount = count;
        a.projectionCode = code;
        a.phongCoeffs = {0.3f, 0.6f, 0.4f, 2.0f};
        return a;
    }
    uint32_t Pixel(int p = 0) const { return Colour(*image)[p]; }
};

constexpr glm::dvec4 kPhong{0.3, 0.6, 0.4, 2.0};
const double kRampCos = 20.0 / 20.01;  // gradient (20, 0, 0), light along +x

TEST(SlabCompositing, TwoLayersFrontToBack) {
    RampScene s;
    ASSERT_TRUE(zrvolume::RenderSlabProjection(s.Args(3.0f, 2)));  // samples 130, 140
    const uint32_t expected = ExpectedPixel({{kFirst, 0.4, kRampCos}, {kSecond, 0.6, kRampCos}}, kPhong);
    for (int p = 0; p < 4; ++p) ExpectPixelNear(s.Pixel(p), expected);
    // The order matters: the front layer hides part of the back one.
    ASSERT_TRUE(zrvolume::RenderSlabProjection(
        [&] { auto a = s.Args(4.0f, 2); a.geometry.layerStep = {-1, 0, 0}; return a; }()));
    ExpectPixelNear(s.Pixel(), ExpectedPixel({{kSecond, 0.6, kRampCos}, {kFirst, 0.4, kRampCos}}, kPhong));
}

TEST(SlabCompositing, ClearEntriesAddNothingButCoverageStays) {
    RampScene s;
    ASSERT_TRUE(zrvolume::RenderSlabProjection(s.Args(1.0f, 2)));  // samples 110, 120: clear entries
    EXPECT_EQ(s.Pixel(), 0xff000000u);
    ASSERT_TRUE(zrvolume::RenderSlabProjection(s.Args(-3.0f, 2)));  // outside: entry 0, clear
    EXPECT_EQ(s.Pixel(), 0u);
}

TEST(SlabCompositing, GradientMagnitudeWeightsOpacityByTheVolumesMaximum) {
    RampScene s;
    s.volume->SetObjParam("_float2_GraidentMagMinMax", glm::vec2(5.0f, 40.0f));  // |g| / G = 0.5
    zrvolume::SlabProjectionArgs a = s.Args(3.0f, 2, 1);
    a.gradientMagnitude = true;
    ASSERT_TRUE(zrvolume::RenderSlabProjection(a));
    ExpectPixelNear(s.Pixel(), ExpectedPixel({{kFirst, 0.2, kRampCos}, {kSecond, 0.3, kRampCos}}, kPhong));
    // The flag off ignores the parameter.
    a.gradientMagnitude = false;
    ASSERT_TRUE(zrvolume::RenderSlabProjection(a));
    ExpectPixelNear(s.Pixel(), ExpectedPixel({{kFirst, 0.4, kRampCos}, {kSecond, 0.6, kRampCos}}, kPhong));
}

TEST(SlabCompositing, WithoutAUsableMagnitudeRangeTheWeightingIsOff) {
    const uint32_t unweighted = ExpectedPixel({{kFirst, 0.4, kRampCos}, {kSecond, 0.6, kRampCos}}, kPhong);
    for (int variant = 0; variant < 3; ++variant) {
        RampScene s;
        if (variant == 1) s.volume->SetObjParam("_float2_GraidentMagMinMax", glm::vec2(0.0f, 0.0f));
        if (variant == 2) s.volume->SetObjParam("_float2_GraidentMagMinMax", glm::vec2(0.0f, NAN));
        zrvolume::SlabProjectionArgs a = s.Args(3.0f, 2, 1);
        a.gradientMagnitude = true;
        ASSERT_TRUE(zrvolume::RenderSlabProjection(a));
        ExpectPixelNear(s.Pixel(), unweighted);
    }
}

TEST(SlabCompositing, MistypedMagnitudeRangeThrows) {
    RampScene s;
    s.volume->SetObjParam("_float2_GraidentMagMinMax", glm::dvec2(0.0, 40.0));
    zrvolume::SlabProjectionArgs a = s.Args(3.0f, 2, 1);
    a.gradientMagnitude = true;
    EXPECT_THROW(zrvolume::RenderSlabProjection(a), std::bad_any_cast);
}

TEST(SlabCompositing, GradientSamplesAreClampedIntoTheVolume) {
    // Every entry but 0 is the first colour: a single layer shows its own
    // opacity and shade.
    RampScene s;
    std::vector<uint32_t> entries(zrobjects::kFullTableLength,
                                  zrobjects::PackEntry(kFirst.c2, kFirst.c1, kFirst.c0, kFirst.opacity));
    s.table = zrobjects::MakeTableObject({entries});
    s.volume->SetObjParam("_float2_GraidentMagMinMax", glm::vec2(0.0f, 40.0f));
    zrvolume::SlabProjectionArgs a = s.Args(7.0f, 1, 1);  // the last voxel: f(8) clamps to f(7)
    a.gradientMagnitude = true;
    ASSERT_TRUE(zrvolume::RenderSlabProjection(a));
    ExpectPixelNear(s.Pixel(), ExpectedPixel({{kFirst, 0.4 * 10 / 40, 10 / 10.01}}, kPhong));
    a = s.Args(5.0f, 1, 1);  // inside: |g| = 20
    a.gradientMagnitude = true;
    ASSERT_TRUE(zrvolume::RenderSlabProjection(a));
    ExpectPixelNear(s.Pixel(), ExpectedPixel({{kFirst, 0.4 * 20 / 40, kRampCos}}, kPhong));
    // Beyond the face both samples clamp to the face: no gradient, shade = k0,
    // and the magnitude weighting makes the layer clear.
    a = s.Args(8.2f, 1, 0);
    ASSERT_TRUE(zrvolume::RenderSlabProjection(a));
    const uint32_t flat = ExpectedPixel({{kFirst, 0.4, 0.0}}, kPhong);
    ExpectPixelNear(s.Pixel(), flat & 0x00ffffffu);  // outside: no coverage
    EXPECT_EQ(ByteOf(s.Pixel(), 3), 0u);
}

TEST(SlabCompositing, DegeneratePointsSampleTheGradientInsideTheGrid) {
    // A one-row image puts every layer at a not-a-number point: outside, entry 0
    // (opaque here), and a gradient that must still read inside the volume.
    RampScene s;
    std::vector<uint32_t> entries(zrobjects::kFullTableLength,
                                  zrobjects::PackEntry(kFirst.c2, kFirst.c1, kFirst.c0, kFirst.opacity));
    s.table = zrobjects::MakeTableObject({entries});
    s.image = TargetImage(2, 1);
    zrvolume::SlabProjectionArgs a = s.Args(3.0f, 3);
    a.height = 1;
    ASSERT_TRUE(zrvolume::RenderSlabProjection(a));
    EXPECT_EQ(ByteOf(s.Pixel(), 3), 0u);
    EXPECT_NE(s.Pixel() & 0xffffffu, 0u);  // entry 0 was composited
}

TEST(SlabCompositing, LightAcrossTheGradientLeavesOnlyAmbient) {
    RampScene s;
    zrvolume::SlabProjectionArgs a = s.Args(3.0f, 2);
    a.geometry.layerStep = {0, 0, 0};  // no step: both layers at x = 3, and no light direction
    ASSERT_TRUE(zrvolume::RenderSlabProjection(a));
    ExpectPixelNear(s.Pixel(), ExpectedPixel({{kFirst, 0.4, 0.0}, {kFirst, 0.4, 0.0}}, kPhong));
}

TEST(SlabCompositing, ValueBufferHoldsTheMiddleLayer) {
    RampScene s;
    ASSERT_TRUE(zrvolume::RenderSlabProjection(s.Args(3.0f, 3)));  // 130, 140, 150
    EXPECT_EQ(Values(*s.image)[0], 140);
    ASSERT_TRUE(zrvolume::RenderSlabProjection(s.Args(3.0f, 2)));  // 130, 140
    EXPECT_EQ(Values(*s.image)[0], 130);
}

TEST(SlabCompositing, OpacityBeyondOneIsLimited) {
    // Shade above 1 and a full opacity push the channels past 255.
    zrvolume::CompositeAccumulator acc;
    acc.channel[0] = 1.7f;
    acc.channel[1] = 0.5f;
    acc.channel[2] = -0.2f;
    acc.opacity = 1.3f;
    const uint32_t pixel = zrvolume::CompositedPixel(acc, false, true);
    EXPECT_EQ(ByteOf(pixel, 2), 255u);  // c0, limited
    EXPECT_EQ(ByteOf(pixel, 1), 127u);  // trunc(127.5) * 1
    EXPECT_EQ(ByteOf(pixel, 0), 0u);
    EXPECT_EQ(ByteOf(pixel, 3), 255u);
    EXPECT_EQ(ByteOf(zrvolume::CompositedPixel(acc, true, false), 0), 255u);  // switch on: c0 first
    EXPECT_EQ(ByteOf(zrvolume::CompositedPixel(acc, true, false), 3), 0u);
}

TEST(SlabCompositing, PlanarAndCurvedSlabsOfTheSameDataLookAlike) {
    auto volume = VolumeFrom({24, 24, 24}, [](int i, int j, int k) {
        const float d = glm::length(glm::vec3(i - 11.0f, j - 12.5f, k - 11.5f));
        return d < 9.0f ? static_cast<int>(3000 - 250 * d) : 0;
    });
    volume->SetObjParam("_float2_GraidentMagMinMax", glm::vec2(0.0f, 900.0f));
    auto table = zrobjects::MakeTableObject({zrobjects::ControlPointTableEntries(
        {{0, 0, 0, 0, 0}, {800, 0.9, 0.3, 0.2, 0.05}, {2000, 1.0, 0.9, 0.7, 0.4}, {3000, 1, 1, 1, 0.9}})});
    const int width = 30, height = 21;
    const glm::vec3 start{2, 12, 11.5f}, end{20, 12, 11.5f}, up{0, 0, 1};  // depth axis +y

    for (int code : {0, 1}) {
        auto curvedImage = TargetImage(width, height);
        std::vector<glm::vec3> points, ups(width, up), tangents(width, glm::vec3(1, 0, 0));
        for (int i = 0; i < width; ++i) points.push_back(start + (end - start) * (i / float(width - 1)));
        zrvolume::CurvedReformationArgs c;
        c.volume = volume.get();
        c.tableOwner = table.get();
        c.image = curvedImage.get();
        c.valueIndex = 0;
        c.width = width;
        c.height = height;
        c.curvePoints = points.data();
        c.upVectors = ups.data();
        c.tangents = tangents.data();
        c.curveCount = width;
        c.worldToVoxel = WorldToVoxel();
        c.planeHeight = 16.0f;
        c.projectionCode = code;
        c.thickness = 8.0f;
        c.layerStep = 0.5f;
        c.gradientMagnitude = code == 1;
        c.viewDirection = {0, 1, 0};
        ASSERT_TRUE(zrvolume::RenderCurvedReformation(c));

        auto planarImage = TargetImage(width, height);
        zrvolume::SlicePlane plane;
        plane.corners[0] = start + 8.0f * up;
        plane.corners[1] = end + 8.0f * up;
        plane.corners[2] = start - 8.0f * up;
        plane.corners[3] = end - 8.0f * up;
        zrvolume::SlabProjectionArgs p;
        p.volume = volume.get();
        p.tableOwner = table.get();
        p.image = planarImage.get();
        p.valueIndex = 0;
        p.width = width;
        p.height = height;
        p.geometry = zrvolume::MakeSlabGeometry(plane, WorldToVoxel(), {0, 1, 0}, 8.0f, 0.5f);
        p.projectionCode = code;
        p.gradientMagnitude = code == 1;
        ASSERT_TRUE(zrvolume::RenderSlabProjection(p));

        const std::vector<uint32_t> curved = ColourCopy(*curvedImage), planar = ColourCopy(*planarImage);
        const std::vector<uint16_t> curvedValues = ValueCopy(*curvedImage), planarValues = ValueCopy(*planarImage);
        int visible = 0;
        for (int i = 0; i < width * height; ++i) {
            for (int b = 0; b < 4; ++b)
                EXPECT_LE(std::abs(static_cast<int>(ByteOf(curved[i], b)) - static_cast<int>(ByteOf(planar[i], b))), 2)
                    << "code " << code << " pixel " << i << " byte " << b;
            EXPECT_LE(std::abs(curvedValues[i] - planarValues[i]), 1) << i;
            visible += ByteOf(planar[i], 1) > 20;
        }
        EXPECT_GT(visible, 50) << code;
    }
}

}  // namespace
