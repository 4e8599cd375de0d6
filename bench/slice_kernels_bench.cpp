// The thin-slice and contour kernels on the fixed workloads: W1 (single-table
// slice of V1 on P1 through the table, unsigned 16-bit, RGBA, with the value
// buffer), W5 (iso-contour lists of V1 on P1 at 1500), and the other
// thin-slice families on the same plane: W7 (V1 through mask-selected tables,
// mask V1L), W8 (label overlay of V1L over the W1 image), W9 and W9c (float
// grey slice of V1F, window and curve). Items are pixels; the contour is timed
// only. Argument: thread count (the contour is single-threaded).
//
// Each also times its plain scalar form (bench/reference_kernels.h) on the
// same inputs, single-threaded, as the baseline of the speed-up.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <span>
#include <vector>

#include "bench/reference_kernels.h"
#include "bench/workloads.h"
#include "host/table_builder.h"
#include "host/zr_camera.h"
#include "volume/kernels/float_grey_slice.h"
#include "volume/kernels/iso_contour.h"
#include "volume/kernels/label_overlay.h"
#include "volume/kernels/masked_otf_slice.h"
#include "volume/kernels/otf_slice.h"
#include "volume/kernels/voxel_sampling.h"

namespace {

constexpr int kColourIndex = 1;
constexpr int kValueIndex = 0;

struct ThinSliceWorkload {
    std::shared_ptr<zrobjects::ZrVObjectVolume> volume = zrbench::VolumeV1();
    std::shared_ptr<zrobjects::ZrObject> table = zrbench::BenchTable();
    std::shared_ptr<zrobjects::ZrIObject> image = zrbench::MakePlaneP1Image();
    zrbench::SliceGeometry geometry = zrbench::MakeSliceGeometry(*image, *volume);
};

int64_t PlaneP1Pixels() { return int64_t(zrbench::kPlaneP1Size.x) * zrbench::kPlaneP1Size.y; }

void SetThreads(benchmark::State& state) {
    omp_set_num_threads(static_cast<int>(state.range(0)));
    state.counters["threads"] = static_cast<double>(state.range(0));
}

// The voxel-space corners of P1 as the slice families compute them.
template <class Transform>
void PlaneCorners(const ThinSliceWorkload& w, Transform transform, glm::vec3 corners[4]) {
    for (int k = 0; k < 4; ++k) corners[k] = transform(w.geometry.planeToVoxel, w.geometry.plane.corners[k]);
}

zrreference::ReferenceTarget TargetOf(zrobjects::ZrIObject& image, bool withValues) {
    zrobjects::FrameBuffer* colour = image.GetFrameBuffer(1, kColourIndex);
    zrobjects::FrameBuffer* values = image.GetFrameBuffer(3, kValueIndex);
    return {static_cast<uint32_t*>(colour->pixels), withValues ? static_cast<uint16_t*>(values->pixels) : nullptr,
            colour->width};
}

void W1_OtfSlice(benchmark::State& state) {
    SetThreads(state);
    ThinSliceWorkload w;
    for (auto _ : state) {
        const bool drawn = zrvolume::RenderOtfSlice(*w.volume, w.geometry.planeToVoxel, *w.image, w.geometry.plane,
                                                    {}, kColourIndex, kValueIndex, *w.table);
        benchmark::DoNotOptimize(drawn);
    }
    state.SetItemsProcessed(state.iterations() * PlaneP1Pixels());
}

void W1_OtfSlice_ScalarReference(benchmark::State& state) {
    SetThreads(state);
    ThinSliceWorkload w;
    const auto grid = zrvolume::MakeVoxelGrid<unsigned short>(*w.volume->GetVolumeData());
    glm::vec3 corners[4];
    for (int k = 0; k < 4; ++k)
        corners[k] = zrcommon::TransformPointDouble(w.geometry.planeToVoxel, w.geometry.plane.corners[k]);
    const zrvolume::OtfTable table = zrvolume::ReadOtfTable(*w.table);
    zrobjects::FrameBuffer* colour = w.image->GetFrameBuffer(1, kColourIndex);
    zrobjects::FrameBuffer* values = w.image->GetFrameBuffer(3, kValueIndex);
    const zrreference::ReferenceTarget out{static_cast<uint32_t*>(colour->pixels),
                                           static_cast<uint16_t*>(values->pixels), colour->width};
    for (auto _ : state) {
        zrreference::OtfSlice(grid, corners, w.geometry.plane.width, w.geometry.plane.height, table.rows[0],
                              table.length, false, {}, out);
        benchmark::DoNotOptimize(out.colour);
    }
    state.SetItemsProcessed(state.iterations() * PlaneP1Pixels());
}

void W7_MaskedOtfSlice(benchmark::State& state) {
    SetThreads(state);
    ThinSliceWorkload w;
    auto mask = zrbench::VolumeV1L();
    auto table = zrbench::MaskTableW7();
    for (auto _ : state) {
        const bool drawn = zrvolume::RenderMaskedOtfSlice(*w.volume, w.geometry.planeToVoxel, *mask, *w.image,
                                                          w.geometry.plane, {}, kColourIndex, kValueIndex, 4, *table);
        benchmark::DoNotOptimize(drawn);
    }
    state.SetItemsProcessed(state.iterations() * PlaneP1Pixels());
}

void W7_MaskedOtfSlice_ScalarReference(benchmark::State& state) {
    SetThreads(state);
    ThinSliceWorkload w;
    auto table = zrbench::MaskTableW7();
    const zrobjects::VolumeData& data = *w.volume->GetVolumeData();
    const auto grid = zrvolume::MakeVoxelGrid<unsigned short>(data);
    const zrvolume::VoxelGrid<unsigned char> mask{zrbench::VolumeV1L()->GetVolumeData()->slices.data(), data.dims,
                                                  data.margins, data.RowPitch()};
    glm::vec3 corners[4];
    PlaneCorners(w, zrcommon::TransformPoint, corners);
    const zrvolume::OtfTable rows = zrvolume::ReadOtfTable(*table);
    const zrreference::ReferenceTarget out = TargetOf(*w.image, true);
    for (auto _ : state) {
        zrreference::MaskedOtfSlice(grid, mask, corners, w.geometry.plane.width, w.geometry.plane.height, rows.rows,
                                    false, {}, out);
        benchmark::DoNotOptimize(out.colour);
    }
    state.SetItemsProcessed(state.iterations() * PlaneP1Pixels());
}

// The overlay blends into what is there: both forms start from the W1 image
// (the tint is not cumulative here, as W8's labels all look up a transparent
// or the same entry each call).
void DrawW1Image(ThinSliceWorkload& w) {
    zrvolume::RenderOtfSlice(*w.volume, w.geometry.planeToVoxel, *w.image, w.geometry.plane, {}, kColourIndex, -1,
                             *w.table);
}

void W8_LabelOverlay(benchmark::State& state) {
    SetThreads(state);
    ThinSliceWorkload w;
    auto labels = zrbench::VolumeV1L();
    auto table = zrbench::LabelTableW8();
    DrawW1Image(w);
    for (auto _ : state) {
        const bool drawn = zrvolume::RenderLabelOverlaySlice(*labels, w.geometry.planeToVoxel, *w.image,
                                                             w.geometry.plane, {}, kColourIndex, *table);
        benchmark::DoNotOptimize(drawn);
    }
    state.SetItemsProcessed(state.iterations() * PlaneP1Pixels());
}

void W8_LabelOverlay_ScalarReference(benchmark::State& state) {
    SetThreads(state);
    ThinSliceWorkload w;
    auto labels = zrbench::VolumeV1L();
    auto table = zrbench::LabelTableW8();
    DrawW1Image(w);
    const auto grid = zrvolume::MakeVoxelGrid<unsigned char>(*labels->GetVolumeData());
    glm::vec3 corners[4];
    PlaneCorners(w, zrcommon::TransformPoint, corners);
    const zrvolume::OtfTable rows = zrvolume::ReadOtfTable(*table);
    const zrreference::ReferenceTarget out = TargetOf(*w.image, false);
    for (auto _ : state) {
        zrreference::LabelOverlay(grid, corners, w.geometry.plane.width, w.geometry.plane.height, rows.rows[0],
                                  rows.length, {}, out);
        benchmark::DoNotOptimize(out.colour);
    }
    state.SetItemsProcessed(state.iterations() * PlaneP1Pixels());
}

constexpr float kW9Centre = 1000.0f;
constexpr float kW9Width = 2000.0f;

void RunFloatGrey(benchmark::State& state, const std::vector<glm::dvec2>* curve) {
    SetThreads(state);
    ThinSliceWorkload w;
    auto volume = zrbench::VolumeV1F();
    for (auto _ : state) {
        const bool drawn = zrvolume::RenderFloatGreySlice(*volume, w.geometry.planeToVoxel, *w.image,
                                                          w.geometry.plane, nullptr, kColourIndex, curve, kW9Centre,
                                                          kW9Width);
        benchmark::DoNotOptimize(drawn);
    }
    state.SetItemsProcessed(state.iterations() * PlaneP1Pixels());
}

void RunFloatGreyReference(benchmark::State& state, const std::vector<glm::dvec2>* curve) {
    SetThreads(state);
    ThinSliceWorkload w;
    const auto grid = zrvolume::MakeVoxelGrid<float>(*zrbench::VolumeV1F()->GetVolumeData());
    glm::vec3 corners[4];
    PlaneCorners(w, zrcommon::TransformPoint, corners);
    const zrreference::ReferenceTarget out = TargetOf(*w.image, false);
    for (auto _ : state) {
        zrreference::FloatGreySlice(grid, corners, w.geometry.plane.width, w.geometry.plane.height, curve, kW9Centre,
                                    kW9Width, out);
        benchmark::DoNotOptimize(out.colour);
    }
    state.SetItemsProcessed(state.iterations() * PlaneP1Pixels());
}

void W9_FloatGreyWindow(benchmark::State& state) { RunFloatGrey(state, nullptr); }
void W9_FloatGreyWindow_ScalarReference(benchmark::State& state) { RunFloatGreyReference(state, nullptr); }

void W9c_FloatGreyCurve(benchmark::State& state) {
    const std::vector<glm::dvec2> curve = zrbench::GreyCurveW9c();
    RunFloatGrey(state, &curve);
}

void W9c_FloatGreyCurve_ScalarReference(benchmark::State& state) {
    const std::vector<glm::dvec2> curve = zrbench::GreyCurveW9c();
    RunFloatGreyReference(state, &curve);
}

void W5_IsoContourLists(benchmark::State& state) {
    ThinSliceWorkload w;
    std::vector<double> list;
    for (auto _ : state) {
        list.clear();
        const bool done = zrvolume::DrawIsoContourLines(*w.volume, w.geometry.planeToVoxel, w.geometry.voxelToWorld,
                                                        *w.image, w.geometry.plane, kColourIndex, 1500, 0xff00ffffu,
                                                        &list);
        benchmark::DoNotOptimize(done);
    }
    state.counters["segments"] = static_cast<double>(list.size() / 4);
}

void W5_IsoContourLists_ScalarReference(benchmark::State& state) {
    ThinSliceWorkload w;
    const auto grid = zrvolume::MakeVoxelGrid<unsigned short>(*w.volume->GetVolumeData());
    glm::dmat4 view, projection, viewport;
    w.image->GetCameraObject()->GetMatrixWStoSS(view, projection, viewport);
    const glm::mat4 worldToScreen(zrobjects::ComposeApplied(view, projection, viewport));
    const zrcommon::Matrix16 voxelToScreen =
        zrcommon::ToMatrixRecord(worldToScreen * zrcommon::FromMatrixRecord(w.geometry.voxelToWorld));
    size_t values = 0;
    for (auto _ : state) {
        const std::vector<double> list =
            zrreference::IsoContourList(grid, w.geometry.planeToVoxel, w.geometry.plane.corners, 1500, voxelToScreen);
        values = list.size();
        benchmark::DoNotOptimize(list.data());
    }
    state.counters["segments"] = static_cast<double>(values / 4);
}

void P1_IsoContourDraw(benchmark::State& state) {
    ThinSliceWorkload w;
    for (auto _ : state) {
        const bool done = zrvolume::DrawIsoContourLines(*w.volume, w.geometry.planeToVoxel, w.geometry.voxelToWorld,
                                                        *w.image, w.geometry.plane, kColourIndex, 1500, 0xff00ffffu,
                                                        nullptr);
        benchmark::DoNotOptimize(done);
    }
}

}  // namespace

BENCHMARK(W1_OtfSlice)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W1_OtfSlice_ScalarReference)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W7_MaskedOtfSlice)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W7_MaskedOtfSlice_ScalarReference)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W8_LabelOverlay)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W8_LabelOverlay_ScalarReference)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W9_FloatGreyWindow)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W9_FloatGreyWindow_ScalarReference)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W9c_FloatGreyCurve)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W9c_FloatGreyCurve_ScalarReference)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W5_IsoContourLists)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W5_IsoContourLists_ScalarReference)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(P1_IsoContourDraw)->Unit(benchmark::kMillisecond)->UseRealTime();
