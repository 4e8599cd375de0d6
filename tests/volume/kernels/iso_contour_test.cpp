#include "volume/kernels/iso_contour.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <set>
#include <tuple>
#include <type_traits>
#include <utility>

#include "tests/volume/kernels/slice_fixtures.h"

namespace {

using namespace slicetest;
using zrvolume::DrawIsoContourLines;
using zrvolume::DrawLineDDA;

constexpr uint32_t kLine = 0xff00ff00u;
constexpr uint32_t kBlank = kUntouched;

using Segment = std::pair<glm::dvec2, glm::dvec2>;

std::vector<Segment> Segments(const std::vector<double>& list, size_t first = 0) {
    std::vector<Segment> segments;
    for (size_t k = first; k + 3 < list.size(); k += 4)
        segments.push_back({{list[k], list[k + 1]}, {list[k + 2], list[k + 3]}});
    return segments;
}

bool Near(glm::dvec2 a, glm::dvec2 b) { return glm::length(a - b) < 1e-4; }

// A scene whose voxel, world and screen x, y coincide: volume voxels constant
// along z, the plane at z = 1, an identity voxel-to-world and a camera looking
// along +z through z = 1.
template <class T>
struct ContourScene {
    std::shared_ptr<zrobjects::ZrVObjectVolume> volume;
    std::shared_ptr<zrobjects::ZrIObject> image;
    zrvolume::SlicePlane plane;

    ContourScene(glm::ivec2 size, const std::function<int(int, int)>& value) {
        volume = MakeVolumeFrom<T>({size.x, size.y, 3}, [&](int i, int j, int) { return value(i, j); });
        image = MakeImage(size.x, size.y, 1.0);
        const float lastX = static_cast<float>(size.x - 1), lastY = static_cast<float>(size.y - 1);
        plane = PlaneFromCorners({0, 0, 1}, {lastX, 0, 1}, {0, lastY, 1}, {lastX, lastY, 1}, size.x, size.y);
    }

    bool Run(uint16_t iso, std::vector<double>* list) {
        return DrawIsoContourLines(*volume, IdentityRecord(), IdentityRecord(), *image, plane, 0, iso, kLine, list);
    }
};

template <class T>
class IsoContourTyped : public ::testing::Test {};
TYPED_TEST_SUITE(IsoContourTyped, IntegerVoxelTypes);

// Every corner pattern of one cell, corners 0 (below 50) or 100: each segment
// joins the midpoints of two edges whose corners lie on different sides, every
// such edge is used once, and the saddles cut off the corners below the value.
TYPED_TEST(IsoContourTyped, MarchingSquaresCasesIncludingSaddles) {
    const glm::dvec2 edgeMid[4] = {{0.5, 0}, {0, 0.5}, {1, 0.5}, {0.5, 1}};  // A, B, C, D
    const int edgeEnds[4][2] = {{0, 1}, {0, 2}, {1, 3}, {2, 3}};              // corners 00, 10, 01, 11
    for (int caseIndex = 0; caseIndex < 16; ++caseIndex) {
        const auto below = [&](int corner) { return (caseIndex >> corner) & 1; };
        ContourScene<TypeParam> scene({2, 2}, [&](int i, int j) { return below(i + 2 * j) ? 0 : 100; });
        std::vector<double> list;
        ASSERT_TRUE(scene.Run(50, &list));
        std::vector<glm::dvec2> crossed;
        for (int e = 0; e < 4; ++e)
            if (below(edgeEnds[e][0]) != below(edgeEnds[e][1])) crossed.push_back(edgeMid[e]);
        const auto segments = Segments(list);
        ASSERT_EQ(list.size(), 4 * segments.size());
        ASSERT_EQ(segments.size(), crossed.size() / 2) << "case " << caseIndex;
        for (const glm::dvec2& mid : crossed) {
            int uses = 0;
            for (const Segment& s : segments) uses += Near(s.first, mid) + Near(s.second, mid);
            EXPECT_EQ(uses, 1) << "case " << caseIndex;
        }
        if (caseIndex == 9) {  // P00 and P11 below: (A, B) then (C, D)
            EXPECT_TRUE(Near(segments[0].first, edgeMid[0]) && Near(segments[0].second, edgeMid[1]));
            EXPECT_TRUE(Near(segments[1].first, edgeMid[2]) && Near(segments[1].second, edgeMid[3]));
        }
        if (caseIndex == 6) {  // P10 and P01 below: (A, C) then (B, D)
            EXPECT_TRUE(Near(segments[0].first, edgeMid[0]) && Near(segments[0].second, edgeMid[2]));
            EXPECT_TRUE(Near(segments[1].first, edgeMid[1]) && Near(segments[1].second, edgeMid[3]));
        }
        if (caseIndex == 1) {  // ends listed in rule order: A first, then B
            EXPECT_TRUE(Near(segments[0].first, edgeMid[0]) && Near(segments[0].second, edgeMid[1]));
        }
    }
}

// Low and high voxel values and an iso argument that only separates them after
// narrowing to the voxel type: 300 acts as 44 for unsigned char, 200 as -56 for
// char, 40000 as -25536 for short and unchanged for unsigned short.
template <class T>
constexpr std::array<int, 3> kNarrowing = std::is_same_v<T, unsigned char> ? std::array{40, 50, 300}
                                          : std::is_same_v<T, char>        ? std::array{-60, -50, 200}
                                          : std::is_same_v<T, short>       ? std::array{-30000, -20000, 40000}
                                                                           : std::array{30000, 50000, 40000};

TYPED_TEST(IsoContourTyped, IsoValueIsNarrowedToTheVoxelType) {
    const int low = kNarrowing<TypeParam>[0], high = kNarrowing<TypeParam>[1], iso = kNarrowing<TypeParam>[2];
    ContourScene<TypeParam> scene({2, 2}, [&](int i, int j) { return i + j == 0 ? low : high; });
    std::vector<double> list;
    ASSERT_TRUE(scene.Run(static_cast<uint16_t>(iso), &list));
    // Read without narrowing, every corner would lie below the value and no
    // line would appear.
    ASSERT_EQ(list.size(), 4u);
    const double t = (low - static_cast<double>(static_cast<TypeParam>(iso))) / (low - high);
    EXPECT_TRUE(Near(Segments(list)[0].first, {t, 0}));
    EXPECT_TRUE(Near(Segments(list)[0].second, {0, t}));
}

TYPED_TEST(IsoContourTyped, CornersAtTheIsoValueCountAsNotBelow) {
    ContourScene<TypeParam> flat({2, 2}, [](int, int) { return 20; });
    std::vector<double> list;
    ASSERT_TRUE(flat.Run(20, &list));
    EXPECT_TRUE(list.empty());
    // P00 just below: the crossings sit on the other corners (t = 1).
    ContourScene<TypeParam> corner({2, 2}, [](int i, int j) { return i + j == 0 ? 19 : 20; });
    ASSERT_TRUE(corner.Run(20, &list));
    ASSERT_EQ(list.size(), 4u);
    EXPECT_TRUE(Near(Segments(list)[0].first, {1, 0}));
    EXPECT_TRUE(Near(Segments(list)[0].second, {0, 1}));
}

TEST(IsoContour, SpikeGivesADiamondAndTheListIsAppended) {
    ContourScene<unsigned short> scene({7, 7}, [](int i, int j) { return i == 3 && j == 3 ? 100 : 0; });
    std::vector<double> list = {-1.0, -2.0};
    Fill(*scene.image);
    ASSERT_TRUE(scene.Run(50, &list));
    EXPECT_EQ(list[0], -1.0);
    EXPECT_EQ(list[1], -2.0);
    const auto segments = Segments(list, 2);
    ASSERT_EQ(list.size(), 2 + 4 * segments.size());
    ASSERT_EQ(segments.size(), 4u);
    for (const Segment& s : segments)
        for (glm::dvec2 end : {s.first, s.second}) {
            // Halfway from the spike to a neighbour along one axis.
            EXPECT_NEAR(std::abs(end.x - 3) + std::abs(end.y - 3), 0.5, 1e-5);
            EXPECT_TRUE(std::abs(end.x - 3) < 1e-5 || std::abs(end.y - 3) < 1e-5);
        }
    // A list was asked for, so nothing is drawn.
    for (int i = 0; i < 49; ++i) EXPECT_EQ(Colours(*scene.image)[i], kBlank);
}

TEST(IsoContour, DrawingPlotsTheListedSegments) {
    ContourScene<short> scene({12, 10}, [](int i, int j) { return (i - 5) * (i - 5) + (j - 4) * (j - 4); });
    std::vector<double> list;
    ASSERT_TRUE(scene.Run(10, &list));
    ASSERT_FALSE(list.empty());
    std::vector<uint32_t> expected(12 * 10, kBlank);
    for (const Segment& s : Segments(list))
        DrawLineDDA(glm::vec2(s.first), glm::vec2(s.second), kLine, expected.data(), 12, 10);
    Fill(*scene.image);
    ASSERT_TRUE(scene.Run(10, nullptr));
    EXPECT_EQ(ColourCopy(*scene.image), expected);
}

TEST(IsoContour, APlaneShorterThanAVoxelOrAFloatVolumeGivesNoLinesAndDrawsNothing) {
    ContourScene<unsigned char> flat({4, 4}, [](int i, int) { return i * 30; });
    flat.plane = PlaneFromCorners({0, 0, 1}, {3, 0, 1}, {0, 0.5f, 1}, {3, 0.5f, 1}, 4, 4);
    ContourScene<float> floats({4, 4}, [](int i, int) { return i * 30; });
    Fill(*floats.image);
    std::vector<double> list;
    EXPECT_TRUE(flat.Run(45, &list));
    EXPECT_TRUE(floats.Run(45, &list));
    EXPECT_TRUE(floats.Run(45, nullptr));
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(ColourCopy(*floats.image), std::vector<uint32_t>(16, kBlank));
}

// The contour of a sphere on an oblique section, with anisotropic voxels: every
// returned end, taken back from screen to voxel coordinates through the
// camera's pixel layout, lies on the sphere.
TEST(IsoContour, SphereContourEndsLieOnTheSphere) {
    const glm::dvec3 spacing(0.8, 0.9, 1.1);
    const glm::dvec3 centre(19.3, 20.1, 18.7);  // voxel coordinates
    const double radius = 12.0;
    zrobjects::VolumeGeometry geometry;
    geometry.spacing = spacing;
    // Ten units per voxel of distance from the centre.
    auto volume = MakeVolumeFrom<unsigned short>(
        {40, 40, 40}, [&](int i, int j, int k) { return std::lround(10.0 * glm::length(glm::dvec3(i, j, k) - centre)); },
        geometry);

    zrobjects::SectionView view;
    view.centre = centre * spacing + glm::dvec3(0.7, -0.4, 1.3);
    view.viewDirection = glm::dvec3(0.3, -0.5, 0.8);
    view.up = glm::dvec3(0.1, -1.0, 0.2);
    view.pixelSpacing = glm::dvec2(0.5);
    view.size = glm::ivec2(64, 64);
    auto image = zrobjects::MakeSectionImage(view);
    const auto plane = CameraPlane(*image);
    std::vector<double> list;
    ASSERT_TRUE(DrawIsoContourLines(*volume, zrcommon::ToMatrixRecord(volume->GetMatrixRS2OSf()),
                                    zrcommon::ToMatrixRecord(volume->GetMatrixOS2RSf()), *image, plane, 0,
                                    static_cast<uint16_t>(10 * radius), kLine, &list));
    const auto segments = Segments(list);
    ASSERT_GT(segments.size(), 40u);
    const auto* camera = image->GetCameraObject();
    for (const Segment& s : segments) {
        for (glm::dvec2 end : {s.first, s.second}) {
            const glm::dvec3 world = view.centre + (end.x - 31.5) * view.pixelSpacing.x * camera->RightAxis() +
                                     (end.y - 31.5) * view.pixelSpacing.y * camera->DownAxis();
            EXPECT_NEAR(glm::length(world / spacing - centre), radius, 0.3) << end.x << ", " << end.y;
        }
    }
}

class LineDDA : public ::testing::Test {
protected:
    static constexpr int kWidth = 8, kHeight = 6, kGuard = 16;
    std::vector<uint32_t> storage = std::vector<uint32_t>(kWidth * kHeight + 2 * kGuard, kBlank);

    void Draw(glm::vec2 a, glm::vec2 b) { DrawLineDDA(a, b, kLine, storage.data() + kGuard, kWidth, kHeight); }

    std::set<std::pair<int, int>> Plotted() const {
        std::set<std::pair<int, int>> pixels;
        for (int i = 0; i < kWidth * kHeight; ++i)
            if (storage[kGuard + i] == kLine) pixels.insert({i % kWidth, i / kWidth});
        return pixels;
    }
    bool GuardsIntact() const {
        for (int i = 0; i < kGuard; ++i)
            if (storage[i] != kBlank || storage[storage.size() - 1 - i] != kBlank) return false;
        return true;
    }
};

// Steps start from the unrounded end (a quarter pixel in x per step from x =
// 1), and ends rounding to one pixel plot that pixel.
TEST_F(LineDDA, PlotsOnePixelPerStepAlongTheLongerAxis) {
    using Pixels = std::set<std::pair<int, int>>;
    const std::tuple<glm::vec2, glm::vec2, Pixels> cases[] = {
        {{1.2f, 2.4f}, {5.4f, 2.4f}, {{1, 2}, {2, 2}, {3, 2}, {4, 2}, {5, 2}}},
        {{0, 0}, {3, 3}, {{0, 0}, {1, 1}, {2, 2}, {3, 3}}},
        {{1, 0}, {2, 4}, {{1, 0}, {1, 1}, {2, 2}, {2, 3}, {2, 4}}},
        {{2.2f, 2.3f}, {2.4f, 1.9f}, {{2, 2}}}};
    for (const auto& [a, b, expected] : cases) {
        storage.assign(storage.size(), kBlank);
        Draw(a, b);
        EXPECT_EQ(Plotted(), expected) << a.x << "," << a.y << " to " << b.x << "," << b.y;
    }
}

TEST_F(LineDDA, PixelsOffTheBufferAreSkippedOneByOne) {
    Draw({-3, 1}, {9, 1});
    Draw({6, -4}, {6, 9});
    std::set<std::pair<int, int>> expected;
    for (int x = 0; x < kWidth; ++x) expected.insert({x, 1});
    for (int y = 0; y < kHeight; ++y) expected.insert({6, y});
    EXPECT_EQ(Plotted(), expected);
    EXPECT_TRUE(GuardsIntact());
    Draw({-50, -50}, {-10, 300});
    EXPECT_TRUE(GuardsIntact());
}

}  // namespace
