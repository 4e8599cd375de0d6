// Segment rasterisation, widening at the borders, clip plane and clip box
// (colour packing is checked through the driver).
#include "mesh/line_drawing.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <glm/gtc/matrix_transform.hpp>
#include <set>
#include <utility>
#include <vector>

#include "common/matrix_record.h"

namespace {

using zrmesh::DrawSegment;
using zrmesh::MeshClipState;

constexpr uint32_t kCentre = 0xff0000ffu;
constexpr uint32_t kWide = 0xff00ff00u;

// A clip plane through `point`; pixels on the side `normal` points to are removed.
MeshClipState PlaneClip(glm::vec3 point, glm::vec3 normal) {
    MeshClipState clip;
    clip.clipPlane = true;
    clip.planePoint = point;
    clip.planeNormal = normal;
    return clip;
}

// A clip box given by its screen-to-box matrix.
MeshClipState BoxClip(const glm::mat4& screenToBox) {
    MeshClipState clip;
    clip.clipBox = true;
    clip.boxMatrix = zrcommon::ToMatrixRecord(screenToBox);
    return clip;
}

struct Canvas {
    int width, height;
    std::vector<uint32_t> pixels;
    Canvas(int w, int h) : width(w), height(h), pixels(static_cast<size_t>(w) * h, 0u) {}
    uint32_t At(int x, int y) const { return pixels[static_cast<size_t>(y) * width + x]; }
    std::set<std::pair<int, int>> Painted(uint32_t colour) const {
        std::set<std::pair<int, int>> set;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                if (At(x, y) == colour) set.insert({x, y});
        return set;
    }
    void Draw(glm::vec3 a, glm::vec3 b, int thickness = 1, const MeshClipState& clip = {}) {
        DrawSegment(a, b, kCentre, pixels.data(), width, height, thickness, kWide, clip);
    }
};

TEST(LineDrawing, AZeroLengthSegmentPaintsItsSnappedPixel) {
    Canvas canvas(20, 20);
    canvas.Draw({10.4f, 5.6f, 0.0f}, {10.4f, 5.6f, 0.0f});
    const std::set<std::pair<int, int>> expected = {{10, 6}};
    EXPECT_EQ(canvas.Painted(kCentre), expected);
    EXPECT_EQ(canvas.Painted(0).size(), 399u);
}

TEST(LineDrawing, ASegmentCoversStepsPlusOnePixelsAlongTheLine) {
    Canvas canvas(20, 20);
    canvas.Draw({0.0f, 0.0f, 0.0f}, {4.0f, 2.0f, 0.0f});
    const auto painted = canvas.Painted(kCentre);
    ASSERT_EQ(painted.size(), 5u);
    EXPECT_TRUE(painted.count({0, 0}));
    EXPECT_TRUE(painted.count({4, 2}));
    for (const auto& [x, y] : painted) EXPECT_LE(std::abs(0.5f * x - y), 0.5f) << x << "," << y;
    // One pixel per column: the longer axis takes the steps.
    std::set<int> columns;
    for (const auto& p : painted) columns.insert(p.first);
    EXPECT_EQ(columns.size(), 5u);
}

TEST(LineDrawing, PixelsOutsideTheImageAreSkippedNotWrapped) {
    Canvas canvas(10, 10);
    canvas.Draw({-5.0f, 3.0f, 0.0f}, {15.0f, 3.0f, 0.0f});
    const auto painted = canvas.Painted(kCentre);
    EXPECT_EQ(painted.size(), 10u);
    for (const auto& p : painted) EXPECT_EQ(p.second, 3);
    EXPECT_EQ(canvas.Painted(0).size(), 90u);
}

TEST(LineDrawing, FarEndsCostNoMoreThanTheImageAndNonFiniteEndsDrawNothing) {
    // Ends a billion pixels away would take a billion steps each; the line is
    // cut to the image first, and still runs towards its far end.
    const auto started = std::chrono::steady_clock::now();
    for (float far : {1e9f, 3e9f, -2e9f}) {
        Canvas canvas(40, 30);
        canvas.Draw({10.0f, 10.0f, 0.0f}, {10.0f + far, 10.0f + 0.5f * far, 0.0f});
        std::set<int> columns;
        for (const auto& [x, y] : canvas.Painted(kCentre)) {
            EXPECT_LE(std::abs(10.0f + 0.5f * (x - 10) - y), 1.0f) << far;
            columns.insert(x);
        }
        EXPECT_EQ(columns.size(), far > 0 ? 30u : 11u) << far;  // every column to the image's edge
    }
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(), 1.0);
    for (glm::vec3 end : {glm::vec3(NAN, 3, 0), glm::vec3(3, INFINITY, 0)}) {
        Canvas canvas(10, 10);
        canvas.Draw({5.0f, 5.0f, 0.0f}, end);
        EXPECT_EQ(canvas.Painted(0).size(), 100u);
    }
}

TEST(LineWidening, ThicknessThreeOnRowZeroClampsTheNegativeOffset) {
    Canvas canvas(12, 6);
    canvas.Draw({2.0f, 0.0f, 0.0f}, {6.0f, 0.0f, 0.0f}, 3);
    // Offsets +1, -1, +2 around every line pixel (x, 0): (x, 1), (x, 0), (x, 2)
    // along y; (x + 1, 0), (x - 1, 0), (x + 2, 0) along x; the diagonal pixels
    // (x + 1, 1), (x - 1, 0), (x + 2, 2).
    for (int x = 2; x <= 6; ++x) {
        EXPECT_EQ(canvas.At(x, 1), kWide) << x;
        EXPECT_EQ(canvas.At(x, 2), kWide) << x;
    }
    EXPECT_EQ(canvas.At(1, 0), kWide);
    EXPECT_EQ(canvas.At(8, 0), kWide);
    EXPECT_EQ(canvas.At(8, 2), kWide);
    EXPECT_EQ(canvas.At(0, 0), 0u);
    EXPECT_EQ(canvas.At(9, 0), 0u);
    for (int x = 0; x < 12; ++x) EXPECT_EQ(canvas.At(x, 3), 0u) << "thickness 3 reaches two rows down";
    EXPECT_EQ(canvas.At(1, 1), 0u) << "no -1 diagonal below the line: it is clamped onto row 0";
}

TEST(LineWidening, OffsetsPastTheRightAndBottomBordersPaintTheBorder) {
    Canvas canvas(8, 8);
    canvas.Draw({7.0f, 7.0f, 0.0f}, {7.0f, 7.0f, 0.0f}, 4);
    // Offsets +1, -1, +2, -2: the positive ones clamp onto column 7 / row 7.
    EXPECT_EQ(canvas.At(7, 7), kWide) << "the centre is overwritten by clamped widening pixels";
    EXPECT_EQ(canvas.At(6, 7), kWide);
    EXPECT_EQ(canvas.At(5, 7), kWide);
    EXPECT_EQ(canvas.At(7, 5), kWide);
    EXPECT_EQ(canvas.At(5, 5), kWide);
    EXPECT_EQ(canvas.At(4, 7), 0u);
    EXPECT_EQ(canvas.At(6, 5), 0u);
}

TEST(LineClipping, PlaneClipsBySideAndTestsLaterPixelsAtDepthZero) {
    // Plane x = 5 with normal +x: pixels right of it are removed.
    const MeshClipState clip = PlaneClip({5.0f, 0.0f, 0.0f}, {1.0f, 0.0f, 0.0f});
    Canvas canvas(12, 4);
    canvas.Draw({0.0f, 1.0f, 0.0f}, {10.0f, 1.0f, 0.0f}, 1, clip);
    const auto painted = canvas.Painted(kCentre);
    EXPECT_EQ(painted.size(), 6u);
    for (const auto& p : painted) EXPECT_LE(p.first, 5);

    // A plane facing +z behind depth 0: the first pixel is tested at its own
    // depth (-5, kept), every later one at depth 0 (removed).
    const MeshClipState depthClip = PlaneClip({0.0f, 0.0f, -1.0f}, {0.0f, 0.0f, 1.0f});
    Canvas deep(12, 4);
    deep.Draw({1.0f, 2.0f, -5.0f}, {9.0f, 2.0f, -5.0f}, 1, depthClip);
    const std::set<std::pair<int, int>> firstOnly = {{1, 2}};
    EXPECT_EQ(deep.Painted(kCentre), firstOnly);
}

TEST(LineClipping, WideningPixelsAreNotClipped) {
    const MeshClipState clip = PlaneClip({5.0f, 0.0f, 0.0f}, {1.0f, 0.0f, 0.0f});
    Canvas canvas(12, 6);
    canvas.Draw({5.0f, 2.0f, 0.0f}, {5.0f, 2.0f, 0.0f}, 3, clip);
    EXPECT_EQ(canvas.At(5, 2), kCentre);
    EXPECT_EQ(canvas.At(6, 2), kWide);
    EXPECT_EQ(canvas.At(7, 2), kWide);
}

TEST(LineClipping, BoxKeepsTheUnitCubeAroundItsCentre) {
    // Box space = (screen - (5, 5, 0)) / 4: the box covers x, y in 3..7.
    glm::mat4 screenToBox = glm::scale(glm::mat4(1.0f), glm::vec3(0.25f)) *
                            glm::translate(glm::mat4(1.0f), glm::vec3(-5.0f, -5.0f, 0.0f));
    const MeshClipState clip = BoxClip(screenToBox);
    Canvas canvas(12, 12);
    canvas.Draw({0.0f, 5.0f, 0.0f}, {11.0f, 5.0f, 0.0f}, 1, clip);
    const auto painted = canvas.Painted(kCentre);
    EXPECT_EQ(painted.size(), 5u);
    for (const auto& p : painted) {
        EXPECT_GE(p.first, 3);
        EXPECT_LE(p.first, 7);
    }
}

TEST(LineClipping, AnAllZeroBoxMatrixKeepsEveryPixel) {
    const MeshClipState clip = BoxClip(glm::mat4(0.0f));
    Canvas canvas(12, 4);
    canvas.Draw({0.0f, 1.0f, 0.0f}, {11.0f, 1.0f, 0.0f}, 1, clip);
    EXPECT_EQ(canvas.Painted(kCentre).size(), 12u);
}

}  // namespace
