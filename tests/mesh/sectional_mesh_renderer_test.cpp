// The mesh slicer driver through the module's dispatch: frame buffers and the
// chain protocol, depth marking, colours, cross-line lists, clipping, the heap
// counter, point sets and the missing camera.
#include "mesh/sectional_mesh_renderer.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cstring>

#include <glm/gtc/matrix_transform.hpp>

#include "mesh/bvh/tracked_heap.h"
#include "mesh/smoothing_kernel.h"
#include "mesh_test_support.h"
#include "module/dispatch.h"
#include "platform/morphology.h"

namespace {

using meshtest::Scene;
using meshtest::Wall;

constexpr int kW = 64, kH = 48;

// Column of world x on the axial image.
int Column(float worldX) { return static_cast<int>(meshtest::AxialScreen({worldX, 0.0f}).x + 0.5f); }

TEST(MeshDriver, ALineIsDrawnWhereTheViewPlaneCutsTheMesh) {
    Scene scene;
    scene.Add(Wall(5.0f, 8.0f));
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    EXPECT_EQ(zrmodule::ModuleProgress(), 100.0);
    // The wall x = 5 is cut along x = 5, y in -8..8: column 41.5 + 0.5 -> 42,
    // rows 7.5 .. 39.5.
    const int column = Column(5.0f);
    EXPECT_EQ(column, 42);
    for (int y = 8; y <= 39; ++y) EXPECT_EQ(scene.Pixel(0, column, y), 0xffffffffu) << y;
    EXPECT_EQ(meshtest::CountSet(scene.Buffer(1, 0), kW * kH), 33) << "one column of 33 pixels";
    EXPECT_EQ(scene.image->GetDescriptor(), "CPU Mesh Slicer By Orrik 2022.03.12");
    EXPECT_EQ(scene.image->GetFrameBuffer(1, 0)->descriptor,
              "default render out frame buffer Out : defined in zerpha_inbuilt_renderercpu module");
    EXPECT_EQ(scene.image->GetFrameBuffer(1, 1)->descriptor,
              "default render out frame buffer Backup : defined in zerpha_inbuilt_renderercpu module");
    EXPECT_EQ(scene.image->GetFrameBuffer(2, 0)->descriptor,
              "1st hit screen depth frame buffer OUT : defined in zerpha_inbuilt_renderercpu module");
    EXPECT_EQ(scene.image->GetFrameBuffer(3, 0), nullptr) << "no scratch buffer without antialiasing";
}

TEST(MeshDriver, ColoursPackInBothByteOrders) {
    for (const bool rgba : {false, true}) {
        Scene scene;
        scene.Add(Wall(0.0f, 5.0f), glm::vec3(1.0f, 0.5f, 0.0f));
        scene.request.params["_bool_IsRGBA"] = rgba;
        ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
        // Bytes in memory order: 255, 127, 0, 255 for RGBA; 0, 127, 255, 255 for BGRA.
        EXPECT_EQ(scene.Pixel(0, Column(0.0f), 24), rgba ? 0xff007fffu : 0xffff7f00u) << "rgba " << rgba;
    }
}

TEST(MeshChain, FirstRendererFillsDepthWith0x77AndMarksLinePixelsAtZero) {
    Scene scene;
    scene.Add(Wall(-4.0f, 6.0f));
    scene.request.params["_bool_IsFirstRenderer"] = true;
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    const uint32_t* backup = scene.Buffer(1, 1);
    const uint32_t* depth = scene.Buffer(2, 0);  // read as bits: 0x77 bytes where nothing was hit
    int lines = 0;
    for (int i = 0; i < kW * kH; ++i) {
        lines += backup[i] != 0;
        EXPECT_EQ(depth[i], backup[i] ? 0u : 0x77777777u) << i;  // a line pixel is marked at depth 0.0f
    }
    EXPECT_GT(lines, 20);
    EXPECT_EQ(meshtest::CountSet(scene.Buffer(1, 0), kW * kH), 0) << "not final: render-out 0 untouched";
    bool found = false;
    std::any& skip = scene.image->GetObjParamA("_bool_SkipSrOnPlaneRenderer", found);
    ASSERT_TRUE(found);
    EXPECT_FALSE(std::any_cast<bool>(skip));
}

TEST(MeshChain, FirstAndFinalCopiesTheBackupIntoRenderOutZero) {
    Scene scene;
    scene.Add(Wall(-4.0f, 6.0f));
    scene.Shown(0x5a);
    scene.request.params["_bool_IsFirstRenderer"] = true;
    scene.request.params["_bool_IsFinalRenderer"] = true;
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    EXPECT_EQ(std::memcmp(scene.Buffer(1, 0), scene.Buffer(1, 1), kW * kH * 4), 0);
    EXPECT_EQ(scene.image->GetFrameBuffer(1, 0)->descriptor, "shown") << "an existing buffer is kept";
}

TEST(MeshChain, AMiddleRendererDrawsOverRenderOutZero) {
    Scene scene;
    scene.Add(Wall(-4.0f, 6.0f));
    scene.Shown(0x11);
    scene.request.params["_bool_IsFinalRenderer"] = true;
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    EXPECT_EQ(scene.Pixel(0, 0, 0), 0x11111111u) << "earlier picture kept";
    EXPECT_EQ(scene.Pixel(0, Column(-4.0f), 24), 0xffffffffu);
    // Direct drawing leaves the fresh depth buffer at 0 everywhere.
    EXPECT_EQ(scene.Depth(0, 0), 0.0f);
}

// An empty scene sets the skip flag (or keeps it set); as the final renderer it
// also clears render-out 0, and it never labels the image.
TEST(MeshChain, AnEmptySceneSetsSkipAndClearsRenderOutZeroOnlyWhenFinal) {
    for (const bool final : {false, true}) {
        Scene scene;
        scene.Shown(0x33);
        if (final)
            scene.image->SetObjParam("_bool_SkipSrOnPlaneRenderer", true);  // as an earlier renderer left it
        scene.request.params["_bool_IsFinalRenderer"] = final;
        ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
        EXPECT_EQ(meshtest::CountSet(scene.Buffer(1, 0), kW * kH), final ? 0 : kW * kH) << final;
        bool found = false;
        EXPECT_TRUE(std::any_cast<bool>(scene.image->GetObjParamA("_bool_SkipSrOnPlaneRenderer", found)));
        EXPECT_NE(scene.image->GetDescriptor(), "CPU Mesh Slicer By Orrik 2022.03.12");
    }
}

TEST(MeshDriver, AMissingCameraFailsAfterTheBufferSetUp) {
    auto image = std::make_shared<zrobjects::ZrIObject>(16, 16);
    Scene scene;
    scene.request.params["_ZrIObject*_RenderOut"] = image.get();
    scene.Add(Wall(0.0f, 5.0f));
    EXPECT_FALSE(zrmodule::DispatchRequest(scene.request));
    EXPECT_EQ(zrmodule::ModuleProgress(), 0.0);
    EXPECT_NE(image->GetFrameBuffer(2, 0), nullptr);
    bool found = false;
    image->GetObjParamA("_bool_SkipSrOnPlaneRenderer", found);
    EXPECT_TRUE(found);
    EXPECT_EQ(image->GetDescriptor(), "");

    // Starting a chain, the buffer set-up includes the nothing-hit depth fill
    // and the cleared backup, also when the camera then turns out missing.
    auto first = std::make_shared<zrobjects::ZrIObject>(16, 16);
    scene.request.params["_ZrIObject*_RenderOut"] = first.get();
    scene.request.params["_bool_IsFirstRenderer"] = true;
    first->InsertFrameBuffer(zrobjects::MakeDataType<zrobjects::color4>(), 1, "out");
    first->InsertFrameBuffer(zrobjects::MakeDataType<zrobjects::color4>(), 1, "backup");
    std::memset(first->GetFrameBuffer(1, 1)->pixels, 0xab, 16 * 16 * 4);
    EXPECT_FALSE(zrmodule::DispatchRequest(scene.request));
    const auto* depth = static_cast<const uint32_t*>(first->GetFrameBuffer(2, 0)->pixels);
    const auto* backup = static_cast<const uint32_t*>(first->GetFrameBuffer(1, 1)->pixels);
    for (int i = 0; i < 16 * 16; ++i) {
        EXPECT_EQ(depth[i], 0x77777777u) << i;
        EXPECT_EQ(backup[i], 0u) << i;
    }
}

TEST(MeshDriver, HiddenAndNonMeshEntriesAreSkippedAndAMistypedKeyThrows) {
    Scene scene;
    scene.Add(Wall(0.0f, 5.0f)).enabled = false;
    scene.request.scene.push_back(zrobjects::SceneEntry{});
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    EXPECT_EQ(meshtest::CountSet(scene.Buffer(1, 0), kW * kH), 0);
    scene.request.params["_int_LineThickness"] = 2.0;
    EXPECT_THROW(zrmodule::DispatchRequest(scene.request), std::bad_any_cast);
}

TEST(MeshDriver, ObjectPlacementMovesTheLine) {
    Scene scene;
    zrobjects::SceneEntry& entry = scene.Add(Wall(0.0f, 5.0f));
    entry.objectToWorld = glm::translate(glm::mat4(1.0f), glm::vec3(-10.0f, 0.0f, 0.0f));
    entry.worldToObject = glm::translate(glm::mat4(1.0f), glm::vec3(10.0f, 0.0f, 0.0f));
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    EXPECT_EQ(scene.Pixel(0, Column(-10.0f), 24), 0xffffffffu);
    EXPECT_EQ(scene.Pixel(0, Column(0.0f), 24), 0u);
}

TEST(MeshDriver, ATriangleWithinRoundingOfAnObliquePlaneDrawsNothing) {
    // The first triangle lies within 1e-6 mm of the view plane: the plane
    // crosses one of its edges where the edge's own run along the normal rounds
    // to 0, so the crossing is -s / 0. The wall beside it is an ordinary cut.
    zrobjects::SectionView view;
    view.centre = {3.0, -2.0, 7.0};
    view.viewDirection = glm::normalize(glm::dvec3(0.35, 0.45, 0.82));
    view.pixelSpacing = glm::dvec2(0.5);
    view.size = {32, 32};
    zrobjects::MeshArrays wall;
    wall.positions = {5, -6, 2, 5, 2, 2, 5, 2, 12, 5, -6, 12};
    wall.indices = {0, 1, 2, 0, 2, 3};
    zrobjects::MeshArrays both = wall;
    both.positions.insert(both.positions.begin(), {0.67094332f, -7.34163857f, 10.9254961f, 3.71831942f,
                                                    -6.98909426f, 9.43131828f, 3.83582187f, -4.78286791f,
                                                    8.17043018f});
    both.indices = {0, 1, 2, 3, 4, 5, 3, 5, 6};
    std::vector<uint32_t> pictures[2];
    for (int k = 0; k < 2; ++k) {
        Scene scene;
        scene.image = zrobjects::MakeSectionImage(view);
        scene.request.params["_ZrIObject*_RenderOut"] = scene.image.get();
        scene.Add(k == 0 ? wall : both);
        ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
        pictures[k].assign(scene.Buffer(1, 0), scene.Buffer(1, 0) + 32 * 32);
    }
    EXPECT_GT(meshtest::CountSet(pictures[0].data(), 32 * 32), 5);
    EXPECT_EQ(pictures[1], pictures[0]);
}

// ---- Cross lines ----

TEST(MeshCrossLines, ListsGoToTheImageAndNothingIsDrawn) {
    Scene scene;
    scene.Add(Wall(5.0f, 8.0f), glm::vec3(0.25f, 0.5f, 1.0f));
    scene.Add(Wall(-100.0f, 8.0f));  // z = 0 cuts it, far outside the image
    scene.Add(zrobjects::MeshArrays{{0, 0, 10, 1, 0, 10, 0, 1, 10}, {0, 1, 2}, {}, 2});  // not cut
    scene.request.params["_bool_GetCrossLines"] = true;
    scene.request.results["_vlist_FLOAT_CrossLines"] = std::vector<float>{1.0f};
    scene.request.results["_vlist_FLOAT3_CrossLineObjColor"] = 1;
    scene.request.results["_vlist_INT_CrossLineObjCount"] = 1;
    scene.request.results["_vlist_INT_CrossLineObjID"] = 7;
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));

    EXPECT_EQ(scene.request.results.count("_vlist_FLOAT_CrossLines"), 0u);
    EXPECT_EQ(scene.request.results.count("_vlist_FLOAT3_CrossLineObjColor"), 0u);
    EXPECT_EQ(scene.request.results.count("_vlist_INT_CrossLineObjCount"), 0u);
    EXPECT_EQ(scene.request.results.count("_vlist_INT_CrossLineObjID"), 1u) << "the id list is not erased there";
    EXPECT_EQ(meshtest::CountSet(scene.Buffer(1, 0), kW * kH), 0);

    bool found = false;
    const auto& lines = std::any_cast<const std::vector<float>&>(scene.image->GetObjParamA("_vlist_FLOAT_CrossLines", found));
    const auto& colours =
        std::any_cast<const std::vector<glm::vec3>&>(scene.image->GetObjParamA("_vlist_FLOAT3_CrossLineObjColor", found));
    const auto& counts = std::any_cast<const std::vector<int32_t>&>(scene.image->GetObjParamA("_vlist_INT_CrossLineObjCount", found));
    const auto& ids = std::any_cast<const std::vector<int32_t>&>(scene.image->GetObjParamA("_vlist_INT_CrossLineObjID", found));
    // The wall's two triangles each give one segment; the far wall two more.
    ASSERT_EQ(counts, (std::vector<int32_t>{2, 2}));
    EXPECT_EQ(lines.size(), 16u);
    EXPECT_EQ(colours[0], glm::vec3(0.25f, 0.5f, 1.0f)) << "the unscaled entry colour";
    EXPECT_EQ(ids, (std::vector<int32_t>{scene.meshes[0]->GetObjectID(), scene.meshes[1]->GetObjectID()}));
    // The first object's segments lie on x = 5 in screen space: column 41.5,
    // between rows 7.5 and 39.5, exactly over the image.
    for (int s = 0; s < 2; ++s) {
        EXPECT_FLOAT_EQ(lines[4 * s], 41.5f);
        EXPECT_FLOAT_EQ(lines[4 * s + 2], 41.5f);
        for (int e : {1, 3}) {
            EXPECT_GE(lines[4 * s + e], 7.5f - 1e-4f);
            EXPECT_LE(lines[4 * s + e], 39.5f + 1e-4f);
        }
    }
    EXPECT_FLOAT_EQ(lines[8], 2.0f * -100.0f + 31.5f);
}

// Starting a chain with cross lines, the cut draws nothing, so nothing is hit;
// a point set in the same request is drawn, and its pixels are marked.
TEST(MeshCrossLines, AFirstRendererMarksDepthOnlyWherePointSetsWereDrawn) {
    for (const bool withPoints : {false, true}) {
        Scene scene;
        scene.Add(Wall(5.0f, 8.0f));
        if (withPoints) scene.Add(zrobjects::MeshArrays{{0.0f, 0.0f, 0.0f}, {}, {}, 3});
        scene.request.params["_bool_IsFirstRenderer"] = true;
        scene.request.params["_bool_GetCrossLines"] = true;
        scene.request.params["_double_ZoominRadius"] = 3.0;
        for (const char* name : {"out", "backup"})
            scene.image->InsertFrameBuffer(zrobjects::MakeDataType<zrobjects::color4>(), 1, name);
        std::memset(scene.Buffer(1, 1), 0xab, static_cast<size_t>(kW) * kH * 4);
        ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
        const uint32_t* backup = scene.Buffer(1, 1);
        const uint32_t* depth = scene.Buffer(2, 0);
        int drawn = 0;
        for (int i = 0; i < kW * kH; ++i) {
            drawn += backup[i] != 0;
            EXPECT_EQ(depth[i], backup[i] != 0 ? 0u : 0x77777777u) << withPoints << " " << i;
        }
        EXPECT_EQ(drawn, withPoints ? 32 : 0) << "the wall is listed, not drawn";
    }
}

TEST(MeshCrossLines, NoCutAnywhereWritesNoKeyAndKeepsEarlierValues) {
    Scene scene;
    scene.Add(zrobjects::MeshArrays{{0, 0, 10, 1, 0, 10, 0, 1, 10}, {0, 1, 2}, {}, 2});
    scene.request.params["_bool_GetCrossLines"] = true;
    scene.image->SetObjParam("_vlist_FLOAT_CrossLines", std::vector<float>{9.0f});
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    bool found = false;
    EXPECT_EQ(std::any_cast<const std::vector<float>&>(scene.image->GetObjParamA("_vlist_FLOAT_CrossLines", found)),
              std::vector<float>{9.0f});
    scene.image->GetObjParamA("_vlist_INT_CrossLineObjID", found);
    EXPECT_FALSE(found);
}

// ---- Clipping through the driver ----

TEST(MeshClip, ANormalAlongOneOneOneUsesTheFallbackAxisAndClipsItsSide) {
    // A wall along y at x = 3 ... the plane through the origin with normal
    // (1, 1, 1) removes the points with x + y + z > 0; on the section (z = 0)
    // that is y > -x = -3.
    for (const glm::vec3 normal : {glm::vec3(1.0f, 1.0f, 1.0f), glm::vec3(1.0f, 1.001f, 1.0f)}) {
        Scene scene;
        scene.Add(Wall(3.0f, 10.0f));
        scene.meshes[0]->SetObjParam("_int_ClippingMode", 1);
        scene.meshes[0]->SetObjParam("_float3_PosClipPlaneWS", glm::vec3(0.0f));
        scene.meshes[0]->SetObjParam("_float3_VecClipPlaneWS", normal);
        ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
        const int column = Column(3.0f);
        int drawn = 0;
        for (int y = 0; y < kH; ++y) {
            const float worldY = (y - 23.5f) / 2.0f;
            if (scene.Pixel(0, column, y) == 0) continue;
            ++drawn;
            EXPECT_LE(worldY + 3.0f, 0.5f) << "row " << y << " lies on the clipped side";
        }
        EXPECT_GE(drawn, 13) << "rows from y = -10 to -3 stay";
    }
}

TEST(MeshClip, ClipFreeObjectsAreNeverClipped) {
    Scene scene;
    scene.Add(Wall(3.0f, 10.0f));
    scene.meshes[0]->SetObjParam("_bool_ClipFree", true);
    scene.meshes[0]->SetObjParam("_int_ClippingMode", 3);
    scene.meshes[0]->SetObjParam("_float3_VecClipPlaneWS", glm::vec3(0.0f, 1.0f, 0.0f));
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    EXPECT_EQ(meshtest::CountSet(scene.Buffer(1, 0), kW * kH), 41);
}

TEST(MeshClip, AClipBoxInWorldSpaceKeepsItsInside) {
    // Box |x|, |y|, |z| <= 4 mm: world-to-box scales by 1/8.
    Scene scene;
    scene.Add(Wall(0.0f, 10.0f));
    scene.meshes[0]->SetObjParam("_int_ClippingMode", 2);
    scene.meshes[0]->SetObjParam("_matrix44f_MatrixClipWS2BS", glm::scale(glm::mat4(1.0f), glm::vec3(0.125f)));
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    // Pixels are accepted at the line's unrounded position (rows 15.5 ..
    // 31.5, |y| <= 4 mm) and drawn at the rounded one, and the segment from
    // the origin starts at its snapped pixel row 24: rows 16 .. 32.
    for (int y = 0; y < kH; ++y) EXPECT_EQ(scene.Pixel(0, Column(0.0f), y) != 0, y >= 16 && y <= 32) << y;
    EXPECT_EQ(meshtest::CountSet(scene.Buffer(1, 0), kW * kH), 17);
}

// ---- Antialiasing and the heap counter ----

void DeInitModuleInProcess() {
    MoFiDeinitializeDx11();
    zrmesh::ReleaseSmoothingKernel();
}

TEST(MeshAntialiasing, SmoothsIntoTheScratchBufferAndKeepsTheHeapBalanced) {
    DeInitModuleInProcess();
    const uint64_t before = zrbvh::HeapBytesInUse();
    EXPECT_EQ(before, 0u);
    Scene scene;
    scene.Add(Wall(0.0f, 5.0f));
    scene.request.params["_bool_ApplyAntialiasing"] = true;
    scene.request.params["_int_KernelRadius"] = 1;
    scene.request.params["_double_Sigma"] = 1.0;
    const int before_threads = omp_get_max_threads();
    omp_set_num_threads(1);
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    omp_set_num_threads(before_threads);
    ASSERT_NE(scene.image->GetFrameBuffer(3, 0), nullptr);
    EXPECT_EQ(scene.image->GetFrameBuffer(3, 0)->descriptor,
              "default custom frame buffer for antialiasing : defined in zerpha_inbuilt_renderercpu module");
    // On one thread every pixel before the first one that reaches the line (in
    // raster order) stays empty, and the line pixels stay fully opaque.
    const int column = Column(0.0f);
    EXPECT_EQ(scene.Pixel(0, 0, 0), 0u);
    EXPECT_EQ(scene.Pixel(0, column, 24) >> 24, 255u);
    EXPECT_EQ(scene.Depth(column, 24), 0.0f);
    EXPECT_GT(meshtest::CountSet(scene.Buffer(1, 0), kW * kH), 11);
    EXPECT_EQ(std::memcmp(scene.Buffer(1, 0), scene.Buffer(3, 0), kW * kH * 4), 0);

    const uint64_t withKernel = zrbvh::HeapBytesInUse();
    EXPECT_GT(withKernel, 0u) << "the kernel is kept between requests";
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    EXPECT_EQ(zrbvh::HeapBytesInUse(), withKernel) << "a second request allocates nothing that stays";
    DeInitModuleInProcess();
    EXPECT_EQ(zrbvh::HeapBytesInUse(), 0u);
}

TEST(MeshAntialiasing, ANarrowCustomBufferIsLeftAlone) {
    Scene scene;
    scene.Add(Wall(0.0f, 5.0f));
    scene.image->InsertFrameBuffer(zrobjects::MakeDataType<uint16_t>(), 3, "values");
    auto* values = static_cast<uint16_t*>(scene.image->GetFrameBuffer(3, 0)->pixels);
    values[0] = 1234;
    scene.request.params["_bool_ApplyAntialiasing"] = true;
    const uint64_t before = zrbvh::HeapBytesInUse();
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    EXPECT_EQ(values[0], 1234);
    EXPECT_EQ(scene.Pixel(0, Column(0.0f), 24) >> 24, 255u);
    zrmesh::ReleaseSmoothingKernel();
    EXPECT_EQ(zrbvh::HeapBytesInUse(), before);
}

TEST(MeshHeap, PlaneCutsThroughTheHierarchyReturnTheCounterToItsValue) {
    Scene scene;
    scene.Add(zrobjects::MakeTorusArrays(15.0, 5.0, 60, 30, glm::dvec3(0.0)));
    const uint64_t before = zrbvh::HeapBytesInUse();
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    EXPECT_GT(meshtest::CountSet(scene.Buffer(1, 0), kW * kH), 100);
    EXPECT_EQ(zrbvh::HeapBytesInUse(), before);
}

// ---- Point sets ----

TEST(MeshPointSet, EachVertexIsADiscOfTheProjectedOrMinimumRadius) {
    Scene scene;
    scene.Add(zrobjects::MeshArrays{{0.0f, 0.0f, 0.0f, 10.0f, 5.0f, 3.0f}, {}, {}, 3});
    scene.request.params["_double_SphereRadius"] = 2.0;   // 4 pixels at 0.5 mm per pixel
    scene.request.params["_double_ZoominRadius"] = 1.5;  // smaller: the true size wins
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    int count = 0;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            if (scene.Pixel(0, x, y) == 0) continue;
            ++count;
            const glm::vec2 a = meshtest::AxialScreen({0.0f, 0.0f}), b = meshtest::AxialScreen({10.0f, 5.0f});
            const float da = glm::distance(glm::vec2(x, y), a), db = glm::distance(glm::vec2(x, y), b);
            EXPECT_LE(std::min(da, db), 4.0f + 1e-4f) << x << "," << y;
        }
    // Pixel centres within radius 4 of a half-integer centre: 52 per disc.
    EXPECT_EQ(count, 2 * 52);

    Scene zoomedOut;
    zoomedOut.Add(zrobjects::MeshArrays{{0.0f, 0.0f, 0.0f}, {}, {}, 3});
    zoomedOut.request.params["_double_SphereRadius"] = 0.3;  // 0.6 pixel
    zoomedOut.request.params["_double_ZoominRadius"] = 3.0;  // floor of 3 pixels
    ASSERT_TRUE(zrmodule::DispatchRequest(zoomedOut.request));
    EXPECT_EQ(meshtest::CountSet(zoomedOut.Buffer(1, 0), kW * kH), 32) << "centres within 3 of (31.5, 23.5)";
}

TEST(MeshPointSet, NormalsAreDrawnOnlyWhenTheSphereIsLargeAgainstTheScale) {
    // Object-to-screen scales by 2 pixels per mm: normals need
    // sphereRadius * 0.333 > 2.
    for (const double sphereRadius : {6.0, 7.0}) {
        Scene scene;
        scene.Add(zrobjects::MeshArrays{{0.0f, 0.0f, 0.0f}, {}, {1.0f, 0.0f, 0.0f}, 3});
        scene.request.params["_double_SphereRadius"] = sphereRadius;
        scene.request.params["_double_ZoominRadius"] = 0.0;
        ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
        const float radius = static_cast<float>(sphereRadius) * 2.0f;
        // The normal line runs to twice the disc radius along +x.
        const int tip = static_cast<int>(31.5f + 1.5f * radius + 0.5f);
        const bool expectNormal = sphereRadius * 0.333 > 2.0;
        EXPECT_EQ(scene.Pixel(0, tip, 24) != 0, expectNormal) << sphereRadius;
    }
}

}  // namespace
