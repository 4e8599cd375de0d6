#include "volume/kernels/slab_projection.h"

#include <any>
#include <cmath>
#include <cstdlib>

#include "thick_fixtures.h"

namespace {

using namespace thicktest;
using zrvolume::RenderSlabProjection;
using zrvolume::SlabGeometry;
using zrvolume::SlabProjectionArgs;

// Pixel (c, r) starts at start + (c, r, 0) and marches `count` layers of `step`.
SlabGeometry GridSlab(glm::vec3 start, int width, int height, glm::vec3 step, int count) {
    SlabGeometry g;
    g.topLeft = start;
    g.topRight = start + glm::vec3(width - 1, 0, 0);
    g.bottomLeft = start + glm::vec3(0, height - 1, 0);
    g.bottomRight = start + glm::vec3(width - 1, height - 1, 0);
    g.layerStep = step;
    g.layerCount = count;
    return g;
}

struct Scene {
    std::shared_ptr<zrobjects::ZrVObjectVolume> volume;
    std::shared_ptr<zrobjects::ZrObject> table = IndexTable();
    std::shared_ptr<zrobjects::ZrIObject> image;

    SlabProjectionArgs Args(const SlabGeometry& g, int code) const {
        SlabProjectionArgs a;
        a.volume = volume.get();
        a.tableOwner = table.get();
        a.image = image.get();
        a.colourIndex = 1;
        a.valueIndex = 0;
        a.width = image->Width();
        a.height = image->Height();
        a.geometry = g;
        a.projectionCode = code;
        return a;
    }
    uint16_t Value(int c, int r) const { return Values(*image)[r * image->Width() + c]; }
    uint32_t Pixel(int c, int r) const { return Colour(*image)[r * image->Width() + c]; }
};

// Voxel value 10 k + 5: layer z = k samples exactly 10 k + 5.
Scene RampAlongZ() {
    Scene s;
    s.volume = VolumeFrom({6, 5, 10}, [](int, int, int k) { return 10 * k + 5; });
    s.image = TargetImage(4, 3);
    return s;
}

// ---- Reductions -----------------------------------------------------------

TEST(SlabProjectionReductions, MaximumMinimumAndAverageOfARamp) {
    Scene s = RampAlongZ();
    const SlabGeometry g = GridSlab({1, 1, 1}, 4, 3, {0, 0, 1}, 4);  // samples 15, 25, 35, 45
    const std::pair<int, uint16_t> expected[] = {{10, 45}, {11, 15}, {12, 30}};
    for (auto [code, value] : expected) {
        ASSERT_TRUE(RenderSlabProjection(s.Args(g, code))) << code;
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 4; ++c) {
                EXPECT_EQ(s.Value(c, r), value) << "code " << code;
                EXPECT_EQ(ByteOf(s.Pixel(c, r), 3), 255u);
                // The table entry read is the value itself (direct index).
                EXPECT_EQ(ByteOf(s.Pixel(c, r), 2) | ByteOf(s.Pixel(c, r), 1) << 8, value);
            }
    }
}

TEST(SlabProjectionReductions, MinimumIsPulledToZeroByALayerOutsideTheVolume) {
    Scene s = RampAlongZ();
    // Layers z = 7, 8, 9, 10; the last lies beyond the far face (z < 9.5 fails).
    const SlabGeometry g = GridSlab({1, 1, 7}, 4, 3, {0, 0, 1}, 4);
    ASSERT_TRUE(RenderSlabProjection(s.Args(g, 11)));
    EXPECT_EQ(s.Value(2, 1), 0);
    EXPECT_EQ(ByteOf(s.Pixel(2, 1), 3), 255u);  // the other layers were inside
    ASSERT_TRUE(RenderSlabProjection(s.Args(g, 10)));
    EXPECT_EQ(s.Value(2, 1), 95);
    ASSERT_TRUE(RenderSlabProjection(s.Args(g, 12)));
    EXPECT_EQ(s.Value(2, 1), 85);  // (75 + 85 + 95) / 3: the outside zero is not counted
}

TEST(SlabProjectionReductions, AverageSkipsZerosAndTruncates) {
    Scene s;
    s.volume = VolumeFrom({4, 4, 6}, [](int, int, int k) { return k == 2 ? 10 : (k == 4 ? 1 : (k == 5 ? 2 : 0)); });
    s.image = TargetImage(4, 4);
    ASSERT_TRUE(RenderSlabProjection(s.Args(GridSlab({0, 0, 0}, 4, 4, {0, 0, 1}, 3), 12)));  // 0, 0, 10
    EXPECT_EQ(s.Value(1, 1), 10);
    ASSERT_TRUE(RenderSlabProjection(s.Args(GridSlab({0, 0, 4}, 4, 4, {0, 0, 1}, 2), 12)));  // 1, 2
    EXPECT_EQ(s.Value(1, 1), 1);
    ASSERT_TRUE(RenderSlabProjection(s.Args(GridSlab({0, 0, 4}, 4, 4, {0, 0, 1}, 2), 10)));
    EXPECT_EQ(s.Value(1, 1), 2);
}

TEST(SlabProjectionReductions, AllClippedPixelsEndWithValueZeroAndNoCoverage) {
    Scene s = RampAlongZ();
    SlabProjectionArgs a = s.Args(GridSlab({1, 1, 1}, 4, 3, {0, 0, 1}, 4), 10);
    a.clip.clipPlane = true;
    a.clip.planePoint = {0, 0, 100};
    a.clip.planeNormal = {0, 0, -1};  // everything below z = 100 is beyond the plane
    for (int code : {10, 11, 12}) {
        a.projectionCode = code;
        ASSERT_TRUE(RenderSlabProjection(a));
        EXPECT_EQ(s.Value(3, 2), 0) << code;
        EXPECT_EQ(ByteOf(s.Pixel(3, 2), 3), 0u) << code;
        EXPECT_EQ(s.Pixel(3, 2) & 0xffffffu, 0u) << code;  // entry 0 is black
    }
}

// ---- The clipped-layer rule ----------------------------------------------

TEST(SlabProjectionClipping, AClippedLayerDoesNotAdvanceThePoint) {
    Scene s = RampAlongZ();
    SlabProjectionArgs a = s.Args(GridSlab({1, 1, 1}, 4, 3, {0, 0, 1}, 6), 10);
    a.clip.clipPlane = true;
    a.clip.planePoint = {0, 0, 2.5f};
    a.clip.planeNormal = {0, 0, -1};  // z < 2.5 is clipped
    // The first layer (z = 1) is clipped; had the march advanced, z = 3..6 would
    // have counted. It stays at z = 1, so nothing counts.
    ASSERT_TRUE(RenderSlabProjection(a));
    EXPECT_EQ(s.Value(0, 0), 0);
    EXPECT_EQ(ByteOf(s.Pixel(0, 0), 3), 0u);
}

TEST(SlabProjectionClipping, MarchEndsAtTheFirstClippedLayer) {
    Scene s = RampAlongZ();
    SlabProjectionArgs a = s.Args(GridSlab({1, 1, 1}, 4, 3, {0, 0, 1}, 6), 10);
    a.clip.clipPlane = true;
    a.clip.planePoint = {0, 0, 1.5f};
    a.clip.planeNormal = {0, 0, 1};  // z > 1.5 is clipped: only the first layer counts
    ASSERT_TRUE(RenderSlabProjection(a));
    EXPECT_EQ(s.Value(2, 2), 15);
    a.projectionCode = 11;
    ASSERT_TRUE(RenderSlabProjection(a));
    EXPECT_EQ(s.Value(2, 2), 15);
}

TEST(SlabProjectionClipping, ClipBoxRemovesLayersOutsideTheUnitCube) {
    Scene s = RampAlongZ();
    SlabProjectionArgs a = s.Args(GridSlab({1, 1, 1}, 4, 3, {0, 0, 1}, 8), 10);
    a.clip.clipBox = true;
    // Box space = voxel space shifted so that the box spans z in [2.5, 3.5] and
    // every x, y: the march z = 1 starts outside it and never moves.
    glm::mat4 box(1.0f);
    box[0][0] = 0.0f;
    box[1][1] = 0.0f;
    box[3][2] = -3.0f;
    a.clip.boxMatrix = zrvolume::ToMatrixRecord(box);
    ASSERT_TRUE(RenderSlabProjection(a));
    EXPECT_EQ(s.Value(1, 1), 0);
    // Starting inside the box, the march counts z = 3 and stops at z = 4.
    a.geometry = GridSlab({1, 1, 3}, 4, 3, {0, 0, 1}, 8);
    ASSERT_TRUE(RenderSlabProjection(a));
    EXPECT_EQ(s.Value(1, 1), 35);
}

// ---- Lookup, buffers, degenerate images, dispatch ---------------------------

TEST(SlabProjectionLookup, TheValueIndexesTheRowDirectly) {
    Scene s;
    s.volume = VolumeFrom({3, 3, 3}, [](int, int, int) { return 300; });
    s.table = IndexTable(4096);  // the scaled lookup would read entry 19 for 300
    s.image = TargetImage(3, 3);
    ASSERT_TRUE(RenderSlabProjection(s.Args(GridSlab({0, 0, 0}, 3, 3, {0, 0, 1}, 3), 10)));
    EXPECT_EQ(ByteOf(s.Pixel(1, 1), 2) | ByteOf(s.Pixel(1, 1), 1) << 8, 300u);
}

TEST(SlabProjectionBuffers, WithoutAValueBufferOnlyColourIsWritten) {
    Scene s = RampAlongZ();
    SlabProjectionArgs a = s.Args(GridSlab({1, 1, 1}, 4, 3, {0, 0, 1}, 2), 10);
    a.valueIndex = -1;
    ASSERT_TRUE(RenderSlabProjection(a));
    EXPECT_EQ(s.Value(0, 0), kUntouchedValue);
    EXPECT_NE(s.Pixel(0, 0), kUntouchedPixel);
}

TEST(SlabProjectionDegenerate, OneRowImageSamplesNothing) {
    Scene s;
    s.volume = VolumeFrom({6, 6, 6}, [](int, int, int) { return 100; });
    s.image = TargetImage(5, 1);
    ASSERT_TRUE(RenderSlabProjection(s.Args(GridSlab({1, 1, 1}, 5, 1, {0, 0, 1}, 3), 10)));
    for (int c = 0; c < 5; ++c) {
        EXPECT_EQ(s.Value(c, 0), 0);
        EXPECT_EQ(ByteOf(s.Pixel(c, 0), 3), 0u);
    }
}

TEST(SlabProjectionDispatch, UnknownCodesAndBadTargetsReturnFalse) {
    Scene s = RampAlongZ();
    const SlabGeometry g = GridSlab({1, 1, 1}, 4, 3, {0, 0, 1}, 2);
    for (int code : {-1, 2, 9, 13, 101}) EXPECT_FALSE(RenderSlabProjection(s.Args(g, code))) << code;
    EXPECT_EQ(s.Pixel(0, 0), kUntouchedPixel);
    SlabProjectionArgs a = s.Args(g, 10);
    a.width = 5;  // wider than the frame buffers
    EXPECT_FALSE(RenderSlabProjection(a));
    a = s.Args(g, 10);
    a.colourIndex = 7;
    EXPECT_FALSE(RenderSlabProjection(a));
    for (int code : {0, 1, 10, 11, 12}) EXPECT_TRUE(RenderSlabProjection(s.Args(g, code))) << code;
}

TEST(SlabProjectionDispatch, MistypedTableThrows) {
    Scene s = RampAlongZ();
    s.table = std::make_shared<zrobjects::ZrObject>(zrenums::EzrObjectType_Table);
    s.table->SetObjParam("_TableMap_OTF", std::any(42));
    EXPECT_THROW(RenderSlabProjection(s.Args(GridSlab({1, 1, 1}, 4, 3, {0, 0, 1}, 2), 10)), std::bad_any_cast);
    EXPECT_EQ(s.Pixel(0, 0), kUntouchedPixel);
}

TEST(SlabProjectionDispatch, FloatVolumesAreNotDrawn) {
    Scene s = RampAlongZ();
    s.volume = VolumeFrom<float>({4, 4, 4}, [](int, int, int) { return 1.0f; });
    EXPECT_FALSE(RenderSlabProjection(s.Args(GridSlab({1, 1, 1}, 4, 3, {0, 0, 1}, 2), 10)));
}

// ---- Geometry from the driver's inputs -------------------------------------

TEST(SlabGeometryFromPlane, TwentyMillimetresAtPointFourGiveFiftyCentredLayers) {
    zrobjects::VolumeGeometry placement;
    placement.spacing = {0.4, 0.4, 0.5};
    const zrvolume::Matrix16 worldToVoxel = WorldToVoxel(placement);
    zrvolume::SlicePlane plane;
    plane.corners[0] = {4, 8, 40};    // top-left
    plane.corners[1] = {20, 8, 40};   // top-right
    plane.corners[2] = {4, 16, 40};   // bottom-left
    plane.corners[3] = {20, 16, 40};  // bottom-right
    const SlabGeometry g = zrvolume::MakeSlabGeometry(plane, worldToVoxel, {0, 0, 2}, 20.0f, 0.4f);
    EXPECT_EQ(g.layerCount, 50);
    // First layer 9.8 mm in front of the plane; one layer is 0.4 mm = 0.8 voxel in z.
    EXPECT_NEAR(g.topLeft.x, 10.0f, 1e-4f);
    EXPECT_NEAR(g.topLeft.y, 20.0f, 1e-4f);
    EXPECT_NEAR(g.topLeft.z, (40.0f - 9.8f) / 0.5f, 1e-4f);
    EXPECT_NEAR(g.topRight.x, 50.0f, 1e-4f);
    EXPECT_NEAR(g.bottomLeft.y, 40.0f, 1e-4f);
    EXPECT_NEAR(g.bottomRight.x, 50.0f, 1e-4f);
    EXPECT_NEAR(g.bottomRight.y, 40.0f, 1e-4f);
    EXPECT_NEAR(g.layerStep.x, 0.0f, 1e-6f);
    EXPECT_NEAR(g.layerStep.z, 0.8f, 1e-6f);
    // The last layer lies as far behind the plane as the first lies in front.
    const float lastZ = g.topLeft.z + 49.0f * g.layerStep.z;
    EXPECT_NEAR(0.5f * (g.topLeft.z + lastZ), 80.0f, 1e-3f);
}

TEST(SlabGeometryFromPlane, ObliqueViewAndThinSlabs) {
    zrvolume::SlicePlane plane;
    for (auto& c : plane.corners) c = {5, 5, 5};
    const zrvolume::Matrix16 identity = WorldToVoxel();
    SlabGeometry g = zrvolume::MakeSlabGeometry(plane, identity, {1, 1, 0}, 3.0f, 1.0f);
    EXPECT_EQ(g.layerCount, 3);
    const float h = std::sqrt(0.5f);
    EXPECT_NEAR(g.layerStep.x, h, 1e-6f);
    EXPECT_NEAR(g.layerStep.y, h, 1e-6f);
    EXPECT_NEAR(g.topLeft.x, 5.0f - h, 1e-5f);
    // Thinner than half a spacing, or without a usable pitch: one layer on the plane.
    g = zrvolume::MakeSlabGeometry(plane, identity, {0, 0, 1}, 0.3f, 1.0f);
    EXPECT_EQ(g.layerCount, 1);
    EXPECT_NEAR(g.topLeft.z, 5.0f, 1e-6f);
    g = zrvolume::MakeSlabGeometry(plane, identity, {0, 0, 1}, 5.0f, 0.0f);
    EXPECT_EQ(g.layerCount, 1);
}

// ---- Properties -------------------------------------------------------------

TEST(SlabProjectionProperties, MaximumShowsOneBrightVoxelExactlyWhereTheSlabCoversIt) {
    const glm::ivec3 dims{12, 12, 12};
    const glm::ivec3 brights[] = {{3, 4, 6}, {8, 2, 1}, {5, 9, 10}};
    for (const glm::ivec3 bright : brights) {
        Scene s;
        s.volume = VolumeFrom(dims, [bright](int i, int j, int k) { return glm::ivec3(i, j, k) == bright ? 1000 : 0; });
        s.image = TargetImage(12, 12);
        for (int centre = 0; centre < 12; ++centre) {
            for (int layers : {1, 3, 5}) {
                zrvolume::SlicePlane plane;
                plane.corners[0] = {0, 0, centre};
                plane.corners[1] = {11, 0, centre};
                plane.corners[2] = {0, 11, centre};
                plane.corners[3] = {11, 11, centre};
                const SlabGeometry g =
                    zrvolume::MakeSlabGeometry(plane, WorldToVoxel(), {0, 0, 1}, static_cast<float>(layers), 1.0f);
                ASSERT_TRUE(RenderSlabProjection(s.Args(g, 10)));
                const bool covered = std::abs(bright.z - centre) <= (layers - 1) / 2;
                for (int r = 0; r < 12; ++r)
                    for (int c = 0; c < 12; ++c) {
                        const bool here = covered && c == bright.x && r == bright.y;
                        ASSERT_EQ(s.Value(c, r), here ? 1000 : 0)
                            << "pixel " << c << "," << r << " centre " << centre << " layers " << layers;
                    }
            }
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
    const glm::vec3 view = glm::normalize(glm::vec3(1, 0, 1));
    const glm::vec3 across = glm::normalize(glm::vec3(1, 0, -1));
    const glm::vec3 down{0, 1, 0};
    const glm::vec3 centre{7.5f, 7.5f, 7.5f};
    zrvolume::SlicePlane plane;
    const float half = 9.5f * 0.8f;  // 20 pixels, 0.8 mm apart
    plane.corners[0] = centre - half * across - half * down;
    plane.corners[1] = centre + half * across - half * down;
    plane.corners[2] = centre - half * across + half * down;
    plane.corners[3] = centre + half * across + half * down;
    const SlabGeometry g = zrvolume::MakeSlabGeometry(plane, WorldToVoxel(), view, 6.0f, 1.0f);
    ASSERT_EQ(g.layerCount, 6);

    std::vector<uint16_t> result[3];
    for (int n = 0; n < 3; ++n) {
        ASSERT_TRUE(RenderSlabProjection(s.Args(g, 10 + n)));
        result[n] = ValueCopy(*s.image);
    }
    int checked = 0;
    for (int r = 0; r < 20; ++r)
        for (int c = 0; c < 20; ++c) {
            // Away from the faces: the first and the last layer both inside.
            const float tr = r / 19.0f, tc = c / 19.0f;
            const glm::vec3 left = (1 - tr) * g.topLeft + tr * g.bottomLeft;
            const glm::vec3 right = (1 - tr) * g.topRight + tr * g.bottomRight;
            const glm::vec3 first = (1 - tc) * left + tc * right;
            const glm::vec3 last = first + 5.0f * g.layerStep;
            const auto inside = [&](glm::vec3 p) {
                return glm::all(glm::greaterThan(p, glm::vec3(0.5f))) &&
                       glm::all(glm::lessThan(p, glm::vec3(dims) - 1.5f));
            };
            if (!inside(first) || !inside(last)) continue;
            ++checked;
            const int maximum = result[0][r * 20 + c], minimum = result[1][r * 20 + c], average = result[2][r * 20 + c];
            EXPECT_LE(std::abs(maximum - minimum), 1) << c << "," << r;
            EXPECT_GE(maximum, average);
            EXPECT_LE(maximum - average, 1) << c << "," << r;
            // And the value is the function at the pixel's slab centre.
            const glm::vec3 mid = first + 2.5f * g.layerStep;
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
    zrvolume::SlicePlane plane;
    plane.corners[0] = {-2, 1, 3};
    plane.corners[1] = {25, 4, 12};
    plane.corners[2] = {0, 20, 2};
    plane.corners[3] = {27, 23, 11};
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
