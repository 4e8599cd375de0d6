// "SECTIONAL_VOLUME" requests through the loaded plug-in's DoModule, checked
// against the analytic ramp the scenes hold.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "tests/end_to_end/volume_scene.h"

using namespace e2e;

namespace {

const char* kDescriptor = "CPU Unified Renderer By Orrik 2019.07.22";
const ParamMap kStoreValues{{"_bool_StoreSampleValueToCustomBuffer", true}};

std::string Capture(const std::function<void()>& body) {
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(VolumeRequest, AThinSliceSamplesTheVolumeAndIsCopiedToTheOutput) {
    Scene scene = RampScene(AxialView(), kStoreValues);
    // The source type defaults to the sectional volume.
    EXPECT_EQ(Capture([&] { EXPECT_TRUE(scene.Run()); }), "");
    EXPECT_EQ(Plugin().getProgress(), 100.0);
    EXPECT_EQ(scene.image->GetDescriptor(), kDescriptor);
    EXPECT_EQ(scene.Buffer(1, 0).descriptor,
              "default render out frame buffer Out : defined in zerpha_inbuilt_renderercpu module");
    EXPECT_EQ(scene.Buffer(3, 0).descriptor,
              "sample render out frame buffer Backup : defined in zerpha_inbuilt_renderercpu module");
    EXPECT_EQ(scene.image->GetFrameBuffer(1, 2), nullptr);
    for (int r = 1; r < 31; ++r)
        for (int c = 1; c < 31; ++c) {
            const glm::dvec3 p = AxialPixel(c, r);
            ASSERT_NEAR(scene.Value(c, r), std::trunc(Ramp(p.x, p.y, p.z)), 1.0)
                << c << "," << r;  // truncated
            ASSERT_EQ(scene.Pixel(1, 0, c, r), scene.Pixel(1, 1, c, r));
            ASSERT_EQ(scene.Pixel(1, 0, c, r) >> 24, 255u);
        }
    // A second request reuses the buffers.
    FrameBuffer* out = &scene.Buffer(1, 0);
    ASSERT_TRUE(scene.Run());
    EXPECT_EQ(&scene.Buffer(1, 0), out);
    EXPECT_EQ(scene.image->CountFrameBuffers(1), 2);
    EXPECT_EQ(scene.image->CountFrameBuffers(3), 1);
}

TEST(VolumeRequest, SlabModesReduceTheLayersAlongTheView) {
    // Four layers one voxel apart, centred on z = 3: z = 1.5, 2.5, 3.5, 4.5.
    for (auto [mode, z, rounding] : {std::tuple{10, 4.5, 0.5}, {11, 1.5, 0.5}, {12, 3.0, 0.0}}) {
        Scene scene = RampScene(AxialView(), kStoreValues);
        ASSERT_TRUE(scene.With({{"_int_VolumeRayCastType", mode}, {"_float_PlaneThickness", 4.0f}}).Run());
        for (int r = 2; r < 30; r += 3)
            for (int c = 2; c < 30; c += 3) {
                const glm::dvec3 p = AxialPixel(c, r);
                ASSERT_NEAR(scene.Value(c, r), std::trunc(Ramp(p.x, p.y, z) + rounding), 1.0)
                    << mode << ": " << c << "," << r;
            }
    }
}

TEST(VolumeRequest, APlaneThinnerThanAVoxelIsDrawnAsASliceWhateverTheMode) {
    Scene thin = RampScene(AxialView(), kStoreValues), slice = RampScene(AxialView(), kStoreValues);
    ASSERT_TRUE(thin.With({{"_int_VolumeRayCastType", 12}, {"_float_PlaneThickness", 0.5f}}).Run());
    ASSERT_TRUE(slice.Run());
    EXPECT_EQ(thin.Colours(), slice.Colours());
    EXPECT_EQ(thin.Values(), slice.Values());
}

TEST(VolumeRequest, AForcedModeCarriesOverToLaterVolumes) {
    // A coarse volume (pitch 1) forces mode 0 on a 0.5 mm plane; a fine one
    // (pitch 0.25) drawn after it keeps mode 0 (a composited slab) instead of
    // the maximum slab asked for. Each draw covers the whole target, so the
    // output is the last volume's.
    const auto render = [](std::vector<bool> coarse, int mode) {
        Scene scene =
            RampScene(AxialView(), {{"_int_VolumeRayCastType", mode}, {"_float_PlaneThickness", 0.5f}});
        scene.request.scene.clear();
        scene.volumes.clear();
        for (bool isCoarse : coarse)
            scene.Add(isCoarse ? RampVolume() : RampVolume(glm::dvec3(0.25), glm::ivec3(16)));
        const std::string out = Capture([&] { EXPECT_TRUE(scene.Run()); });
        EXPECT_EQ(out.find("WARNNING!! Current version does not support multi-volume rendering\n") == 0,
                  coarse.size() > 1);
        return scene.Colours();
    };
    const auto composited = render({false}, 0);
    ASSERT_NE(composited, render({false}, 10));
    EXPECT_EQ(render({true, false}, 10), composited);
    EXPECT_EQ(render({false, true}, 10), render({true}, 0)) << "the coarse volume, drawn last, is a slice";
}

TEST(VolumeRequest, SilentModesAndVolumesWithoutAWindowingTableDrawNothing) {
    for (int mode : {5, 13, 100, 119, 121, -1}) {
        Scene scene =
            RampScene(AxialView(), {{"_int_VolumeRayCastType", mode}, {"_float_PlaneThickness", 4.0f}});
        EXPECT_EQ(Capture([&] { EXPECT_TRUE(scene.Run()); }), "") << mode;
        EXPECT_TRUE(AllZero(scene.Buffer(1, 0), 32 * 32 * 4)) << mode;
    }
    Scene scene = RampScene();
    scene.volumes[0]->SetTableObject("WINDOWING", nullptr);
    EXPECT_EQ(Capture([&] { EXPECT_TRUE(scene.Run()); }),
              "No Windowing Tables for Volume (" + std::to_string(scene.volumes[0]->GetObjectID()) + ")\n");
    EXPECT_TRUE(AllZero(scene.Buffer(1, 0), 32 * 32 * 4));
    EXPECT_EQ(scene.image->GetDescriptor(), kDescriptor);
}

TEST(VolumeRequest, AnEmptySceneStillClearsComposesAndLabels) {
    Scene scene = RampScene();
    scene.request.scene.clear();
    scene.request.params.erase("_bool_IsFirstRenderer");
    scene.image->SetObjParam("_bool_SkipSrOnPlaneRenderer", true);
    scene.image->SetObjParam("_bool_SkipMeshCuttingRenderer", true);
    scene.image->InsertFrameBuffer(MakeDataType<color4>(), 1, "earlier Out");
    scene.image->InsertFrameBuffer(MakeDataType<color4>(), 1, "earlier Backup");
    std::memset(scene.Buffer(1, 1).pixels, 0x5a, 32 * 32 * 4);
    EXPECT_TRUE(scene.Run());
    // Both skip flags set: no blending, so the target is buffer 1, cleared.
    EXPECT_EQ(scene.image->GetFrameBuffer(1, 2), nullptr);
    EXPECT_TRUE(AllZero(scene.Buffer(1, 1), 32 * 32 * 4));
    EXPECT_TRUE(AllZero(scene.Buffer(1, 0), 32 * 32 * 4));
    EXPECT_EQ(scene.image->GetDescriptor(), kDescriptor);
}

TEST(VolumeRequest, TheRendererChainMergesTheNewLayerUnderTheEarlierOne) {
    Scene scene = RampScene(AxialView(32, 0.75));  // the volume covers only the middle of the image
    ASSERT_TRUE(scene.Run());
    const std::vector<uint32_t> first = scene.Colours();
    // The next renderer of the chain draws a small constant volume over it.
    scene.request.scene.clear();
    scene.volumes.clear();
    scene.Add(MakeVolume<unsigned short>(std::vector<unsigned short>(4 * 4 * 4, 640), {4, 4, 4}));
    ASSERT_TRUE(scene.With({{"_bool_IsFirstRenderer", false}}).Run());
    ASSERT_NE(scene.image->GetFrameBuffer(1, 2), nullptr);
    const auto front = scene.Colours(1), back = scene.Colours(2), got = scene.Colours(0);
    EXPECT_EQ(front, first) << "the earlier result stays in buffer 1";
    int fromEarlier = 0, fromNew = 0;
    for (int i = 0; i < 32 * 32; ++i) {
        uint32_t expected = back[i];
        if (front[i] >> 24) {
            const double fa = (front[i] >> 24) / 255.0, ba = (back[i] >> 24) / 255.0;
            expected = 0xff000000u;
            for (int c = 0; c < 3; ++c) {
                const double f = (front[i] >> (8 * c)) & 0xff, b = (back[i] >> (8 * c)) & 0xff;
                expected |= static_cast<uint32_t>(b * ba * (1.0 - fa) + f * fa) << (8 * c);
            }
        }
        for (int c = 0; c < 4; ++c)
            ASSERT_NEAR(double((got[i] >> (8 * c)) & 0xff), double((expected >> (8 * c)) & 0xff), 1.0) << i;
        fromEarlier += (front[i] >> 24) != 0;
        fromNew += (front[i] >> 24) == 0 && (back[i] >> 24) != 0;
    }
    EXPECT_GT(fromEarlier, 0);
    EXPECT_EQ(fromNew, 0) << "the small volume lies wholly inside the earlier one";
}

TEST(VolumeRequest, IsoLinesAreReturnedOnTheIsoValueOrDrawnInTheirColour) {
    Scene scene = RampScene();
    auto& p = scene.request.params;
    scene.With({{"_bool_DrawIsoBoundary", true},
                {"_bool_GetBoundaryLines", true},
                {"_int_TargetVolumeObjectID", scene.volumes[0]->GetObjectID()},
                {"_int_IsoValueBoundary", 300},
                {"_double4_ColorIso", glm::dvec4(1.0, 1.0, 0.0, 1.0)}});
    ASSERT_TRUE(scene.Run());
    ASSERT_TRUE(p.count("_vlist_DOUBLE_IsoLines3"));
    EXPECT_FALSE(p.count("_vlist_DOUBLE_IsoLines0"));
    const auto& lines = std::any_cast<const std::vector<double>&>(p["_vlist_DOUBLE_IsoLines3"]);
    ASSERT_FALSE(lines.empty());
    ASSERT_EQ(lines.size() % 4, 0u);
    for (size_t k = 0; k < lines.size(); k += 2) {
        // Screen pixel to world: the axial view at 0.5 mm per pixel.
        const glm::dvec3 w(7.5 + (lines[k] - 15.5) * 0.5, 7.5 + (lines[k + 1] - 15.5) * 0.5, 3.0);
        EXPECT_NEAR(Ramp(w.x, w.y, w.z), 300.0, 12.0) << "point " << k / 2;
    }

    Scene drawn = RampScene();
    ASSERT_TRUE(drawn
                    .With({{"_bool_DrawIsoBoundary", true},
                           {"_int_TargetVolumeObjectID", drawn.volumes[0]->GetObjectID()},
                           {"_int_Density0", 280},
                           {"_double4_ColorOuter", glm::dvec4(0.0, 1.0, 0.0, 1.0)}})
                    .Run());
    const auto colours = drawn.Colours();
    EXPECT_GT(std::count(colours.begin(), colours.end(), 0xff00ff00u), 8);
    EXPECT_FALSE(drawn.request.params.count("_vlist_DOUBLE_IsoLines0")) << "drawn lines are not returned";
}

TEST(VolumeRequest, AMistypedParameterLeavesDoModuleAsBadAnyCast) {
    Scene scene = RampScene(AxialView(), {{"_float_PlaneThickness", 4.0}});
    EXPECT_THROW(scene.Run(), std::bad_any_cast);
    EXPECT_EQ(Plugin().getProgress(), 0.0);
}

TEST(VolumeRequest, FloatVolumesAreWindowedToGreyLevels) {
    Scene scene = RampScene();
    scene.request.scene.clear();
    std::vector<float> voxels;
    for (int z = 0; z < 8; ++z)
        for (int y = 0; y < 16; ++y)
            for (int x = 0; x < 16; ++x) voxels.push_back(static_cast<float>(Ramp(x, y, z)));
    scene.Add(MakeVolume<float>(voxels, {16, 16, 8}));
    ASSERT_TRUE(scene.Run());
    EXPECT_TRUE(AllZero(scene.Buffer(1, 0), 32 * 32 * 4)) << "no window and no curve: nothing drawn";
    scene.request.scene[0].params["_double_WindowingCenter"] = 300.0;
    scene.request.scene[0].params["_double_WindowingWidth"] = 200.0;
    ASSERT_TRUE(scene.Run());
    for (int c = 2; c < 30; c += 4) {
        const glm::dvec3 p = AxialPixel(c, 16);
        const double expected = std::clamp((Ramp(p.x, p.y, p.z) - 200.0) * 255.0 / 200.0, 0.0, 255.0);
        EXPECT_NEAR(double(scene.Pixel(1, 0, c, 16) & 0xff), expected, 1.5) << c;
    }
}

TEST(VolumeRequest, MaskedVolumesColourLabelledPixelsByTheirRow) {
    Scene scene = RampScene();
    std::vector<unsigned char> labels(16 * 16 * 8, 0);  // label 1 on the left half of the volume
    for (size_t i = 0; i < labels.size(); ++i) labels[i] = i % 16 < 8;
    scene.volumes[0]->SetTableObject("MASKVOLUME", MakeVolume<unsigned char>(labels, {16, 16, 8}));
    std::vector<uint32_t> grey = WindowTableEntries(400.0, 800.0);
    scene.volumes[0]->SetTableObject(
        "WINDOWING", MakeTableObject({grey, std::vector<uint32_t>(grey.size(), PackEntry(255, 0, 0, 255))}));
    scene.request.scene[0].params["_bool_MultiOTF"] = true;
    scene.request.scene[0].params["_int_NumOTFs"] = 1;
    ASSERT_TRUE(scene.Run());
    EXPECT_EQ(scene.Pixel(1, 0, 4, 16), 0xff0000ffu) << "label 1: an opaque red row covers the base";
    const uint32_t unlabelled = scene.Pixel(1, 0, 28, 16);
    EXPECT_EQ(unlabelled & 0xff, (unlabelled >> 8) & 0xff) << "label 0: the grey base row";
    // Without the multi-table flag the mask is ignored.
    scene.request.scene[0].params["_bool_MultiOTF"] = false;
    ASSERT_TRUE(scene.Run());
    const uint32_t plain = scene.Pixel(1, 0, 4, 16);
    EXPECT_EQ(plain & 0xff, (plain >> 8) & 0xff);
}

TEST(VolumeRequest, ThicknessModeMarksBandsAroundTheVisibleRegion) {
    // Only values above 300 are visible: x > 5 - 0.3 y on the z = 3 plane. The
    // mode needs a plane thicker than a voxel.
    Scene scene = RampScene(AxialView(), {{"_int_VolumeRayCastType", 120}, {"_float_PlaneThickness", 2.0f}});
    std::vector<uint32_t> entries(65536, PackEntry(0, 0, 0, 0));
    std::fill(entries.begin() + 300, entries.end(), PackEntry(200, 200, 200, 255));
    scene.volumes[0]->SetTableObject("WINDOWING", MakeTableObject({entries}));
    scene.request.scene[0].params["_double_ThicknessInside"] = 1.6;   // rounds to 2 pixels
    scene.request.scene[0].params["_double_ThicknessOutside"] = 2.4;  // rounds to 2 pixels
    ASSERT_TRUE(scene.Run());
    // Row 16 (y = 7.75): the edge lies at x = 2.675 mm, between pixels 5 and 6.
    // Pixel 1 is inside the volume, transparent, beyond the outside band; 4 and
    // 5 form the outside band, 6 and 7 the inside band (grey 200 mixed with
    // amber); 9 is inside, past the band.
    const std::pair<int, uint32_t> expected[] = {{1, 0xff000000u}, {4, 0xffff9000u}, {5, 0xffff9000u},
                                                 {6, 0xff64bce3u}, {7, 0xff64bce3u}, {9, 0xffc8c8c8u}};
    for (auto [c, colour] : expected) EXPECT_EQ(scene.Pixel(1, 0, c, 16), colour) << c;
}

TEST(VolumeRequest, LabelOverlayModeOnACurvedPlaneFallsBackWithAMessage) {
    std::vector<glm::vec3> points, ups(8, glm::vec3(0, 0, 1)), tangents(8, glm::vec3(1, 0, 0));
    for (int k = 0; k < 8; ++k) points.push_back({2.0f + k, 7.5f, 3.0f});  // along x through the middle
    SectionView view = AxialView(32, 0.25);
    view.centre = {0, 0, 3};  // the whole curve: 7 x 8 mm around the origin
    Scene scene = RampScene(view, {{"_int_VolumeRayCastType", 101},
                                   {"_float_PlaneThickness", 2.0f},
                                   {"_bool_IsNonlinear", true},
                                   {"_float_ExPlaneWidth", 7.0f},
                                   {"_float_ExPlaneHeight", 8.0f},
                                   {"_vlist_FLOAT3_CurveInterpolations", points},
                                   {"_vlist_FLOAT3_CurveUpVectors", ups},
                                   {"_vlist_FLOAT3_CurveTangentVectors", tangents}});
    EXPECT_EQ(Capture([&] { EXPECT_TRUE(scene.Run()); }), "NOT YET SUPPORT!! 0 __RM_MPR_MAINWITHSUBCOLORVOLUME");
    // Drawn as a curved slice.
    EXPECT_EQ(scene.Pixel(1, 0, 16, 16) >> 24, 255u);
}
