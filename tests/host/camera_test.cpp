// Camera geometry: corners on pixel centres, the factor products, round trips.
#include "host/zr_camera.h"

#include <gtest/gtest.h>

#include <glm/gtc/matrix_transform.hpp>

#include "host/image_builder.h"

using namespace zrobjects;

namespace {

// An oblique camera: rotated 30 degrees about x, then 20 about y.
SectionView ObliqueView() {
    const glm::dmat4 r = glm::rotate(glm::dmat4(1.0), glm::radians(20.0), glm::dvec3(0, 1, 0)) *
                         glm::rotate(glm::dmat4(1.0), glm::radians(30.0), glm::dvec3(1, 0, 0));
    SectionView view;
    view.centre = {102.2, 102.2, 99.75};
    view.viewDirection = glm::dvec3(r * glm::dvec4(0, 0, 1, 0));
    view.up = -glm::dvec3(r * glm::dvec4(0, 1, 0, 0));
    view.pixelSpacing = {0.45, 0.3};
    view.size = {64, 40};
    return view;
}

glm::dvec3 Apply(const glm::dmat4& m, const glm::dvec3& p) {
    const glm::dvec4 q = m * glm::dvec4(p, 1.0);
    return glm::dvec3(q) / q.w;
}

glm::dmat4 WorldToScreen(const ZrCObject& camera) {
    glm::dmat4 a, b, c;
    camera.GetMatrixWStoSS(a, b, c);
    return ComposeApplied(a, b, c);
}

glm::dmat4 ScreenToWorld(const ZrCObject& camera) {
    glm::dmat4 a, b, c;
    camera.GetMatrixSStoWS(a, b, c);
    return ComposeApplied(a, b, c);
}

}  // namespace

// The corners land on pixel centres (0, 0), (63, 0), (0, 39), (63, 39) in the
// image plane, 63 pixels of 0.45 mm apart along right and 39 of 0.3 mm down,
// centred on the camera position.
TEST(Camera, ImagePlaneCornersLandOnThePixelCentresAndSpanTheImage) {
    const SectionView view = ObliqueView();
    auto image = MakeSectionImage(view);
    const ZrCObject& camera = *image->GetCameraObject();
    glm::vec3 c[4];
    camera.GetImagePlaneRectPointsf(zrenums::EzrCoordSpace_World, c[0], c[1], c[2], c[3]);
    const glm::dvec2 expected[4] = {{0, 0}, {63, 0}, {0, 39}, {63, 39}};
    const glm::dmat4 toScreen = WorldToScreen(camera);
    for (int k = 0; k < 4; ++k) {
        const glm::dvec3 s = Apply(toScreen, glm::dvec3(c[k]));
        EXPECT_NEAR(glm::length(s - glm::dvec3(expected[k], 0.0)), 0.0, 1e-3) << "corner " << k;
    }
    glm::vec3 position, direction, up;
    camera.GetCameraExtStatef(position, direction, up);
    EXPECT_NEAR(glm::dot(c[1] - c[0], glm::cross(direction, up)), 63 * 0.45f, 1e-3);
    EXPECT_NEAR(glm::dot(c[2] - c[0], -up), 39 * 0.3f, 1e-3);
    EXPECT_NEAR(glm::dot(c[1] - c[0], up), 0.0f, 1e-3);
    EXPECT_NEAR(glm::length((c[0] + c[3]) * 0.5f - position), 0.0f, 1e-3);
    EXPECT_NEAR(glm::dot(direction, glm::normalize(glm::vec3(view.viewDirection))), 1.0f, 1e-6);
}

TEST(Camera, ScreenToWorldInvertsWorldToScreen) {
    auto image = MakeSectionImage(ObliqueView());
    const ZrCObject& camera = *image->GetCameraObject();
    const glm::dmat4 product = ScreenToWorld(camera) * WorldToScreen(camera);
    for (int c = 0; c < 4; ++c)
        for (int r = 0; r < 4; ++r) EXPECT_NEAR(product[c][r], c == r ? 1.0 : 0.0, 1e-9);
    // Depth is millimetres along the view direction (the float camera state limits the precision).
    glm::vec3 position, direction, up;
    camera.GetCameraExtStatef(position, direction, up);
    const glm::dvec3 s = Apply(WorldToScreen(camera), glm::dvec3(position) + 5.0 * glm::dvec3(direction));
    EXPECT_NEAR(s.x, 31.5, 1e-4);
    EXPECT_NEAR(s.y, 19.5, 1e-4);
    EXPECT_NEAR(s.z, 5.0, 1e-4);
}

TEST(Camera, AOnePixelImageKeepsInvertibleFactors) {
    SectionView view;
    view.size = {1, 1};
    auto image = MakeSectionImage(view);
    const glm::dmat4 m = ScreenToWorld(*image->GetCameraObject());
    const glm::dvec3 centre = Apply(m, glm::dvec3(0.0));
    EXPECT_NEAR(glm::length(centre - view.centre), 0.0, 1e-12);
}

TEST(Camera, IntrinsicStateDescribesTheImage) {
    glm::dvec2 spacing, extent;
    double nearDistance, farDistance, fov;
    glm::ivec2 size;
    MakeSectionImage(ObliqueView())
        ->GetCameraObject()
        ->GetCameraIntState(spacing, nearDistance, farDistance, size, extent, fov);
    EXPECT_EQ(size, glm::ivec2(64, 40));
    EXPECT_EQ(spacing, glm::dvec2(0.45, 0.3));
    EXPECT_NEAR(extent.x, 63 * 0.45, 1e-12);
    EXPECT_EQ(fov, 0.0);
}

TEST(CameraErrors, DegenerateCamerasAreRejectedWithAReason) {
    ZrCObject camera;
    EXPECT_FALSE(camera.IsDefined());
    const auto set = [&](glm::dvec3 view, glm::dvec3 up, glm::dvec2 spacing, glm::ivec2 size) {
        camera.SetOrthographic({0, 0, 0}, view, up, spacing, size);
    };
    EXPECT_THROW(set({0, 0, 0}, {0, -1, 0}, {1, 1}, {8, 8}), std::invalid_argument);
    EXPECT_THROW(set({0, 0, 1}, {0, 0, 2}, {1, 1}, {8, 8}), std::invalid_argument);
    EXPECT_THROW(set({0, 0, 1}, {0, -1, 0}, {0, 1}, {8, 8}), std::invalid_argument);
    EXPECT_THROW(set({0, 0, 1}, {0, -1, 0}, {1, 1}, {0, 8}), std::invalid_argument);
    EXPECT_FALSE(camera.IsDefined());
    try {
        set({0, 0, 0}, {0, -1, 0}, {1, 1}, {8, 8});
    } catch (const std::invalid_argument& e) {
        EXPECT_NE(std::string(e.what()).find("direction"), std::string::npos);
    }
}
