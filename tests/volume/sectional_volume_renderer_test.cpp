// The sectional volume driver (volume/*.cpp) through DoModule: fast quality
// mode against full quality, iso lines in both, the renderer chain's weighted
// merge, and curved views under pan and zoom.
#include <gtest/gtest.h>

#include <algorithm>
#include <any>
#include <vector>

#include "host/mesh_builder.h"
#include "tests/end_to_end/volume_scene.h"

using namespace e2e;

namespace {

// A straight centre line along world x through (0, y, z): `samples` samples a
// millimetre apart, up = +z.
ParamMap CurveAlongX(float planeHeight, int samples = 16, glm::vec2 yz = {7.5f, 3.5f}) {
    std::vector<glm::vec3> points, ups(samples, glm::vec3(0, 0, 1)), tangents(samples, glm::vec3(1, 0, 0));
    for (int k = 0; k < samples; ++k) points.push_back({float(k), yz.x, yz.y});
    return {{"_bool_IsNonlinear", true},
            {"_float_ExPlaneWidth", float(samples - 1)},
            {"_float_ExPlaneHeight", planeHeight},
            {"_vlist_FLOAT3_CurveInterpolations", points},
            {"_vlist_FLOAT3_CurveUpVectors", ups},
            {"_vlist_FLOAT3_CurveTangentVectors", tangents}};
}

// 257 x 257 pixels an eighth of a millimetre apart over a 40 mm ramp that
// covers them all, with fast mode reducing by exactly 2. Flat: the drawn
// rectangle is the whole image. Curved: a 40 mm centre line runs past both
// sides; its 9.9375 mm of rows span screen 88.25 .. 167.75. Samples lie on an
// eighth-millimetre lattice, moved off the volume's faces and (by 1/32 of a
// value through z and through y, where no sampler clamps) off the values where
// truncation (flat) or rounding (curved) tips, so the last bits of a position
// cannot show.
Scene LatticeScene(bool curved, const ParamMap& params) {
    constexpr float kOffsetZ = 1.0f / 1600.0f, kOffsetY = 1.0f / 96.0f;
    SectionView view = AxialView(257, 0.125, 3.0 + kOffsetZ);
    view.centre = curved ? glm::dvec3(0.0) : glm::dvec3(20.0, 20.0, view.centre.z);
    Scene scene = RampScene(view, curved ? CurveAlongX(9.9375f, 41, {7.5f + kOffsetY, 3.5f + kOffsetZ}) : ParamMap{});
    scene.request.scene.clear();
    scene.volumes.clear();
    scene.Add(RampVolume(glm::dvec3(1.0), {40, 40, 8}));
    return scene.With({{"_int_LengthFastModeMax", 129}, {"_bool_StoreSampleValueToCustomBuffer", true}}).With(params);
}

// The documented layout: the reduced image covers the drawn rectangle from lo
// with reduced pixel (i, j) on full pixel (lo.x + 2 i, lo.y + 2 j), so there the
// enlarged picture holds the reduced pixel itself and must equal full quality
// bit for bit.
TEST(FastQuality, ReducedPixelsLieExactlyOnTheirFullPixels) {
    struct Case {
        bool curved;
        glm::ivec2 lo, steps;
    } const cases[] = {{false, {0, 0}, {128, 128}}, {true, {0, 88}, {128, 40}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.curved ? "curved" : "flat");
        std::vector<uint32_t> colours[2];
        std::vector<uint16_t> values[2];
        for (bool fast : {false, true}) {
            Scene scene = LatticeScene(c.curved, {{"_bool_IsFastQualityMode", fast}});
            ASSERT_TRUE(scene.Run());
            EXPECT_EQ(scene.image->CountFrameBuffers(3), fast ? 2 : 1);
            colours[fast] = scene.Colours();
            values[fast] = scene.Values();
        }
        int covered = 0;
        for (int j = 0; j <= c.steps.y; ++j)
            for (int i = 0; i <= c.steps.x; ++i) {
                const int p = (c.lo.y + 2 * j) * 257 + c.lo.x + 2 * i;
                ASSERT_EQ(colours[1][p], colours[0][p]) << "reduced " << i << "," << j;
                ASSERT_EQ(values[1][p], values[0][p]) << "reduced " << i << "," << j;
                covered += colours[0][p] >> 24 != 0;
            }
        EXPECT_GT(covered, (c.steps.x + 1) * (c.steps.y + 1) / 2);
    }
}

// A renderer later in the chain draws a real slab (pitch 1 mm < 4 mm) where the
// depth buffer marks every pixel: each colour byte is mixed as B w + F (1 - w)
// with the new layer B, the earlier one F and the default weight w = 0.7. In
// fast mode the enlarged layer is mixed the same way (in 0..1 units), checked
// where the enlarged pixel is the reduced one.
TEST(RendererChain, ASlabOverAnEarlierLayerIsMixedByTheDefaultWeight) {
    const float w = 0.7f;
    const auto byte = [](uint32_t pixel, int b) { return static_cast<float>((pixel >> (8 * b)) & 0xffu); };
    for (bool fast : {false, true}) {
        SCOPED_TRACE(fast ? "fast" : "full");
        Scene scene = LatticeScene(false, {});
        ASSERT_TRUE(scene.Run());  // the earlier layer: a thin slice
        scene.image->InsertFrameBuffer(MakeDataType<float>(), 2, "depth");
        std::fill_n(static_cast<float*>(scene.Buffer(2, 0).pixels), 257 * 257, 1.0f);
        ASSERT_TRUE(scene
                        .With({{"_bool_IsFirstRenderer", false},
                               {"_bool_IsFastQualityMode", fast},
                               {"_int_VolumeRayCastType", 10},
                               {"_float_PlaneThickness", 4.0f}})
                        .Run());
        const auto front = scene.Colours(1), back = scene.Colours(2), out = scene.Colours(0);
        int mixed = 0;
        for (int y = 0; y < 257; y += fast ? 2 : 1)
            for (int x = 0; x < 257; x += fast ? 2 : 1) {
                const int i = y * 257 + x;
                const uint32_t f = front[i], b = fast ? back[(y / 2) * 257 + x / 2] : back[i];
                ASSERT_NE(f >> 24, 0u);  // the earlier layer covers every pixel
                uint32_t expected = 0xff000000u;
                for (int c = 0; c < 3; ++c) {
                    const float v = fast ? ((1.0f - w) * (byte(f, c) * 0.003921569f) + w * (byte(b, c) * 0.003921569f)) * 255.0f
                                         : byte(b, c) * w + byte(f, c) * (1.0f - w);
                    expected |= static_cast<uint32_t>(v) << (8 * c);
                }
                ASSERT_EQ(out[i], expected) << x << "," << y;
                mixed += byte(f, 0) != byte(b, 0);
            }
        EXPECT_GT(mixed, 1000);
    }
}

TEST(FastQuality, IsoLinesAreDrawnAtFullResolutionAndListedAsAtFullQuality) {
    std::vector<uint32_t> picture[2][2];  // [fast][lines drawn]
    std::vector<double> listed[2];
    for (bool fast : {false, true})
        for (int lines : {0, 1, 2}) {  // none, drawn, listed
            Scene scene = LatticeScene(false, {{"_bool_IsFastQualityMode", fast}});
            ASSERT_TRUE(scene
                            .With({{"_bool_DrawIsoBoundary", lines != 0},
                                   {"_bool_GetBoundaryLines", lines == 2},
                                   {"_int_TargetVolumeObjectID", scene.volumes[0]->GetObjectID()},
                                   {"_int_IsoValueBoundary", 500},
                                   {"_double4_ColorIso", glm::dvec4(1.0, 0.0, 1.0, 1.0)}})
                            .Run());
            if (lines < 2) picture[fast][lines] = scene.Colours();
            else listed[fast] = std::any_cast<std::vector<double>>(scene.request.params["_vlist_DOUBLE_IsoLines3"]);
        }
    EXPECT_FALSE(listed[0].empty());
    EXPECT_EQ(listed[1], listed[0]);
    // The line pixels of the full-quality picture, and nothing else, are drawn
    // over the fast picture.
    int linePixels = 0;
    for (size_t i = 0; i < picture[0][0].size(); ++i) {
        const bool line = picture[0][1][i] != picture[0][0][i];
        linePixels += line;
        ASSERT_EQ(picture[1][1][i], line ? picture[0][1][i] : picture[1][0][i]) << i % 257 << "," << i / 257;
    }
    EXPECT_GT(linePixels, 200);
}

// A volume with two steps (+2000 from x = 10, +1000 from z = 5) whose middles
// (x = 9.5 and z = 4.5, where trilinear sampling is half-way) hold a mesh wall
// and floor; a curved view along x at y = 7.5 cuts both. Wherever the camera
// pans and zooms, the mesh lines lie on the volume's steps, at the column and
// row that the camera gives them.
TEST(CurvedView, VolumeAndMeshFeaturesPanAndZoomTogether) {
    std::vector<unsigned short> voxels;
    for (int z = 0; z < 8; ++z)
        for (int y = 0; y < 16; ++y)
            for (int x = 0; x < 16; ++x) voxels.push_back((x >= 10 ? 2000 : 0) + (z >= 5 ? 1000 : 0));
    MeshArrays wallAndFloor;
    wallAndFloor.positions = {9.5, -1, -1, 9.5, 17, -1,  9.5, 17, 9,  9.5, -1, 9,
                              -1, -1, 4.5, 17, -1, 4.5,  17, 17, 4.5, -1, 17, 4.5};
    wallAndFloor.indices = {0, 1, 2, 0, 2, 3, 4, 5, 6, 4, 6, 7};
    const auto mesh = MakeMeshPrimitive(wallAndFloor);
    constexpr uint32_t kMeshColour = 0xff00ff00u;  // green, either byte order

    // (camera centre x, y; millimetres per pixel across, down): the whole
    // curve, then panned and zoomed in.
    for (auto [centre, spacing] : {std::pair{glm::dvec2(0, 0), glm::dvec2(15.0 / 64, 8.4 / 32)},
                                   {glm::dvec2(2.32, -1.12), glm::dvec2(0.1)}}) {
        SCOPED_TRACE(testing::Message() << "centre " << centre.x << ", " << centre.y);
        SectionView view;
        view.centre = {centre.x, centre.y, 0};
        view.pixelSpacing = spacing;
        view.size = {64, 32};
        Scene scene;
        scene.image = MakeSectionImage(view);
        scene.Add(MakeVolume<unsigned short>(voxels, {16, 16, 8}));
        SceneEntry meshEntry;
        meshEntry.object = mesh.get();
        meshEntry.colour = {0, 1, 0};
        scene.request.scene.push_back(meshEntry);
        scene.request.params["_ZrIObject*_RenderOut"] = scene.image.get();
        scene.With(CurveAlongX(8.4f)).With({{"_bool_IsFirstRenderer", true}, {"_bool_StoreSampleValueToCustomBuffer", true}});
        ASSERT_TRUE(scene.Run());
        scene.With({{"_string_RenderingSourceType", std::string("SECTIONAL_MESH")},
                    {"_bool_IsFirstRenderer", false},
                    {"_bool_IsFinalRenderer", true}});
        ASSERT_TRUE(scene.Run());

        // Curve x = world x along the image's rows from the origin + 7.5; the
        // lateral offset runs up, so z = 3.5 - world y.
        const int wallColumn = static_cast<int>(std::lround((9.5 - 7.5 - centre.x) / spacing.x + 31.5));
        const int floorRow = static_cast<int>(std::lround((3.5 - 4.5 - centre.y) / spacing.y + 15.5));
        const int upperRow = floorRow - static_cast<int>(std::ceil(0.6 / spacing.y));        // z above 5
        const int leftColumn = wallColumn - static_cast<int>(std::ceil(0.6 / spacing.x));  // x below 9
        ASSERT_GE(upperRow, 0);
        ASSERT_GE(leftColumn, 0);
        for (int x = 0; x < 64; ++x)
            EXPECT_EQ(scene.Pixel(1, 0, x, upperRow) == kMeshColour, x == wallColumn) << "column " << x;
        for (int y = 0; y < 32; ++y)
            EXPECT_EQ(scene.Pixel(1, 0, leftColumn, y) == kMeshColour, y == floorRow) << "row " << y;
        // The volume's steps are half-way between the neighbours of the lines.
        EXPECT_LT(scene.Value(wallColumn - 1, upperRow), 2000);
        EXPECT_GT(scene.Value(wallColumn + 1, upperRow), 2000);
        EXPECT_GT(scene.Value(leftColumn, floorRow - 1), 500);
        EXPECT_LT(scene.Value(leftColumn, floorRow + 1), 500);
    }
}

}  // namespace
