// The vectorised paths of the thin-slice, mask-selected, label-overlay, float
// grey, slab (reductions and shaded compositing) and curved (thin and slab)
// kernels and of the fast quality mode's enlargement against their plain scalar
// forms (bench/reference_kernels.h): the same bytes in the colour and value
// buffers on every instruction-set target this processor offers, at one and at
// two threads, for every voxel type a family takes. The scenes are small but
// have what the full workloads have: oblique planes that leave the volume on
// every side (clamped and edge cells) next to groups wholly inside it, rows that
// are not a multiple of the lane count and images of several strips, negative
// voxels for the signed types, tables whose every entry differs.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "bench/reference_kernels.h"
#include "host/zr_camera.h"
#include "thick_fixtures.h"
#include "volume/kernels/curved_reformation.h"
#include "volume/kernels/float_grey_slice.h"
#include "volume/kernels/image_upscale.h"
#include "volume/kernels/iso_contour.h"
#include "volume/kernels/label_overlay.h"
#include "volume/kernels/masked_otf_slice.h"
#include "volume/kernels/otf_slice.h"
#include "volume/kernels/simd_dispatch.h"
#include "volume/kernels/slab_compositing.h"
#include "volume/kernels/slab_projection.h"
#include "volume/kernels/voxel_sampling.h"

namespace {

using slicetest::ChannelSwitch;
using slicetest::ThreadCount;

constexpr glm::ivec3 kDims{37, 29, 23};
constexpr int kWidth = 61;   // neither a multiple of 8 nor of 16
constexpr int kHeight = 45;

// Voxel values spread over the type's range (negative ones for the signed
// types): a hashed texture on top of a ramp, so that neighbouring corners differ.
template <class T>
int VoxelValue(int i, int j, int k) {
    const int hash = (i * 73 + j * 151 + k * 211 + i * j * 7 + j * k * 3) % 997;
    if constexpr (sizeof(T) == 1) {
        return static_cast<T>(-1) < T(0) ? hash % 256 - 128 : hash % 256;
    } else {
        return static_cast<T>(-1) < T(0) ? hash * 61 - 30000 + i * 5 : hash * 65 + i * 3;
    }
}

// Every entry distinct, with varied opacity, over the full padded row.
std::shared_ptr<zrobjects::ZrObject> DistinctTable(int counted) {
    return slicetest::MakeExactTable(1, counted, [](int, int t) {
        return slicetest::Entry(t & 0xff, (t * 7) & 0xff, (t * 13 + 5) & 0xff, (t * 29 + 17) & 0xff);
    });
}

const uint32_t* TableRow(zrobjects::ZrObject& owner) { return zrvolume::ReadOtfTable(owner).rows[0]; }

struct Buffers {
    std::vector<uint32_t> colour;
    std::vector<uint16_t> values;
};

// What the buffers hold before a render: one value everywhere, or for the
// families that blend into the picture a pattern whose four bytes differ.
uint32_t UniformPixel(size_t) { return 0x5a5a5a5au; }
uint32_t PatternPixel(size_t i) { return static_cast<uint32_t>(i * 2654435761u) | 0x01020304u; }
using Background = uint32_t (*)(size_t);

// Fills the image's colour buffer 0 and value buffer 0 with `background` and
// 0xa5a5 (so that untouched pixels are compared too), runs `render`, and
// returns them.
template <class Render>
Buffers RenderInto(zrobjects::ZrIObject& image, Render render, Background background = UniformPixel) {
    const size_t n = static_cast<size_t>(image.Width()) * image.Height();
    for (size_t i = 0; i < n; ++i) {
        slicetest::Colours(image)[i] = background(i);
        slicetest::Values(image)[i] = 0xa5a5;
    }
    render();
    return {{slicetest::Colours(image), slicetest::Colours(image) + n},
            {slicetest::Values(image), slicetest::Values(image) + n}};
}

template <class Reference>
Buffers ReferenceInto(int width, int height, Reference reference, Background background = UniformPixel) {
    Buffers out;
    out.colour.resize(static_cast<size_t>(width) * height);
    for (size_t i = 0; i < out.colour.size(); ++i) out.colour[i] = background(i);
    out.values.assign(static_cast<size_t>(width) * height, 0xa5a5);
    reference(zrreference::ReferenceTarget{out.colour.data(), out.values.data(), width});
    return out;
}

// Runs `render` on every target at one and two threads and compares with `expected`.
template <class Render>
void ExpectSameOnEveryPath(zrobjects::ZrIObject& image, const Buffers& expected, Render render,
                           Background background = UniformPixel) {
    for (zrvolume::SimdTarget target : zrvolume::SupportedSimdTargets()) {
        zrvolume::ForceSimdTarget(target);
        for (int threads : {1, 2}) {
            ThreadCount count(threads);
            const Buffers got = RenderInto(image, render, background);
            SCOPED_TRACE(std::string(zrvolume::SimdTargetName(target)) + " at " + std::to_string(threads) +
                         " threads");
            EXPECT_EQ(got.colour, expected.colour);
            EXPECT_EQ(got.values, expected.values);
        }
    }
    zrvolume::ForceSimdTarget(std::nullopt);
}

template <class T>
class LaneIdentityTest : public ::testing::Test {};
TYPED_TEST_SUITE(LaneIdentityTest, slicetest::IntegerVoxelTypes);

// An oblique plane leaving the grid across every face, with either channel
// order, and a plane inside it cut by a clip plane.
TYPED_TEST(LaneIdentityTest, OtfSliceMatchesScalarForm) {
    using T = TypeParam;
    auto volume = slicetest::MakeVolumeFrom<T>(kDims, VoxelValue<T>);
    auto image = slicetest::MakeImage(kWidth, kHeight);
    const auto grid = zrvolume::MakeVoxelGrid<T>(*volume->GetVolumeData());
    zrcommon::SliceClipState clip;
    clip.clipPlane = true;
    clip.planePoint = glm::vec3(18.0f, 14.0f, 11.0f);
    clip.planeNormal = glm::vec3(0.6f, -0.8f, 0.0f);
    const auto oblique =
        slicetest::PlaneFromCorners({-2.3f, -1.7f, -1.2f}, {39.1f, 3.4f, 11.9f}, {1.6f, 31.2f, 13.3f},
                                    {38.4f, 30.1f, 24.6f}, kWidth, kHeight);
    const auto inside =
        slicetest::PlaneFromCorners({0.2f, 0.1f, 3.5f}, {36.0f, 2.0f, 8.0f}, {0.5f, 28.0f, 12.0f},
                                    {35.5f, 27.5f, 20.0f}, kWidth, kHeight);
    const struct {
        zrvolume::SlicePlane plane;
        int counted;
        bool channelSwitch;
        zrcommon::SliceClipState clip;
    } cases[] = {{oblique, 300, false, {}}, {oblique, 300, true, {}}, {inside, 4096, false, clip}};
    for (const auto& k : cases) {
        SCOPED_TRACE(testing::Message() << k.counted << " entries, switch " << k.channelSwitch);
        auto table = DistinctTable(k.counted);
        ChannelSwitch order(zrvolume::ChannelOrderFamily::OtfSlice, k.channelSwitch);
        const Buffers expected = ReferenceInto(kWidth, kHeight, [&](const zrreference::ReferenceTarget& out) {
            zrreference::OtfSlice(grid, k.plane.corners, kWidth, kHeight, TableRow(*table),
                                  static_cast<float>(k.counted), k.channelSwitch, k.clip, out);
        });
        ExpectSameOnEveryPath(*image, expected, [&] {
            ASSERT_TRUE(zrvolume::RenderOtfSlice(*volume, slicetest::IdentityRecord(), *image, k.plane,
                                                 k.clip, 0, 0, *table));
        });
    }
}

// Overwrites the margins (every voxel outside the grid, in every slice the
// volume stores) with values unlike the faces they repeat, so that a sampler
// that skipped a clamp and read past an edge would show it. Nothing reads the
// margins otherwise: the sampling rule clamps every index it uses.
template <class T>
void PoisonMargins(zrobjects::ZrVObjectVolume& volume) {
    zrobjects::VolumeData& data = *volume.GetVolumeData();
    const glm::ivec3 d = data.dims, m = data.margins;
    const int pitch = data.RowPitch();
    for (int z = 0; z < d.z + 2 * m.z; ++z)
        for (int y = 0; y < d.y + 2 * m.y; ++y)
            for (int x = 0; x < pitch; ++x) {
                const bool margin = z < m.z || z >= d.z + m.z || y < m.y || y >= d.y + m.y || x < m.x ||
                                    x >= d.x + m.x;
                if (margin)
                    static_cast<T*>(data.slices[z])[x + static_cast<size_t>(y) * pitch] =
                        static_cast<T>(97 + x + 3 * y + 5 * z);
            }
}

// The planes the thin families are drawn on, in voxel coordinates: one leaving
// the grid across every face on a 61-pixel-wide image (one strip), one on a
// 141-pixel-wide image (three strips, the last not a multiple of the lanes)
// whose middle lies wholly inside the grid, and one wholly outside it.
struct ThinScene {
    std::shared_ptr<zrobjects::ZrIObject> image;
    zrvolume::SlicePlane plane;
    const char* name;
};

std::vector<ThinScene> ThinScenes() {
    constexpr int kWideWidth = 141, kWideHeight = 37;
    return {{slicetest::MakeImage(kWidth, kHeight),
             slicetest::PlaneFromCorners({-2.3f, -1.7f, -1.2f}, {39.1f, 3.4f, 11.9f}, {1.6f, 31.2f, 13.3f},
                                         {38.4f, 30.1f, 24.6f}, kWidth, kHeight),
             "oblique"},
            {slicetest::MakeImage(kWideWidth, kWideHeight),
             slicetest::PlaneFromCorners({-1.1f, 0.6f, 2.2f}, {37.9f, 2.1f, 9.5f}, {0.3f, 29.4f, 14.1f},
                                         {36.6f, 28.8f, 22.9f}, kWideWidth, kWideHeight),
             "wide"},
            {slicetest::MakeImage(kWidth, kHeight),
             slicetest::PlaneFromCorners({-9.0f, -3.0f, 30.0f}, {50.0f, -3.0f, 30.0f}, {-9.0f, 40.0f, 31.0f},
                                         {50.0f, 40.0f, 31.0f}, kWidth, kHeight),
             "outside"}};
}

// A clip plane through the middle of the grid: such requests take the
// per-pixel path, which must agree as well.
zrcommon::SliceClipState MiddleClip() {
    zrcommon::SliceClipState clip;
    clip.clipPlane = true;
    clip.planePoint = glm::vec3(18.0f, 14.0f, 11.0f);
    clip.planeNormal = glm::vec3(0.6f, -0.8f, 0.0f);
    return clip;
}

// Mask labels in small patches, half of them 0, up to 7 (past the table's five
// rows: the padded row pointers serve them), so that cells straddle labelled
// and unlabelled voxels.
int MaskLabel(int i, int j, int k) {
    const int h = ((i / 2) * 31 + (j / 2) * 17 + (k / 2) * 7 + i * j) % 13;
    return h < 6 ? 0 : h - 5;
}

TYPED_TEST(LaneIdentityTest, MaskedOtfSliceMatchesScalarForm) {
    using T = TypeParam;
    auto volume = slicetest::MakeVolumeFrom<T>(kDims, VoxelValue<T>);
    auto mask = slicetest::MakeVolumeFrom<unsigned char>(kDims, MaskLabel);
    PoisonMargins<T>(*volume);
    PoisonMargins<unsigned char>(*mask);
    const auto grid = zrvolume::MakeVoxelGrid<T>(*volume->GetVolumeData());
    const zrobjects::VolumeData& data = *volume->GetVolumeData();
    const zrvolume::VoxelGrid<unsigned char> maskGrid{mask->GetVolumeData()->slices.data(), data.dims, data.margins,
                                                      data.RowPitch()};
    // Five rows, every entry distinct across rows and indices, varied opacity.
    auto table = slicetest::MakeExactTable(5, 4096, [](int r, int t) {
        return slicetest::Entry((t + 40 * r) & 0xff, (t * 7 + r) & 0xff, (t * 13 + 5 * r) & 0xff,
                                (t * 29 + 17 + 61 * r) & 0xff);
    });
    const uint32_t* const* rows = zrvolume::ReadOtfTable(*table).rows;
    for (const ThinScene& scene : ThinScenes()) {
        const int w = scene.plane.width, h = scene.plane.height;
        const struct {
            bool channelSwitch;
            zrcommon::SliceClipState clip;
        } cases[] = {{false, {}}, {true, {}}, {false, MiddleClip()}};
        for (const auto& k : cases) {
            SCOPED_TRACE(testing::Message() << scene.name << ", switch " << k.channelSwitch << ", clip "
                                            << k.clip.clipPlane);
            ChannelSwitch order(zrvolume::ChannelOrderFamily::MaskedOtfSlice, k.channelSwitch);
            const Buffers expected = ReferenceInto(w, h, [&](const zrreference::ReferenceTarget& out) {
                zrreference::MaskedOtfSlice(grid, maskGrid, scene.plane.corners, w, h, rows, k.channelSwitch, k.clip,
                                            out);
            });
            ExpectSameOnEveryPath(*scene.image, expected, [&] {
                ASSERT_TRUE(zrvolume::RenderMaskedOtfSlice(*volume, slicetest::IdentityRecord(), *mask, *scene.image,
                                                           scene.plane, k.clip, 0, 0, 5, *table));
            });
        }
    }
}

// Labels in patches from a small set per type: 0 and positive ones, negative
// ones for the signed types, spread over the type's range for 16 bits, so that
// cells hold two to four labels, ties included.
template <class T>
int OverlayLabel(int i, int j, int k) {
    static constexpr int kChoices[11] = {0, 0, 0, 0, 1, -2, 3, -5, 7, 9, -11};
    const int h = ((i / 2) * 31 + (j / 2) * 17 + (k / 3) * 7 + (i / 3) * (j / 2)) % 11;
    int label = kChoices[h];
    if (!(static_cast<T>(-1) < T(0))) label = label < 0 ? -label + 100 : label;
    return sizeof(T) == 2 ? label * 997 : label;
}

TYPED_TEST(LaneIdentityTest, LabelOverlayMatchesScalarForm) {
    using T = TypeParam;
    auto volume = slicetest::MakeVolumeFrom<T>(kDims, OverlayLabel<T>);
    PoisonMargins<T>(*volume);
    const auto grid = zrvolume::MakeVoxelGrid<T>(*volume->GetVolumeData());
    // Full-length rows (label t reads entry t, negative labels wrap to the top)
    // with every third entry transparent, and a 300-entry table whose label-0
    // entry is visible (the background tints too).
    const auto entry = [](int, int t) {
        return slicetest::Entry((t * 3) & 0xff, (t * 7 + 1) & 0xff, (t * 13 + 5) & 0xff,
                                t % 3 == 0 ? 0 : ((t * 29 + 17) & 0xff) | 1);
    };
    const struct {
        int counted;
        zrcommon::SliceClipState clip;
    } cases[] = {{65536, {}}, {300, {}}, {65536, MiddleClip()}};
    for (const ThinScene& scene : ThinScenes()) {
        const int w = scene.plane.width, h = scene.plane.height;
        for (const auto& k : cases) {
            SCOPED_TRACE(testing::Message() << scene.name << ", " << k.counted << " entries, clip "
                                            << k.clip.clipPlane);
            auto table = slicetest::MakeExactTable(1, k.counted, [&](int r, int t) {
                return k.counted == 300 ? entry(r, t + 1) : entry(r, t);
            });
            const zrvolume::OtfTable rows = zrvolume::ReadOtfTable(*table);
            const Buffers expected = ReferenceInto(
                w, h,
                [&](const zrreference::ReferenceTarget& out) {
                    zrreference::LabelOverlay(grid, scene.plane.corners, w, h, rows.rows[0], rows.length, k.clip, out);
                },
                PatternPixel);
            ExpectSameOnEveryPath(
                *scene.image, expected,
                [&] {
                    ASSERT_TRUE(zrvolume::RenderLabelOverlaySlice(*volume, slicetest::IdentityRecord(), *scene.image,
                                                                  scene.plane, k.clip, 0, *table));
                },
                PatternPixel);
        }
    }
}

// Float voxels over -500 .. 4000 with fractions, and a few not-a-number and
// infinite ones, through windows (a negative width among them) and curves (one
// with vertical steps, whose divisions give infinities and not-a-numbers, one
// with equal ends, which normalises by 0).
TEST(LaneIdentityFloatTest, FloatGreySliceMatchesScalarForm) {
    auto volume = slicetest::MakeVolumeFrom<float>(kDims, [](int i, int j, int k) {
        if (i == 20 && j == 14 && k == 11) return std::nanf("");
        if (i == 5 && j == 20 && k == 9) return std::numeric_limits<float>::infinity();
        return static_cast<float>(VoxelValue<unsigned short>(i, j, k)) * 0.07f - 500.25f;
    });
    PoisonMargins<float>(*volume);
    const auto grid = zrvolume::MakeVoxelGrid<float>(*volume->GetVolumeData());
    const std::vector<glm::dvec2> w9c = {{0, 0}, {900, 40}, {1100, 160}, {3600, 255}};
    // A step at 0, the value of every pixel outside the grid: the walk must stop
    // at the first point not below the value.
    const std::vector<glm::dvec2> steps = {{-200, 30}, {0, 30}, {0, 90}, {1500, 200}, {1500, 200}, {3000, 230}};
    const std::vector<glm::dvec2> flat = {{-200, 30}, {1500, 200}, {3000, 30}};
    const std::vector<glm::dvec2> two = {{-100.5, 10}, {3900, 250}};
    const struct {
        const std::vector<glm::dvec2>* curve;
        float centre, width;
        const char* name;
    } cases[] = {{nullptr, 1000.0f, 2000.0f, "window"},
                 {nullptr, 700.0f, -900.0f, "negative width"},
                 {&w9c, 0.0f, 0.0f, "curve"},
                 {&steps, 0.0f, 0.0f, "stepped curve"},
                 {&flat, 0.0f, 0.0f, "curve with flat ends"},
                 {&two, 0.0f, 0.0f, "two-point curve"}};
    for (const ThinScene& scene : ThinScenes()) {
        const int w = scene.plane.width, h = scene.plane.height;
        for (const auto& k : cases) {
            SCOPED_TRACE(testing::Message() << scene.name << ", " << k.name);
            const Buffers expected = ReferenceInto(w, h, [&](const zrreference::ReferenceTarget& out) {
                zrreference::FloatGreySlice(grid, scene.plane.corners, w, h, k.curve, k.centre, k.width, out);
            });
            ExpectSameOnEveryPath(*scene.image, expected, [&] {
                ASSERT_TRUE(zrvolume::RenderFloatGreySlice(*volume, slicetest::IdentityRecord(), *scene.image,
                                                           scene.plane, nullptr, 0, k.curve, k.centre, k.width));
            });
        }
    }
}

TYPED_TEST(LaneIdentityTest, SlabReductionsMatchScalarForm) {
    using T = TypeParam;
    auto volume = slicetest::MakeVolumeFrom<T>(kDims, VoxelValue<T>);
    auto table = DistinctTable(4096);
    auto image = slicetest::MakeImage(kWidth, kHeight);
    zrvolume::SlabGeometry geometry;
    geometry.topLeft = {-1.9f, -2.2f, -3.1f};
    geometry.topRight = {38.3f, 1.4f, 2.7f};
    geometry.bottomLeft = {2.1f, 30.6f, 6.2f};
    geometry.bottomRight = {37.2f, 29.9f, 10.4f};
    geometry.layerStep = {0.31f, -0.47f, 1.13f};
    geometry.layerCount = 19;
    const auto grid = zrvolume::MakeVoxelGrid<T>(*volume->GetVolumeData());
    for (int code : {10, 11, 12}) {
        SCOPED_TRACE("projection code " + std::to_string(code));
        zrvolume::SlabProjectionArgs args = thicktest::SlabArgs(*volume, *table, *image, geometry, code);
        args.colourIndex = 0;
        const Buffers expected = ReferenceInto(kWidth, kHeight, [&](const zrreference::ReferenceTarget& out) {
            zrreference::SlabProjection(grid, geometry, code, kWidth, kHeight, TableRow(*table), false, {}, out);
        });
        ExpectSameOnEveryPath(*image, expected, [&] { ASSERT_TRUE(zrvolume::RenderSlabProjection(args)); });
    }
}

// Shaded compositing with and without magnitude weighting and the specular
// power, with either channel order: layers of every opacity (0 included),
// marches that stop early, lanes that leave the grid.
TYPED_TEST(LaneIdentityTest, SlabCompositingMatchesScalarForm) {
    using T = TypeParam;
    auto volume = slicetest::MakeVolumeFrom<T>(kDims, VoxelValue<T>);
    auto table = DistinctTable(4096);
    auto image = slicetest::MakeImage(kWidth, kHeight);
    zrvolume::SlabGeometry geometry;
    geometry.topLeft = {-1.9f, -2.2f, -3.1f};
    geometry.topRight = {38.3f, 1.4f, 2.7f};
    geometry.bottomLeft = {2.1f, 30.6f, 6.2f};
    geometry.bottomRight = {37.2f, 29.9f, 10.4f};
    geometry.layerStep = {0.31f, -0.47f, 1.13f};
    geometry.layerCount = 19;
    const auto grid = zrvolume::MakeVoxelGrid<T>(*volume->GetVolumeData());
    // A scale that leaves some weighted opacities below 1 and lifts others to it.
    volume->SetObjParam("_float2_GraidentMagMinMax", glm::vec2(0.0f, sizeof(T) == 1 ? 120.0f : 9000.0f));
    const struct {
        int code;
        glm::vec4 phong;
        bool channelSwitch;
    } cases[] = {{1, {0.7f, 0.7f, 0.0f, 1.0f}, false}, {0, {0.2f, 1.0f, 0.5f, 5.0f}, true},
                 {1, {0.3f, 0.6f, 0.4f, 2.5f}, false}};
    for (const auto& k : cases) {
        SCOPED_TRACE(testing::Message() << "code " << k.code << ", specular " << k.phong.z);
        ChannelSwitch order(zrvolume::ChannelOrderFamily::SlabProjection, k.channelSwitch);
        zrvolume::SlabProjectionArgs args = thicktest::SlabArgs(*volume, *table, *image, geometry, k.code);
        args.colourIndex = 0;
        args.phongCoeffs = k.phong;
        args.gradientMagnitude = k.code == 1;
        const zrvolume::CompositingShading shading =
            zrvolume::MakeCompositingShading(*volume, k.phong, args.gradientMagnitude, geometry.layerStep);
        const Buffers expected = ReferenceInto(kWidth, kHeight, [&](const zrreference::ReferenceTarget& out) {
            zrreference::SlabCompositing(grid, geometry, shading, kWidth, kHeight, TableRow(*table), k.channelSwitch,
                                         out);
        });
        ExpectSameOnEveryPath(*image, expected, [&] { ASSERT_TRUE(zrvolume::RenderSlabProjection(args)); });
    }
}

// An arc through the volume, partly outside it, in voxel coordinates: the
// centre line of the curved tests (the args point into it, so it outlives them).
struct CurvedArc {
    std::vector<glm::vec3> points, ups, tangents;
    CurvedArc() {
        for (int i = 0; i < 23; ++i) {
            const float t = -1.2f + 2.4f * static_cast<float>(i) / 22.0f;
            points.emplace_back(18.0f + 21.0f * std::sin(t), 14.0f + 12.0f * std::cos(t), 11.0f + 4.0f * t);
            tangents.emplace_back(21.0f * std::cos(t), -12.0f * std::sin(t), 4.0f);
            ups.emplace_back(0.1f * t, 0.2f, 1.0f);
        }
    }
};

// The whole curved view of `arc`, 30 mm high, 1.5 mm either side, drawn into
// colour buffer 0.
zrvolume::CurvedReformationArgs ArcView(const CurvedArc& arc, zrobjects::ZrVObjectVolume& volume,
                                        zrobjects::ZrObject& table, zrobjects::ZrIObject& image) {
    zrvolume::CurvedReformationArgs args = thicktest::CurvedArgs(volume, table, image, arc.points, arc.ups, arc.tangents);
    args.colourIndex = 0;
    args.planeHeight = 30.0f;
    thicktest::WholeCurvedView(args);
    args.halfThickness = 1.5f;
    return args;
}

// Curved slab maximum, minimum and average along an arc that leaves the
// volume, on either side, through an affine and a projective record; and with
// a clip plane, where skipped layers are not counted (the per-pixel path).
TYPED_TEST(LaneIdentityTest, CurvedSlabReductionsMatchScalarForm) {
    using T = TypeParam;
    auto volume = slicetest::MakeVolumeFrom<T>(kDims, VoxelValue<T>);
    auto table = DistinctTable(1000);
    auto image = slicetest::MakeImage(kWidth, kHeight);
    CurvedArc arc;
    zrvolume::CurvedReformationArgs args = ArcView(arc, *volume, *table, *image);
    args.thickness = 7.0f;  // 11 layers 0.65 mm apart
    args.layerStep = 0.65f;
    const auto grid = zrvolume::MakeVoxelGrid<T>(*volume->GetVolumeData());
    const zrcommon::Matrix16 affine = args.worldToVoxel;
    zrcommon::Matrix16 projective = affine;
    projective.m[12] = 0.004f;
    projective.m[13] = -0.003f;
    projective.m[15] = 0.97f;
    zrcommon::SliceClipState clip;
    clip.clipPlane = true;
    clip.planePoint = glm::vec3(18.0f, 14.0f, 11.0f);
    clip.planeNormal = glm::vec3(0.6f, -0.8f, 0.0f);

    for (int code : {10, 11, 12}) {
        for (int pass = 0; pass < 4; ++pass) {
            args.projectionCode = code;
            args.rightSide = pass == 1;
            args.worldToVoxel = pass == 2 ? projective : affine;
            args.clip = pass == 3 ? clip : zrcommon::SliceClipState{};
            SCOPED_TRACE(testing::Message() << "code " << code << ", pass " << pass);
            const zrvolume::CurvedSectionGeometry geometry = zrvolume::MakeCurvedSectionGeometry(args);
            ASSERT_EQ(geometry.lastLayer, 10);
            const Buffers expected = ReferenceInto(kWidth, kHeight, [&](const zrreference::ReferenceTarget& out) {
                zrreference::CurvedSlab(grid, args, geometry, code, TableRow(*table), 1000.0f, false, out);
            });
            ExpectSameOnEveryPath(*image, expected, [&] { ASSERT_TRUE(zrvolume::RenderCurvedReformation(args)); });
        }
    }
}

TYPED_TEST(LaneIdentityTest, ThinCurvedSectionMatchesScalarForm) {
    using T = TypeParam;
    auto volume = slicetest::MakeVolumeFrom<T>(kDims, VoxelValue<T>);
    auto table = DistinctTable(1000);
    auto image = slicetest::MakeImage(kWidth, kHeight);
    CurvedArc arc;
    zrvolume::CurvedReformationArgs args = ArcView(arc, *volume, *table, *image);
    const zrvolume::CurvedSectionGeometry geometry = zrvolume::MakeCurvedSectionGeometry(args);
    const auto grid = zrvolume::MakeVoxelGrid<T>(*volume->GetVolumeData());
    // The fixture's affine record (the lanes skip the division by w) and a
    // projective one.
    const zrcommon::Matrix16 affine = args.worldToVoxel;
    zrcommon::Matrix16 projective = affine;
    projective.m[12] = 0.004f;
    projective.m[13] = -0.003f;
    projective.m[15] = 0.97f;

    for (int pass = 0; pass < 3; ++pass) {
        args.rightSide = pass == 1;
        args.worldToVoxel = pass == 2 ? projective : affine;
        SCOPED_TRACE("pass " + std::to_string(pass));
        const Buffers expected = ReferenceInto(kWidth, kHeight, [&](const zrreference::ReferenceTarget& out) {
            zrreference::CurvedThin(grid, args, geometry, TableRow(*table), 1000.0f, false, out);
        });
        ExpectSameOnEveryPath(*image, expected, [&] { ASSERT_TRUE(zrvolume::RenderCurvedReformation(args)); });
    }
}

TYPED_TEST(LaneIdentityTest, IsoContourListMatchesScalarForm) {
    using T = TypeParam;
    auto volume = slicetest::MakeVolumeFrom<T>(kDims, VoxelValue<T>);
    auto image = slicetest::MakeImage(kWidth, kHeight);
    // Cells leave the grid on every side; the iso value lies mid-range of the
    // type's voxels.
    const zrvolume::SlicePlane plane = slicetest::PlaneFromCorners(
        {-2.3f, -1.7f, -1.2f}, {39.1f, 3.4f, 11.9f}, {1.6f, 31.2f, 13.3f}, {38.4f, 30.1f, 24.6f}, kWidth, kHeight);
    const zrcommon::Matrix16 identity = slicetest::IdentityRecord();
    const bool isSigned = static_cast<T>(-1) < T(0);
    const uint16_t isoValue = isSigned ? 0 : (sizeof(T) == 1 ? 128 : 32000);
    const int iso = static_cast<int>(static_cast<T>(isoValue));

    glm::dmat4 view, projection, viewport;
    image->GetCameraObject()->GetMatrixWStoSS(view, projection, viewport);
    const glm::mat4 worldToScreen(zrobjects::ComposeApplied(view, projection, viewport));
    const zrcommon::Matrix16 voxelToScreen = zrcommon::ToMatrixRecord(worldToScreen * glm::mat4(1.0f));
    const std::vector<double> expected = zrreference::IsoContourList(
        zrvolume::MakeVoxelGrid<T>(*volume->GetVolumeData()), identity, plane.corners, iso, voxelToScreen);
    ASSERT_GT(expected.size(), 400u);  // the textured volume crosses the iso value in many cells

    for (zrvolume::SimdTarget target : zrvolume::SupportedSimdTargets()) {
        zrvolume::ForceSimdTarget(target);
        std::vector<double> list;
        ASSERT_TRUE(zrvolume::DrawIsoContourLines(*volume, identity, identity, *image, plane, 0, isoValue, 0u, &list));
        EXPECT_EQ(list, expected) << zrvolume::SimdTargetName(target);
    }
    zrvolume::ForceSimdTarget(std::nullopt);
}

// Reduced images enlarged by steps that are not whole (as fast quality mode
// lays them out), by 2 and by 1, into a destination that the kernel clears
// itself and into one cleared beforehand; the reduced image reaches the last
// row and column of its exactly sized buffer, so a read past it would leave
// the storage. Every byte of every source pixel differs from its neighbours'.
TEST(LaneIdentityUpscaleTest, EnlargementMatchesScalarForm) {
    const int pitch = 203, rows = 150;
    std::vector<uint32_t> source(static_cast<size_t>(pitch) * rows);
    std::vector<uint16_t> sourceValues(source.size());
    for (size_t i = 0; i < source.size(); ++i) {
        const uint32_t h = static_cast<uint32_t>(i) * 2654435761u;
        source[i] = h ^ (h >> 13);
        sourceValues[i] = static_cast<uint16_t>(h >> 7);
    }
    const struct {
        int x0, x1, rowOffset, rowCount;
        float sx, sy;
        bool values, clears;
    } cases[] = {
        // 0.2506 source columns per pixel: the last source column read is
        // trunc(184 * 0.2506) + 1 = 47 of 203, the last row floor(149 * 0.9) + 1 = 135.
        {3, 188, 0, 150, 0.2506f, 0.9f, false, true},
        // One source column and row per pixel, up to the buffer's last column
        // (202) and row (149).
        {1, 203, 1, 149, 1.0f, 1.0f, true, false},
        {0, 201, 0, 150, 0.5f, 0.5f, true, true},
        // Nearly one column per pixel: a lane group spans one column more than
        // it has lanes, with fractions that are not 0.
        {0, 203, 0, 150, 0.9713f, 0.9713f, true, true},
        {17, 120, 5, 97, 0.3791f, 0.6113f, false, false},
        // Rows above and below the drawn ones, cleared by the kernel.
        {9, 150, 7, 101, 0.4217f, 0.5309f, true, true},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(testing::Message() << "columns " << k.x0 << ".." << k.x1 << ", sx " << k.sx);
        zrvolume::ImageUpscaleArgs args;
        args.source = source.data();
        args.sourceValues = k.values ? sourceValues.data() : nullptr;
        args.pitch = pitch;
        args.x0 = k.x0;
        args.x1 = k.x1;
        args.rowOffset = k.rowOffset;
        args.rowCount = k.rowCount;
        args.sx = k.sx;
        args.sy = k.sy;

        std::vector<uint32_t> expected(source.size(), 0u);
        std::vector<uint16_t> expectedValues(source.size(), 0);
        zrvolume::ImageUpscaleArgs reference = args;
        reference.destination = expected.data();
        reference.destinationValues = expectedValues.data();
        zrreference::UpscaleImage(reference);

        for (zrvolume::SimdTarget target : zrvolume::SupportedSimdTargets()) {
            zrvolume::ForceSimdTarget(target);
            for (int threads : {1, 2}) {
                ThreadCount count(threads);
                SCOPED_TRACE(std::string(zrvolume::SimdTargetName(target)) + " at " + std::to_string(threads) +
                             " threads");
                std::vector<uint32_t> got(source.size(), k.clears ? 0x5a5a5a5au : 0u);
                std::vector<uint16_t> gotValues(source.size(), 0);
                args.destination = got.data();
                args.destinationValues = gotValues.data();
                args.clearRows = k.clears ? rows : 0;
                zrvolume::UpscaleImage(args);
                EXPECT_EQ(got, expected);
                EXPECT_EQ(gotValues, expectedValues);
            }
        }
        zrvolume::ForceSimdTarget(std::nullopt);
    }
}

// The forced target is what the kernels report, capped at what the processor offers.
TEST(SimdDispatchTest, ForcedTargetIsCappedAndReleased) {
    const std::vector<zrvolume::SimdTarget> supported = zrvolume::SupportedSimdTargets();
    ASSERT_FALSE(supported.empty());
    EXPECT_EQ(supported.front(), zrvolume::SimdTarget::Baseline);
    zrvolume::ForceSimdTarget(zrvolume::SimdTarget::Baseline);
    EXPECT_EQ(zrvolume::ActiveSimdTarget(), zrvolume::SimdTarget::Baseline);
    zrvolume::ForceSimdTarget(zrvolume::SimdTarget::Avx512);
    EXPECT_EQ(zrvolume::ActiveSimdTarget(), supported.back());
    zrvolume::ForceSimdTarget(std::nullopt);
}

}  // namespace
