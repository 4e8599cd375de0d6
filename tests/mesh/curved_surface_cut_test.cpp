// The curved-surface cut lines up with the volume's curved reformation image:
// column = curve position, row = lateral offset along the up vector, top row on
// the +up side, the surface moved by the half thickness along up x tangent.
#include "mesh/curved_surface_cut.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "mesh/bvh/tracked_heap.h"
#include "mesh_test_support.h"
#include "module/dispatch.h"
#include "volume/kernels/curved_reformation.h"

namespace {

constexpr int kW = 33, kH = 21, kSamples = 17;
constexpr float kPlaneWidth = 16.0f, kPlaneHeight = 10.0f;

// A straight centre line along world x (one sample per millimetre from 0 to
// 16), up = +z: the section surface is the plane y = 0 moved along y by the
// half thickness (up x tangent = +y).
struct CurvedScene : meshtest::Scene {
    std::vector<glm::vec3> points, ups, tangents;

    explicit CurvedScene(float halfThickness = 0.0f, bool rightSide = false) {
        image = meshtest::AxialImage(kW, kH);
        request.params["_ZrIObject*_RenderOut"] = image.get();
        for (int k = 0; k < kSamples; ++k) {
            points.emplace_back(static_cast<float>(k), 0.0f, 0.0f);
            ups.emplace_back(0.0f, 0.0f, 1.0f);
            tangents.emplace_back(1.0f, 0.0f, 0.0f);
        }
        request.params["_bool_IsNonlinear"] = true;
        request.params["_vlist_FLOAT3_CurveInterpolations"] = points;
        request.params["_vlist_FLOAT3_CurveUpVectors"] = ups;
        request.params["_vlist_FLOAT3_CurveTangentVectors"] = tangents;
        request.params["_float_ExPlaneHeight"] = kPlaneHeight;
        request.params["_float_ExPlaneWidth"] = kPlaneWidth;
        request.params["_float_CurveThicknessPositionRange"] = 2.0f * halfThickness;
        request.params["_float_ThicknessRatio"] = 1.0f;
        request.params["_bool_IsRightSide"] = rightSide;
    }

    // Where the volume's curved reformation puts curve position u and lateral
    // offset l (millimetres along up from the surface).
    glm::vec2 VolumeImagePosition(float u, float lateral) const {
        zrvolume::CurvedReformationArgs args;
        args.width = kW;
        args.height = kH;
        args.curveCount = kSamples;
        args.curvePoints = points.data();
        args.upVectors = ups.data();
        args.tangents = tangents.data();
        args.planeWidth = kPlaneWidth;
        args.planeHeight = kPlaneHeight;
        glm::vec3* c = args.planeCorners;
        image->GetCameraObject()->GetImagePlaneRectPointsf(zrenums::EzrCoordSpace_World, c[0], c[1], c[2], c[3]);
        const zrvolume::CurvedSectionGeometry g = zrvolume::MakeCurvedSectionGeometry(args);
        const float column = (u - g.firstColumnPosition) / (g.lastColumnPosition - g.firstColumnPosition) * (kW - 1);
        const float s = lateral * g.lateralScale + g.lateralCentre;
        const float row = (kH - 1) * (g.firstColumnTop - s) / (g.firstColumnTop - g.firstColumnBottom);
        return {column, row};
    }
};

// A wall through the line x = x0 + slope * y, spanning |y| <= 4, |z| <= 5.
zrobjects::MeshArrays TiltedWall(float x0, float slope) {
    zrobjects::MeshArrays arrays;
    arrays.positions = {x0 - 4 * slope, -4, -5, x0 + 4 * slope, 4, -5, x0 + 4 * slope, 4, 5, x0 - 4 * slope, -4, 5};
    arrays.indices = {0, 1, 2, 0, 2, 3};
    return arrays;
}

// The horizontal rectangle z = height, -1 <= x <= 20, |y| <= 3.
zrobjects::MeshArrays Floor(float height) {
    zrobjects::MeshArrays arrays;
    arrays.positions = {-1, -3, height, 20, -3, height, 20, 3, height, -1, 3, height};
    arrays.indices = {0, 1, 2, 0, 2, 3};
    return arrays;
}

std::vector<std::pair<int, int>> Painted(meshtest::Scene& scene) {
    std::vector<std::pair<int, int>> pixels;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x)
            if (scene.Pixel(0, x, y) != 0) pixels.push_back({x, y});
    return pixels;
}

TEST(CurvedSurfaceCut, AWallAcrossTheCurveIsTheColumnOfItsCurvePosition) {
    CurvedScene scene;
    scene.Add(TiltedWall(5.0f, 0.0f));
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    const int column = static_cast<int>(scene.VolumeImagePosition(5.0f, 0.0f).x + 0.5f);
    EXPECT_EQ(column, 10);
    const auto pixels = Painted(scene);
    ASSERT_FALSE(pixels.empty());
    for (const auto& [x, y] : pixels) EXPECT_EQ(x, column) << y;
    EXPECT_EQ(pixels.size(), static_cast<size_t>(kH)) << "the wall spans the whole lateral range";
}

TEST(CurvedSurfaceCut, AFloorAboveTheCurveIsTheRowOfItsLateralOffsetOnTheUpSide) {
    CurvedScene scene;
    scene.Add(Floor(2.0f));
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    const float row = scene.VolumeImagePosition(3.0f, 2.0f).y;
    EXPECT_FLOAT_EQ(row, 6.0f) << "2 mm above the curve, 0.5 mm per row, 5 mm to the top";
    const auto pixels = Painted(scene);
    ASSERT_EQ(pixels.size(), static_cast<size_t>(kW)) << "one row across every column";
    for (const auto& [x, y] : pixels) EXPECT_EQ(y, 6) << x;
}

TEST(CurvedSurfaceCut, TheHalfThicknessMovesTheSurfaceAlongUpCrossTangentAndTheRightSideMirrorsIt) {
    // The wall x = 5 + y meets the surface y = h at x = 5 + h.
    for (const bool rightSide : {false, true}) {
        CurvedScene scene(2.0f, rightSide);
        scene.Add(TiltedWall(5.0f, 1.0f));
        ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
        const float u = rightSide ? 3.0f : 7.0f;
        const int column = static_cast<int>(scene.VolumeImagePosition(u, 0.0f).x + 0.5f);
        const auto pixels = Painted(scene);
        ASSERT_FALSE(pixels.empty());
        for (const auto& [x, y] : pixels) EXPECT_EQ(x, column) << "right side " << rightSide;
    }
}

TEST(CurvedSurfaceCut, CrossLinesStayInsideTheImageAndTheSurfaceIsReleased) {
    CurvedScene scene;
    scene.Add(Floor(-3.0f));
    scene.Add(TiltedWall(8.0f, 0.0f));
    scene.request.params["_bool_GetCrossLines"] = true;
    const uint64_t before = zrbvh::HeapBytesInUse();
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    EXPECT_EQ(zrbvh::HeapBytesInUse(), before);
    bool found = false;
    const auto& lines =
        std::any_cast<const std::vector<float>&>(scene.image->GetObjParamA("_vlist_FLOAT_CrossLines", found));
    const auto& counts =
        std::any_cast<const std::vector<int32_t>&>(scene.image->GetObjParamA("_vlist_INT_CrossLineObjCount", found));
    ASSERT_EQ(counts.size(), 2u);
    float floorLength = 0.0f;
    for (int s = 0; s < counts[0]; ++s) {
        const float* seg = &lines[4 * s];
        EXPECT_FLOAT_EQ(seg[1], 16.0f);  // 3 mm below the curve
        EXPECT_FLOAT_EQ(seg[3], 16.0f);
        floorLength += std::fabs(seg[2] - seg[0]);
        for (int e : {0, 2}) {
            EXPECT_GE(seg[e], 0.0f);
            EXPECT_LE(seg[e], kW - 1 + 1e-3f);
        }
    }
    EXPECT_NEAR(floorLength, kW - 1, 1e-3) << "the pieces together cover every column once";
    EXPECT_EQ(meshtest::CountSet(scene.Buffer(1, 0), kW * kH), 0);
}

TEST(CurvedSurfaceCut, TooSmallAnImageOrTooFewSamplesBuildNothing) {
    CurvedScene scene;
    scene.image = std::make_shared<zrobjects::ZrIObject>(1, 5);
    auto camera = std::make_shared<zrobjects::ZrCObject>();
    camera->SetOrthographic(glm::dvec3(0.0), glm::dvec3(0, 0, 1), glm::dvec3(0, -1, 0), glm::dvec2(1.0), {1, 5});
    scene.image->SetCameraObject(camera);
    scene.request.params["_ZrIObject*_RenderOut"] = scene.image.get();
    scene.Add(TiltedWall(0.0f, 0.0f));
    ASSERT_TRUE(zrmodule::DispatchRequest(scene.request));
    EXPECT_EQ(meshtest::CountSet(scene.Buffer(1, 0), 5), 0);

    CurvedScene oneSample;
    oneSample.request.params["_vlist_FLOAT3_CurveInterpolations"] = std::vector<glm::vec3>{glm::vec3(0.0f)};
    oneSample.Add(TiltedWall(0.0f, 0.0f));
    ASSERT_TRUE(zrmodule::DispatchRequest(oneSample.request));
    EXPECT_EQ(meshtest::CountSet(oneSample.Buffer(1, 0), kW * kH), 0);
}

TEST(CurvedSurfaceCut, PieceTransformsMapTheirCornersOntoTheirColumnsAndRows) {
    auto image = meshtest::AxialImage(kW, kH);
    image->InsertFrameBuffer(zrobjects::MakeDataType<zrobjects::color4>(), 1, "out");
    // A bent curve: up vectors leaning on the tangent, so the piece frames are
    // not orthogonal.
    std::vector<glm::vec3> points, ups, tangents;
    for (int k = 0; k < kSamples; ++k) {
        const float a = 0.2f * k;
        points.emplace_back(10.0f * std::cos(a), 10.0f * std::sin(a), 0.5f * k);
        tangents.emplace_back(-std::sin(a), std::cos(a), 0.05f);
        ups.emplace_back(0.3f * -std::sin(a), 0.3f * std::cos(a), 1.0f);
    }
    zrmesh::CurvedSurface surface = zrmesh::BuildCurvedSurface(points.data(), ups.data(), tangents.data(), kSamples,
                                                               kPlaneWidth, kPlaneHeight, 0.0f, false, *image);
    ASSERT_EQ(surface.count, kSamples - 1);
    for (int p = 0; p < surface.count; ++p) {
        const zrmesh::CurvedPiece& piece = surface.pieces[p];
        const glm::mat4 toScreen = zrmesh::PieceWorldToScreen(piece);
        const glm::vec3 origin(piece.origin[0], piece.origin[1], piece.origin[2]);
        const glm::vec3 up(piece.up[0], piece.up[1], piece.up[2]);
        const glm::vec3 along(piece.along[0], piece.along[1], piece.along[2]);
        const glm::vec4 top = toScreen * glm::vec4(origin + 0.5f * kPlaneHeight * up, 1.0f);
        const glm::vec4 bottomEnd = toScreen * glm::vec4(origin + along - 0.5f * kPlaneHeight * up, 1.0f);
        EXPECT_NEAR(top.x, 2.0f * p, 1e-3f);
        EXPECT_NEAR(top.y, 0.0f, 1e-3f);
        EXPECT_NEAR(bottomEnd.x, 2.0f * (p + 1), 1e-3f);
        EXPECT_NEAR(bottomEnd.y, kH - 1, 1e-3f);
        EXPECT_NEAR(top.z, 0.0f, 1e-5f);
    }
    zrmesh::FinishCurvedSurface(surface);
    EXPECT_EQ(surface.pieces, nullptr);
}

}  // namespace
