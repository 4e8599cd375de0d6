// The thin-slice and contour kernels on the fixed workloads: W1 (single-table
// slice of V1 on P1 through the table, unsigned 16-bit, RGBA, with the value
// buffer) and W5 (iso-contour lists of V1 on P1 at 1500), plus the other
// thin-slice families on the same plane: mask-selected tables, label overlay
// and the float grey slice (window and curve). Items are pixels; the contour is
// timed only. Argument: thread count (the contour is single-threaded).
//
// W1 and W5 also time their plain scalar forms (bench/reference_kernels.h) on
// the same inputs, single-threaded, as the baseline of the speed-up.
//
// The mask and label volumes are derived from V1 (bone shell, dense spheres,
// soft sphere) with V1's layout, as the mask family requires.
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

// Labels of V1's structures: 1 bone shell, 2 dense spheres, 3 soft sphere (the
// texture adds at most 16 to each structure's value).
std::shared_ptr<zrobjects::ZrVObjectVolume> LabelVolumeV1() {
    static const std::shared_ptr<zrobjects::ZrVObjectVolume> labels = [] {
        zrobjects::VolumeData& data = *zrbench::VolumeV1()->GetVolumeData();
        const glm::ivec3 d = zrbench::kVolumeV1Dims;
        std::vector<unsigned char> voxels(static_cast<size_t>(d.x) * d.y * d.z);
        size_t n = 0;
        for (int k = 0; k < d.z; ++k)
            for (int j = 0; j < d.y; ++j)
                for (int i = 0; i < d.x; ++i) {
                    const int v = zrobjects::VoxelAt<unsigned short>(data, i, j, k);
                    voxels[n++] = v >= 3500 ? 2 : (v >= 2500 && v < 2517 ? 1 : (v >= 1200 && v < 1217 ? 3 : 0));
                }
        return zrobjects::MakeVolume<unsigned char>(std::span<const unsigned char>(voxels), d,
                                                    zrbench::VolumeV1Geometry());
    }();
    return labels;
}

std::shared_ptr<zrobjects::ZrVObjectVolume> FloatVolumeV1() {
    static const std::shared_ptr<zrobjects::ZrVObjectVolume> volume = [] {
        const std::vector<uint16_t> source = zrbench::LoadVolumeV1Voxels();
        const std::vector<float> voxels(source.begin(), source.end());
        return zrobjects::MakeVolume<float>(std::span<const float>(voxels), zrbench::kVolumeV1Dims,
                                            zrbench::VolumeV1Geometry());
    }();
    return volume;
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

void P1_MaskedOtfSlice(benchmark::State& state) {
    SetThreads(state);
    ThinSliceWorkload w;
    auto mask = LabelVolumeV1();
    // Row 0 is the workload table; rows 1-3 colour the labelled structures.
    const std::vector<uint32_t> base = zrbench::BenchTableEntries();
    std::vector<std::vector<uint32_t>> rows = {base};
    for (int label = 1; label <= 3; ++label)
        rows.emplace_back(base.size(), zrobjects::PackEntry(static_cast<uint8_t>(80 * label), 40, 200, 160));
    auto table = zrobjects::MakeTableObject(rows);
    for (auto _ : state) {
        const bool drawn = zrvolume::RenderMaskedOtfSlice(*w.volume, w.geometry.planeToVoxel, *mask, *w.image,
                                                          w.geometry.plane, {}, kColourIndex, kValueIndex, 3, *table);
        benchmark::DoNotOptimize(drawn);
    }
    state.SetItemsProcessed(state.iterations() * PlaneP1Pixels());
}

void P1_LabelOverlay(benchmark::State& state) {
    SetThreads(state);
    ThinSliceWorkload w;
    auto labels = LabelVolumeV1();
    // A full-length table, so that label l reads entry l; background transparent.
    std::vector<uint32_t> entries(zrobjects::kFullTableLength, 0);
    for (int label = 1; label <= 3; ++label)
        entries[label] = zrobjects::PackEntry(static_cast<uint8_t>(80 * label), 200, 40, 255);
    auto table = zrobjects::MakeTableObject({entries});
    // The overlay blends into what is there: start from the W1 image.
    zrvolume::RenderOtfSlice(*w.volume, w.geometry.planeToVoxel, *w.image, w.geometry.plane, {}, kColourIndex, -1,
                             *w.table);
    for (auto _ : state) {
        const bool drawn = zrvolume::RenderLabelOverlaySlice(*labels, w.geometry.planeToVoxel, *w.image,
                                                             w.geometry.plane, {}, kColourIndex, *table);
        benchmark::DoNotOptimize(drawn);
    }
    state.SetItemsProcessed(state.iterations() * PlaneP1Pixels());
}

void RunFloatGrey(benchmark::State& state, const std::vector<glm::dvec2>* curve) {
    SetThreads(state);
    ThinSliceWorkload w;
    auto volume = FloatVolumeV1();
    for (auto _ : state) {
        const bool drawn = zrvolume::RenderFloatGreySlice(*volume, w.geometry.planeToVoxel, *w.image,
                                                          w.geometry.plane, nullptr, kColourIndex, curve, 1000.0f,
                                                          2000.0f);
        benchmark::DoNotOptimize(drawn);
    }
    state.SetItemsProcessed(state.iterations() * PlaneP1Pixels());
}

void P1_FloatGreyWindow(benchmark::State& state) { RunFloatGrey(state, nullptr); }

void P1_FloatGreyCurve(benchmark::State& state) {
    const std::vector<glm::dvec2> curve = {{0, 0}, {900, 10}, {1100, 120}, {2400, 160}, {2600, 240}, {3600, 255}};
    RunFloatGrey(state, &curve);
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
BENCHMARK(P1_MaskedOtfSlice)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(P1_LabelOverlay)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(P1_FloatGreyWindow)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(P1_FloatGreyCurve)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W5_IsoContourLists)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W5_IsoContourLists_ScalarReference)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(P1_IsoContourDraw)->Unit(benchmark::kMillisecond)->UseRealTime();
