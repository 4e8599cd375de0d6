#include "volume/kernels/slab_compositing.h"

#include <any>
#include <cmath>
#include <cstdlib>
#include <set>

#include "thick_fixtures.h"
#include "volume/kernels/curved_reformation.h"
#include "volume/kernels/simd_dispatch.h"
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

// Pixel (0, 0) starts its march half a layer step before the slab's first
// layer (its offset hash is 0, so the offset is 0 / 2^24 - 0.5): with the ramp
// the layers of Args(x + 0.5, ...) sample 10 x + 100, 10 (x + 1) + 100, ...
TEST(SlabCompositing, LayersAreCompositedFrontToBack) {
    RampScene s;
    // Layers at x = 3 and 4: samples 130 and 140, the two coloured entries.
    ExpectPixelNear(s.Render(s.Args(3.5f, 2)), ExpectedPixel({{kFirst, 0.4, kRampCos}, {kSecond, 0.6, kRampCos}}));
    // Pixel (0, 1) starts 0.2549 steps after x = 3.5: it reads entries 138 and
    // 148, both clear, and is covered but colourless.
    EXPECT_EQ(Colour(*s.image)[1], 0xff000000u);
    // The order matters: the front layer hides part of the back one (the
    // offset goes along the step, here -x: layers at 4 and 3).
    ExpectPixelNear(s.Render(s.Args(3.5f, 2, 0, -1.0f)),
                    ExpectedPixel({{kSecond, 0.6, kRampCos}, {kFirst, 0.4, kRampCos}}));
    // Clear entries add nothing, but the pixel stays covered; outside, entry 0 is clear too.
    EXPECT_EQ(s.Render(s.Args(1.5f, 2)), 0xff000000u);
    EXPECT_EQ(s.Render(s.Args(-2.5f, 2)), 0u);
    // No step: both layers at x = 3 in every pixel and no light direction, so
    // only the ambient and the specular d^k3 = 0 terms.
    s.Render(s.Args(3.0f, 2, 0, 0.0f));
    for (int p = 0; p < 4; ++p)
        ExpectPixelNear(Colour(*s.image)[p], ExpectedPixel({{kFirst, 0.4, 0.0}, {kFirst, 0.4, 0.0}}));
}

// The offset of pixel (r, c), straight from its definition: h = c * 0xC13FA9A9
// + r * 0x91E10DA5 modulo 2^32, offset = (h >> 8) / 2^24 - 0.5.
double ExpectedOffset(int r, int c) {
    const uint64_t h = (uint64_t(c) * 0xC13FA9A9u + uint64_t(r) * 0x91E10DA5u) % (uint64_t(1) << 32);
    return static_cast<double>(h >> 8) / 16777216.0 - 0.5;
}

TEST(SlabCompositing, LayerStartOffsetFollowsTheFixedPattern) {
    // Hand-worked offsets of the first pixels.
    EXPECT_DOUBLE_EQ(ExpectedOffset(0, 0), -0.5);
    EXPECT_NEAR(ExpectedOffset(0, 1), 12664745.0 / 16777216.0 - 0.5, 1e-12);  // 0xC13FA9 = 12664745
    EXPECT_NEAR(ExpectedOffset(1, 0), 9560333.0 / 16777216.0 - 0.5, 1e-12);   // 0x91E10D = 9560333
    EXPECT_NEAR(ExpectedOffset(1, 1), 5447863.0 / 16777216.0 - 0.5, 1e-12);   // 0x5320B7 = 5447863

    // One layer per pixel, every pixel starting at x = 3 on the ramp and
    // stepping along +x: the pixel samples 130 + 10 * offset and reads that
    // entry, opaque with red = 2 * (entry - 100); ambient light only, so the
    // red byte (output byte 0) tells the entry (2k or, from rounding, 2k - 1).
    auto volume = VolumeFrom({8, 4, 4}, [](int i, int, int) { return 10 * i + 100; });
    std::vector<uint32_t> entries(zrobjects::kFullTableLength, 0u);
    for (int t = 100; t < 200; ++t) entries[t] = zrobjects::PackEntry(static_cast<uint8_t>(2 * (t - 100)), 0, 0, 255);
    auto table = zrobjects::MakeTableObject({entries});
    const int width = 21, height = 3;  // whole lane groups and a rest on every path
    auto image = TargetImage(width, height);
    zrvolume::SlabGeometry g;
    g.topLeft = g.topRight = g.bottomLeft = g.bottomRight = {3.0f, 1.5f, 1.5f};
    g.layerStep = {1.0f, 0.0f, 0.0f};
    g.layerCount = 1;
    zrvolume::SlabProjectionArgs args = SlabArgs(*volume, *table, *image, g, 0);
    args.phongCoeffs = {1.0f, 0.0f, 0.0f, 1.0f};

    for (zrvolume::SimdTarget target : zrvolume::SupportedSimdTargets()) {
        zrvolume::ForceSimdTarget(target);
        for (int threads : {1, 2}) {
            SCOPED_TRACE(testing::Message() << zrvolume::SimdTargetName(target) << " at " << threads << " threads");
            slicetest::ThreadCount count(threads);
            ASSERT_TRUE(zrvolume::RenderSlabProjection(args));
            std::set<int> distinct;
            double sum = 0.0;
            for (int r = 0; r < height; ++r)
                for (int c = 0; c < width; ++c) {
                    const double sample = 130.0 + 10.0 * ExpectedOffset(r, c);
                    const int entry = (ByteOf(Colour(*image)[r * width + c], 0) + 1) / 2 + 100;
                    // A sample within rounding of a half reads either neighbour.
                    if (std::fabs(sample - std::floor(sample) - 0.5) > 1e-3) {
                        EXPECT_EQ(entry, static_cast<int>(std::floor(sample + 0.5))) << r << ", " << c;
                    }
                    distinct.insert(entry);
                    sum += entry - 130;
                }
            EXPECT_GE(distinct.size(), 9u);                     // spread over the whole step
            EXPECT_LT(std::fabs(sum / (width * height)), 0.6);  // and centred on the layer
        }
    }
    zrvolume::ForceSimdTarget(std::nullopt);
}

TEST(SlabCompositing, MarchStopsOnceNearlyOpaque) {
    // Entry 0 (every point outside the volume reads it) has opacity `opacity`;
    // the march of pixel (0, 0) starts at x = start - 0.5. Coverage tells
    // whether the march reached the first layer inside (x = 0).
    const auto covered = [](uint8_t opacity, float start, int layers) {
        RampScene s;
        std::vector<uint32_t> entries(zrobjects::kFullTableLength, 0u);
        entries[0] = zrobjects::PackEntry(200, 100, 50, opacity);
        s.table = zrobjects::MakeTableObject({entries});
        return ByteOf(s.Render(s.Args(start, layers)), 3) == 255u;
    };
    // One layer of 254/255 leaves A = 0.99608 < 511/512: the march goes on.
    EXPECT_TRUE(covered(254, -0.5f, 2));    // layers at -1 (outside) and 0
    // Two such layers give A = 0.999985: the third layer is never visited.
    EXPECT_FALSE(covered(254, -1.5f, 3));   // layers at -2, -1, 0
    // A fully opaque layer stops it at once.
    EXPECT_FALSE(covered(255, -0.5f, 2));
}

TEST(SlabCompositing, GradientMagnitudeWeightsOpacityLimitedToOne) {
    // |g| / G = 20 / 40 halves the opacities; 20 / 5 would make them 1.6 and
    // 2.4, limited to 1, so the first layer alone is seen. Without the flag,
    // without a range, or with an empty or not-a-number one, they stay.
    const uint32_t weighted = ExpectedPixel({{kFirst, 0.2, kRampCos}, {kSecond, 0.3, kRampCos}});
    const uint32_t limited = ExpectedPixel({{kFirst, 1.0, kRampCos}});
    const uint32_t unweighted = ExpectedPixel({{kFirst, 0.4, kRampCos}, {kSecond, 0.6, kRampCos}});
    struct Case {
        bool flag, set;
        glm::vec2 range;
        uint32_t expected;
    } cases[] = {{true, true, {5, 40}, weighted},     {true, true, {0, 5}, limited},
                 {false, true, {5, 40}, unweighted}, {true, false, {}, unweighted},
                 {true, true, {0, 0}, unweighted},   {true, true, {0, NAN}, unweighted}};
    for (const Case& k : cases) {
        RampScene s;
        if (k.set) s.volume->SetObjParam("_float2_GraidentMagMinMax", k.range);
        zrvolume::SlabProjectionArgs a = s.Args(3.5f, 2, 1);
        a.gradientMagnitude = k.flag;
        ExpectPixelNear(s.Render(a), k.expected);
    }
    RampScene mistyped;
    mistyped.volume->SetObjParam("_float2_GraidentMagMinMax", glm::dvec2(0.0, 40.0));
    zrvolume::SlabProjectionArgs a = mistyped.Args(3.5f, 2, 1);
    a.gradientMagnitude = true;
    EXPECT_THROW(zrvolume::RenderSlabProjection(a), std::bad_any_cast);
}

TEST(SlabCompositing, GradientSamplesAreClampedIntoTheVolume) {
    RampScene s;
    s.table = TwoEntryTable(true);
    s.volume->SetObjParam("_float2_GraidentMagMinMax", glm::vec2(0.0f, 40.0f));
    zrvolume::SlabProjectionArgs a = s.Args(7.5f, 1, 1);  // the last voxel, x = 7: f(8) clamps to f(7)
    a.gradientMagnitude = true;
    ExpectPixelNear(s.Render(a), ExpectedPixel({{kFirst, 0.4 * 10 / 40, 10 / 10.01}}));
    a = s.Args(5.5f, 1, 1);  // inside, x = 5: |g| = 20
    a.gradientMagnitude = true;
    ExpectPixelNear(s.Render(a), ExpectedPixel({{kFirst, 0.4 * 20 / 40, kRampCos}}));
    // Beyond the face (x = 8.2) both samples clamp to the face: no gradient,
    // shade = k0, and no coverage.
    ExpectPixelNear(s.Render(s.Args(8.7f, 1, 0)), ExpectedPixel({{kFirst, 0.4, 0.0}}) & 0x00ffffffu);
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

TEST(SlabCompositing, EntriesAreReadByTheRoundedSample) {
    // A 4096-entry table: the scaled lookup would read entry 8 for the sample
    // 130 (130 * 4096 / 65535 + 0.5 = 8.6); the planar member reads entry 130,
    // and entry 135 for the sample 134.6.
    RampScene s;
    std::vector<uint32_t> entries(4096, 0u);
    entries[130] = entries[135] = Packed(kFirst);
    entries[8] = entries[134] = Packed(kSecond);
    s.table = zrobjects::MakeTableObject({entries});
    ExpectPixelNear(s.Render(s.Args(3.5f, 1)), ExpectedPixel({{kFirst, 0.4, kRampCos}}));   // x = 3
    ExpectPixelNear(s.Render(s.Args(3.96f, 1)), ExpectedPixel({{kFirst, 0.4, kRampCos}}));  // x = 3.46
}

TEST(SlabCompositing, ValueBufferHoldsTheSectionPlaneSample) {
    // The plane lies (layers - 1) / 2 steps from the slab's first layer, at no
    // offset: the same value in every pixel.
    RampScene s;
    s.Render(s.Args(3.0f, 3));  // plane at x = 4
    for (int p = 0; p < 4; ++p) EXPECT_EQ(Values(*s.image)[p], 140);
    s.Render(s.Args(3.0f, 2));  // plane at x = 3.5: 135
    for (int p = 0; p < 4; ++p) EXPECT_EQ(Values(*s.image)[p], 135);
    s.Render(s.Args(-5.0f, 3));  // plane at x = -4, outside
    EXPECT_EQ(Values(*s.image)[0], 0);
    // A clip plane keeping x <= 3.9 clips the plane point: 0, though the first
    // layers are drawn.
    zrvolume::SlabProjectionArgs a = s.Args(3.0f, 3);
    a.clip.clipPlane = true;
    a.clip.planePoint = {3.9f, 0.0f, 0.0f};
    a.clip.planeNormal = {1.0f, 0.0f, 0.0f};
    s.Render(a);
    EXPECT_EQ(Values(*s.image)[0], 0);
    EXPECT_EQ(ByteOf(Colour(*s.image)[0], 3), 255u);
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

// The two members share the scheme, so the same slab of the same data looks
// alike: the same coverage, colour bytes within a few steps of each other.
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
        int visible = 0, worst = 0;
        double total[3] = {0, 0, 0};
        for (int i = 0; i < width * height; ++i) {
            SCOPED_TRACE(testing::Message() << "code " << code << " pixel " << i);
            EXPECT_EQ(ByteOf(curved[i], 3), ByteOf(planar[i], 3));
            for (int b = 0; b < 3; ++b) {
                const int difference = std::abs(int(ByteOf(curved[i], b)) - int(ByteOf(planar[i], b)));
                worst = std::max(worst, difference);
                total[b] += difference;
            }
            visible += ByteOf(planar[i], 1) > 20;
        }
        // The planar member's offset layers, limited opacity and early stop
        // move single bytes by a few steps, never the picture.
        EXPECT_LE(worst, 10) << code;
        for (int b = 0; b < 3; ++b) EXPECT_LE(total[b] / (width * height), 1.5) << code << " byte " << b;
        EXPECT_GT(visible, 50) << code;
    }
}

}  // namespace
