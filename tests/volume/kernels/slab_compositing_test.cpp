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

uint32_t Packed(const Entry& e) { return zrobjects::PackEntry(e.c2, e.c1, e.c0, e.opacity); }

// With `everywhere`, every entry (0 included) is the first colour.
std::shared_ptr<zrobjects::ZrObject> TwoEntryTable(bool everywhere = false) {
    std::vector<uint32_t> entries(zrobjects::kFullTableLength, everywhere ? Packed(kFirst) : 0u);
    for (const Entry& e : {kFirst, kSecond}) entries[e.index] = Packed(e);
    if (everywhere) entries[kSecond.index] = Packed(kFirst);
    return zrobjects::MakeTableObject({entries});
}

struct Layer {
    Entry entry;
    double alpha;  // opacity after any magnitude weighting
    double d;      // |cos| between the gradient and the light
};

constexpr glm::dvec4 kPhong{0.3, 0.6, 0.4, 2.0};
const double kRampCos = 20.0 / 20.01;  // gradient (20, 0, 0), light along +x

// Front-to-back compositing in double precision, straight from the rule.
uint32_t ExpectedPixel(const std::vector<Layer>& layers, glm::dvec4 k = kPhong) {
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

void ExpectPixelNear(uint32_t actual, uint32_t expected, int tolerance = 1) {
    for (int b = 0; b < 4; ++b)
        EXPECT_LE(std::abs(static_cast<int>(ByteOf(actual, b)) - static_cast<int>(ByteOf(expected, b))),
                  tolerance)
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
    zrvolume::SlabProjectionArgs Args(float x, int count, int code = 0, float step = 1.0f) const {
        zrvolume::SlabGeometry g;
        g.topLeft = {x, 1, 1};
        g.topRight = {x, 2, 1};
        g.bottomLeft = {x, 1, 2};
        g.bottomRight = {x, 2, 2};
        g.layerStep = {step, 0, 0};
        g.layerCount = count;
        zrvolume::SlabProjectionArgs a = SlabArgs(*volume, *table, *image, g, code);
        a.phongCoeffs = glm::vec4(kPhong);
        return a;
    }
    uint32_t Render(const zrvolume::SlabProjectionArgs& a, int p = 0) const {
        EXPECT_TRUE(zrvolume::RenderSlabProjection(a));
        return Colour(*image)[p];
    }
};

TEST(SlabCompositing, LayersAreCompositedFrontToBack) {
    RampScene s;
    const uint32_t expected = ExpectedPixel({{kFirst, 0.4, kRampCos}, {kSecond, 0.6, kRampCos}});
    s.Render(s.Args(3.0f, 2));  // samples 130, 140
    for (int p = 0; p < 4; ++p) ExpectPixelNear(Colour(*s.image)[p], expected);
    // The order matters: the front layer hides part of the back one.
    ExpectPixelNear(s.Render(s.Args(4.0f, 2, 0, -1.0f)),
                    ExpectedPixel({{kSecond, 0.6, kRampCos}, {kFirst, 0.4, kRampCos}}));
    // Clear entries add nothing, but the pixel stays covered; outside, entry 0 is clear too.
    EXPECT_EQ(s.Render(s.Args(1.0f, 2)), 0xff000000u);
    EXPECT_EQ(s.Render(s.Args(-3.0f, 2)), 0u);
    // No step: both layers at x = 3 and no light direction, so only the ambient term.
    ExpectPixelNear(s.Render(s.Args(3.0f, 2, 0, 0.0f)),
                    ExpectedPixel({{kFirst, 0.4, 0.0}, {kFirst, 0.4, 0.0}}));
}

TEST(SlabCompositing, GradientMagnitudeWeightsOpacityOnlyWithAUsableRange) {
    // |g| / G = 20 / 40 halves the opacities; without the flag, without a range,
    // or with an empty or not-a-number one, they stay.
    const uint32_t weighted = ExpectedPixel({{kFirst, 0.2, kRampCos}, {kSecond, 0.3, kRampCos}});
    const uint32_t unweighted = ExpectedPixel({{kFirst, 0.4, kRampCos}, {kSecond, 0.6, kRampCos}});
    struct Case {
        bool flag, set;
        glm::vec2 range;
        uint32_t expected;
    } cases[] = {{true, true, {5, 40}, weighted},
                 {false, true, {5, 40}, unweighted},
                 {true, false, {}, unweighted},
                 {true, true, {0, 0}, unweighted},
                 {true, true, {0, NAN}, unweighted}};
    for (const Case& k : cases) {
        RampScene s;
        if (k.set) s.volume->SetObjParam("_float2_GraidentMagMinMax", k.range);
        zrvolume::SlabProjectionArgs a = s.Args(3.0f, 2, 1);
        a.gradientMagnitude = k.flag;
        ExpectPixelNear(s.Render(a), k.expected);
    }
    RampScene mistyped;
    mistyped.volume->SetObjParam("_float2_GraidentMagMinMax", glm::dvec2(0.0, 40.0));
    zrvolume::SlabProjectionArgs a = mistyped.Args(3.0f, 2, 1);
    a.gradientMagnitude = true;
    EXPECT_THROW(zrvolume::RenderSlabProjection(a), std::bad_any_cast);
}

TEST(SlabCompositing, GradientSamplesAreClampedIntoTheVolume) {
    RampScene s;
    s.table = TwoEntryTable(true);
    s.volume->SetObjParam("_float2_GraidentMagMinMax", glm::vec2(0.0f, 40.0f));
    zrvolume::SlabProjectionArgs a = s.Args(7.0f, 1, 1);  // the last voxel: f(8) clamps to f(7)
    a.gradientMagnitude = true;
    ExpectPixelNear(s.Render(a), ExpectedPixel({{kFirst, 0.4 * 10 / 40, 10 / 10.01}}));
    a = s.Args(5.0f, 1, 1);  // inside: |g| = 20
    a.gradientMagnitude = true;
    ExpectPixelNear(s.Render(a), ExpectedPixel({{kFirst, 0.4 * 20 / 40, kRampCos}}));
    // Beyond the face both samples clamp to the face: no gradient, shade = k0,
    // and no coverage.
    ExpectPixelNear(s.Render(s.Args(8.2f, 1, 0)), ExpectedPixel({{kFirst, 0.4, 0.0}}) & 0x00ffffffu);
    EXPECT_EQ(ByteOf(Colour(*s.image)[0], 3), 0u);
    // A one-row image puts every layer at a not-a-number point: outside, entry
    // 0 (opaque here), and a gradient that must still read inside the volume.
    s.image = TargetImage(2, 1);
    a = s.Args(3.0f, 3);
    a.height = 1;
    const uint32_t degenerate = s.Render(a);
    EXPECT_EQ(ByteOf(degenerate, 3), 0u);
    EXPECT_NE(degenerate & 0xffffffu, 0u);
}

TEST(SlabCompositing, ValueBufferHoldsTheMiddleLayer) {
    RampScene s;
    s.Render(s.Args(3.0f, 3));  // 130, 140, 150
    EXPECT_EQ(Values(*s.image)[0], 140);
    s.Render(s.Args(3.0f, 2));  // 130, 140
    EXPECT_EQ(Values(*s.image)[0], 130);
}

TEST(SlabCompositing, ChannelsBeyondOneAreLimitedAndScaledByTheOpacity) {
    zrvolume::CompositeAccumulator acc;
    acc.channel[0] = 1.7f;
    acc.channel[1] = 0.5f;
    acc.channel[2] = -0.2f;
    acc.opacity = 1.3f;
    const uint32_t pixel = zrvolume::CompositedPixel(acc, false, true);
    EXPECT_EQ(pixel, 0xff000000u | 255u << 16 | 127u << 8);  // c0 limited, trunc(127.5) * 1, c2 none
    const uint32_t swapped = zrvolume::CompositedPixel(acc, true, false);
    EXPECT_EQ(ByteOf(swapped, 0), 255u);  // switch on: c0 first
    EXPECT_EQ(ByteOf(swapped, 3), 0u);
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
    std::vector<glm::vec3> points, ups(width + 1, up), tangents(width + 1, glm::vec3(1, 0, 0));
    for (int i = 0; i <= width; ++i) points.push_back(start + (end - start) * (i / float(width - 1)));
    const auto plane = slicetest::PlaneFromCorners(start + 8.0f * up, end + 8.0f * up, start - 8.0f * up,
                                                   end - 8.0f * up, width, height);

    for (int code : {0, 1}) {
        auto curvedImage = TargetImage(width, height), planarImage = TargetImage(width, height);
        zrvolume::CurvedReformationArgs c = CurvedArgs(*volume, *table, *curvedImage, points, ups, tangents);
        c.planeHeight = 16.8f;
        SetCurvedView(c, 0.0f, width - 1.0f, 16.4f, 0.4f);  // rows 8 mm either side of the curve
        c.projectionCode = code;
        c.thickness = 8.0f;
        c.layerStep = 0.5f;
        // The curved slab starts T / 2 in front of its surface, the planar one
        // centres its 16 layers (7.5 mm): the surface moves by the difference.
        c.halfThickness = 0.25f;
        c.gradientMagnitude = code == 1;
        c.viewDirection = {0, 1, 0};
        ASSERT_TRUE(zrvolume::RenderCurvedReformation(c));
        zrvolume::SlabProjectionArgs p =
            SlabArgs(*volume, *table, *planarImage,
                     zrvolume::MakeSlabGeometry(plane, WorldToVoxel(), {0, 1, 0}, 8.0f, 0.5f), code);
        p.gradientMagnitude = code == 1;
        ASSERT_TRUE(zrvolume::RenderSlabProjection(p));

        const auto curved = ColourCopy(*curvedImage), planar = ColourCopy(*planarImage);
        const auto curvedValues = ValueCopy(*curvedImage), planarValues = ValueCopy(*planarImage);
        int visible = 0;
        for (int i = 0; i < width * height; ++i) {
            SCOPED_TRACE(testing::Message() << "code " << code << " pixel " << i);
            ExpectPixelNear(curved[i], planar[i], 2);
            EXPECT_LE(std::abs(curvedValues[i] - planarValues[i]), 1);
            visible += ByteOf(planar[i], 1) > 20;
        }
        EXPECT_GT(visible, 50) << code;
    }
}

}  // namespace
