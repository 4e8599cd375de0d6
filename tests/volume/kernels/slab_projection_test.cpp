#include "volume/kernels/slab_projection.h"

#include <any>
#include <cmath>
#include <cstdlib>

#include "thick_fixtures.h"

namespace {

using namespace thicktest;
using slicetest::PlaneFromCorners;
using zrvolume::RenderSlabProjection;
using zrvolume::SlabGeometry;
using zrvolume::SlabProjectionArgs;

// Pixel (c, r) starts at start + (c, r, 0) and marches `count` layers of +z.
SlabGeometry GridSlab(glm::vec3 start, int width, int height, int count) {
    SlabGeometry g;
    g.topLeft = start;
    g.topRight = start + glm::vec3(width - 1, 0, 0);
    g.bottomLeft = start + glm::vec3(0, height - 1, 0);
    g.bottomRight = start + glm::vec3(width - 1, height - 1, 0);
    g.layerStep = {0, 0, 1};
    g.layerCount = count;
    return g;
}

// Voxel value 10 k + 5 (layer z = k samples exactly 10 k + 5) in a 40 x 5 x 10
// grid, and a 36 x 3 image: rows wide enough for the vector paths' full lanes
// and strips as well as their per-pixel tails.
struct Scene {
    std::shared_ptr<zrobjects::ZrVObjectVolume> volume =
        VolumeFrom({40, 5, 10}, [](int, int, int k) { return 10 * k + 5; });
    std::shared_ptr<zrobjects::ZrObject> table = IndexTable();
    std::shared_ptr<zrobjects::ZrIObject> image = TargetImage(36, 3);

    SlabProjectionArgs Args(const SlabGeometry& g, int code) const {
        return SlabArgs(*volume, *table, *image, g, code);
    }
    SlabProjectionArgs Args(float z, int count, int code) const {
        return Args(GridSlab({1, 1, z}, image->Width(), image->Height(), count), code);
    }
    uint16_t Value(int c, int r) const { return Values(*image)[r * image->Width() + c]; }
    uint32_t Pixel(int c, int r) const { return Colour(*image)[r * image->Width() + c]; }
    // Every pixel holds `value`, its coverage and the table entry the value indexes.
    void ExpectEverywhere(int value, bool covered) const {
        for (int r = 0; r < image->Height(); ++r)
            for (int c = 0; c < image->Width(); ++c) {
                EXPECT_EQ(Value(c, r), value) << c << "," << r;
                EXPECT_EQ(ByteOf(Pixel(c, r), 3), covered ? 255u : 0u) << c << "," << r;
                EXPECT_EQ(ByteOf(Pixel(c, r), 2) | ByteOf(Pixel(c, r), 1) << 8, static_cast<uint32_t>(value));
            }
    }
};

TEST(SlabProjectionReductions, MaximumMinimumAndTruncatedAverageOverTheLayers) {
    // Layers of the ramp sample 10 z + 5; the sparse volume holds 10 at z = 2,
    // 1 at z = 4 and 2 at z = 5, zero elsewhere.
    const auto sparse =
        VolumeFrom({40, 5, 6}, [](int, int, int k) { return k == 2 ? 10 : (k == 4 ? 1 : (k == 5 ? 2 : 0)); });
    struct Case {
        bool ramp;
        float z;
        int count, code, expected;
    } cases[] = {
        {true, 1, 4, 10, 45},
        {true, 1, 4, 11, 15},
        {true, 1, 4, 12, 30},
        // z = 7 ... 10: the last layer lies beyond the far face. The minimum is
        // pulled to zero by it, the average does not count it: (75 + 85 + 95) / 3.
        {true, 7, 4, 11, 0},
        {true, 7, 4, 10, 95},
        {true, 7, 4, 12, 85},
        // The average skips zero samples and truncates: 0, 0, 10 gives 10; 1, 2 gives 1.
        {false, 0, 3, 12, 10},
        {false, 4, 2, 12, 1},
        {false, 4, 2, 10, 2},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(testing::Message()
                     << "code " << k.code << " from z " << k.z << (k.ramp ? " ramp" : " sparse"));
        Scene s;
        if (!k.ramp) s.volume = sparse;
        ASSERT_TRUE(RenderSlabProjection(s.Args(k.z, k.count, k.code)));
        s.ExpectEverywhere(k.expected, true);
    }
}

// The march stops at the first clipped layer without moving past it, so a
// clipped first layer leaves the pixel with nothing: value 0, entry 0, no coverage.
TEST(SlabProjectionClipping, TheMarchEndsAtTheFirstClippedLayer) {
    glm::mat4 box(1.0f);  // box space spans z in [2.5, 3.5] and every x, y
    box[0][0] = box[1][1] = 0.0f;
    box[3][2] = -3.0f;
    struct Case {
        const char* name;
        glm::vec3 point, normal;  // clip plane, when not the box
        float z;
        std::vector<int> codes;
        int expected;
    } cases[] = {
        {"all beyond the plane", {0, 0, 100}, {0, 0, -1}, 1, {10, 11, 12}, 0},
        {"first layer clipped", {0, 0, 2.5f}, {0, 0, -1}, 1, {10}, 0},
        {"only the first layer kept", {0, 0, 1.5f}, {0, 0, 1}, 1, {10, 11}, 15},
        {"box, starting outside", {}, {}, 1, {10}, 0},
        {"box, z = 3 inside, z = 4 ends", {}, {}, 3, {10}, 35},
    };
    for (const Case& k : cases)
        for (int code : k.codes) {
            SCOPED_TRACE(testing::Message() << k.name << ", code " << code);
            Scene s;
            SlabProjectionArgs a = s.Args(k.z, 8, code);
            a.clip.clipBox = k.normal == glm::vec3(0.0f);
            a.clip.clipPlane = !a.clip.clipBox;
            a.clip.boxMatrix = zrcommon::ToMatrixRecord(box);
            a.clip.planePoint = k.point;
            a.clip.planeNormal = k.normal;
            ASSERT_TRUE(RenderSlabProjection(a));
            s.ExpectEverywhere(k.expected, k.expected != 0);
        }
}

TEST(SlabProjectionLookup, TheValueIndexesTheRowDirectlyAndTheValueBufferIsOptional) {
    Scene s;
    s.volume = VolumeFrom({40, 5, 6}, [](int, int, int) { return 300; });
    s.table = IndexTable(4096);  // the scaled lookup would read entry 19 for 300
    ASSERT_TRUE(RenderSlabProjection(s.Args(1, 3, 10)));
    s.ExpectEverywhere(300, true);
    // Without a value buffer only the colour is written.
    Scene w;
    SlabProjectionArgs a = w.Args(1, 2, 10);
    a.valueIndex = -1;
    ASSERT_TRUE(RenderSlabProjection(a));
    EXPECT_EQ(w.Value(0, 0), kUntouchedValue);
    EXPECT_EQ(w.Pixel(0, 0), 0xff000000u | 25u << 16);  // the maximum of 15 and 25
}

TEST(SlabProjectionDegenerate, AOneRowImageSamplesNothing) {
    Scene s;
    s.image = TargetImage(36, 1);
    ASSERT_TRUE(RenderSlabProjection(s.Args(1, 3, 10)));
    s.ExpectEverywhere(0, false);
}

TEST(SlabProjectionDispatch, UnknownCodesBadTargetsAndFloatVolumesReturnFalseAndMistypedTablesThrow) {
    Scene s;
    for (int code : {-1, 2, 9, 13, 101}) EXPECT_FALSE(RenderSlabProjection(s.Args(1, 2, code))) << code;
    SlabProjectionArgs a = s.Args(1, 2, 10);
    a.width = 37;  // wider than the frame buffers
    EXPECT_FALSE(RenderSlabProjection(a));
    a = s.Args(1, 2, 10);
    a.colourIndex = 7;
    EXPECT_FALSE(RenderSlabProjection(a));
    auto floats = VolumeFrom<float>({4, 4, 4}, [](int, int, int) { return 1.0f; });
    a = s.Args(1, 2, 10);
    a.volume = floats.get();
    EXPECT_FALSE(RenderSlabProjection(a));
    auto mistyped = std::make_shared<zrobjects::ZrObject>(zrenums::EzrObjectType_Table);
    mistyped->SetObjParam("_TableMap_OTF", std::any(42));
    a = s.Args(1, 2, 10);
    a.tableOwner = mistyped.get();
    EXPECT_THROW(RenderSlabProjection(a), std::bad_any_cast);
    EXPECT_EQ(s.Pixel(0, 0), kUntouchedPixel);
    for (int code : {0, 1, 10, 11, 12}) EXPECT_TRUE(RenderSlabProjection(s.Args(1, 2, code))) << code;
}

TEST(SlabGeometryFromPlane, LayersAreCentredOnThePlaneAndCountThicknessOverPitch) {
    // 20 mm at 0.4 mm: fifty layers, the first 9.8 mm in front of the plane; one
    // layer is 0.8 voxel in z at 0.5 mm slices.
    zrobjects::VolumeGeometry placement;
    placement.spacing = {0.4, 0.4, 0.5};
    const auto plane = PlaneFromCorners({4, 8, 40}, {20, 8, 40}, {4, 16, 40}, {20, 16, 40}, 0, 0);
    SlabGeometry g = zrvolume::MakeSlabGeometry(plane, WorldToVoxel(placement), {0, 0, 2}, 20.0f, 0.4f);
    EXPECT_EQ(g.layerCount, 50);
    const float first = (40.0f - 9.8f) / 0.5f;
    const std::pair<glm::vec3, glm::vec3> corners[] = {{g.topLeft, {10, 20, first}},
                                                       {g.topRight, {50, 20, first}},
                                                       {g.bottomLeft, {10, 40, first}},
                                                       {g.bottomRight, {50, 40, first}},
                                                       {g.layerStep, {0, 0, 0.8f}}};
    for (const auto& [got, want] : corners) EXPECT_NEAR(glm::distance(got, want), 0.0f, 1e-4f);
    EXPECT_NEAR(g.topLeft.z + 24.5f * g.layerStep.z, 80.0f, 1e-3f);

    // Oblique view: unit steps along it, the first layer one step back.
    const auto point = PlaneFromCorners({5, 5, 5}, {5, 5, 5}, {5, 5, 5}, {5, 5, 5}, 0, 0);
    g = zrvolume::MakeSlabGeometry(point, WorldToVoxel(), {1, 1, 0}, 3.0f, 1.0f);
    const float h = std::sqrt(0.5f);
    EXPECT_EQ(g.layerCount, 3);
    EXPECT_NEAR(glm::distance(g.layerStep, glm::vec3(h, h, 0)), 0.0f, 1e-6f);
    EXPECT_NEAR(g.topLeft.x, 5.0f - h, 1e-5f);
    // Thinner than half a pitch, or without a usable pitch: one layer on the plane.
    g = zrvolume::MakeSlabGeometry(point, WorldToVoxel(), {0, 0, 1}, 0.3f, 1.0f);
    EXPECT_EQ(g.layerCount, 1);
    EXPECT_NEAR(g.topLeft.z, 5.0f, 1e-6f);
    EXPECT_EQ(zrvolume::MakeSlabGeometry(point, WorldToVoxel(), {0, 0, 1}, 5.0f, 0.0f).layerCount, 1);
}

TEST(SlabProjectionProperties, MaximumShowsOneBrightVoxelExactlyWhereTheSlabCoversIt) {
    for (const glm::ivec3 bright : {glm::ivec3(3, 4, 6), glm::ivec3(8, 2, 1), glm::ivec3(5, 9, 10)}) {
        Scene s;
        s.volume = VolumeFrom(
            {12, 12, 12}, [bright](int i, int j, int k) { return glm::ivec3(i, j, k) == bright ? 1000 : 0; });
        s.image = TargetImage(12, 12);
        for (int centre = 0; centre < 12; ++centre)
            for (int layers : {1, 3, 5}) {
                const float z = static_cast<float>(centre);
                const auto plane = PlaneFromCorners({0, 0, z}, {11, 0, z}, {0, 11, z}, {11, 11, z}, 0, 0);
                ASSERT_TRUE(
                    RenderSlabProjection(s.Args(zrvolume::MakeSlabGeometry(plane, WorldToVoxel(), {0, 0, 1},
                                                                           static_cast<float>(layers), 1.0f),
                                                10)));
                const bool covered = std::abs(bright.z - centre) <= (layers - 1) / 2;
                for (int r = 0; r < 12; ++r)
                    for (int c = 0; c < 12; ++c)
                        ASSERT_EQ(s.Value(c, r), covered && c == bright.x && r == bright.y ? 1000 : 0)
                            << c << "," << r << " centre " << centre << " layers " << layers;
            }
    }
}

TEST(SlabProjectionProperties, ReductionsAgreeOnAVolumeConstantAlongTheView) {
    // f = 10 i + 7 j - 10 k + 200 is constant along (1, 0, 1); trilinear
    // sampling reproduces a linear function, so every layer samples the same.
    const glm::ivec3 dims{16, 16, 16};
    Scene s;
    s.volume = VolumeFrom(dims, [](int i, int j, int k) { return 10 * i + 7 * j - 10 * k + 200; });
    s.image = TargetImage(20, 20);
    const glm::vec3 across = glm::normalize(glm::vec3(1, 0, -1)) * 7.6f, down{0, 7.6f, 0}, centre{7.5f};
    const auto plane = PlaneFromCorners(centre - across - down, centre + across - down,
                                        centre - across + down, centre + across + down, 0, 0);
    const SlabGeometry g =
        zrvolume::MakeSlabGeometry(plane, WorldToVoxel(), glm::normalize(glm::vec3(1, 0, 1)), 6.0f, 1.0f);
    ASSERT_EQ(g.layerCount, 6);
    std::vector<uint16_t> result[3];
    for (int n = 0; n < 3; ++n) {
        ASSERT_TRUE(RenderSlabProjection(s.Args(g, 10 + n)));
        result[n] = ValueCopy(*s.image);
    }
    const auto inside = [&](glm::vec3 p) {
        return glm::all(glm::greaterThan(p, glm::vec3(0.5f))) &&
               glm::all(glm::lessThan(p, glm::vec3(dims) - 1.5f));
    };
    int checked = 0;
    for (int r = 0; r < 20; ++r)
        for (int c = 0; c < 20; ++c) {
            const float tr = r / 19.0f, tc = c / 19.0f;
            const glm::vec3 first = (1 - tc) * ((1 - tr) * g.topLeft + tr * g.bottomLeft) +
                                    tc * ((1 - tr) * g.topRight + tr * g.bottomRight);
            if (!inside(first) || !inside(first + 5.0f * g.layerStep)) continue;  // away from the faces
            ++checked;
            const int maximum = result[0][r * 20 + c], minimum = result[1][r * 20 + c], average = result[2][r * 20 + c];
            EXPECT_LE(std::abs(maximum - minimum), 1) << c << "," << r;
            EXPECT_GE(maximum, average);
            EXPECT_LE(maximum - average, 1) << c << "," << r;
            const glm::vec3 mid = first + 2.5f * g.layerStep;  // the function at the slab centre
            EXPECT_NEAR(maximum, 10 * mid.x + 7 * mid.y - 10 * mid.z + 200, 1.0);
        }
    EXPECT_GT(checked, 50);
}

TEST(SlabProjectionProperties, ImagesAreIdenticalAtOneAndTwoThreads) {
    Scene s;
    s.volume = VolumeFrom({24, 20, 18}, [](int i, int j, int k) {
        const float d = glm::length(glm::vec3(i - 11.5f, j - 9.5f, k - 8.5f));
        return d < 7.0f ? 3000 - 200 * static_cast<int>(d) + (i * 7 + j * 13 + k * 31) % 17 : 10;
    });
    s.table = zrobjects::MakeTableObject({zrobjects::WindowTableEntries(1500.0, 3000.0, 4096)});
    s.image = TargetImage(33, 29);
    const auto plane = PlaneFromCorners({-2, 1, 3}, {25, 4, 12}, {0, 20, 2}, {27, 23, 11}, 0, 0);
    const glm::vec3 view = glm::normalize(glm::cross(plane.corners[1] - plane.corners[0], plane.corners[2] - plane.corners[0]));
    const SlabGeometry g = zrvolume::MakeSlabGeometry(plane, WorldToVoxel(), view, 8.0f, 0.7f);
    for (int code : {0, 1, 10, 11, 12}) {
        SlabProjectionArgs a = s.Args(g, code);
        a.clip.clipPlane = true;
        a.clip.planePoint = {12, 10, 9};
        a.clip.planeNormal = glm::normalize(glm::vec3(1, 1, 0));
        ExpectSameBytesAtOneAndTwoThreads(*s.image, [&] { return RenderSlabProjection(a); }, code);
    }
}

}  // namespace
