// The thick-section kernels on the fixed workloads: W2-W4 (slab maximum,
// minimum and average of V1 on P1, 20 mm in 50 layers 0.4 mm apart, through the
// table; items = pixels x layers), W6 (thin curved reformation of V1 along the
// helix; items = pixels), W10 (shaded compositing, projection code 1, on W2's
// geometry through its own table; items = pixels x layers) and W11 (curved
// slab maximum along W6's helix, 10 mm in 25 layers; items = pixels x layers).
// Argument: thread count.
//
// Every workload also times its plain scalar form (bench/reference_kernels.h)
// on the same inputs, single-threaded, as the baseline of the speed-up.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cmath>
#include <numbers>
#include <vector>

#include "bench/reference_kernels.h"
#include "bench/workloads.h"
#include "volume/kernels/curved_reformation.h"
#include "volume/kernels/slab_compositing.h"
#include "volume/kernels/slab_projection.h"
#include "volume/kernels/voxel_sampling.h"

namespace {

constexpr float kSlabThickness = 20.0f;  // mm
constexpr float kSlabPitch = 0.4f;       // mm, V1's smallest voxel pitch

struct SlabWorkload {
    std::shared_ptr<zrobjects::ZrVObjectVolume> volume = zrbench::VolumeV1();
    std::shared_ptr<zrobjects::ZrObject> table = zrbench::BenchTable();
    std::shared_ptr<zrobjects::ZrIObject> image = zrbench::MakePlaneP1Image();
    zrvolume::SlabProjectionArgs args;

    explicit SlabWorkload(int code) {
        if (code == 0 || code == 1) {
            // W10: its own table, a gradient scale of 1000 and the shading the
            // renderer uses for code 1.
            table = zrbench::ShadedSlabTable();
            volume->SetObjParam("_float2_GraidentMagMinMax", glm::vec2(0.0f, 1000.0f));
            args.phongCoeffs = glm::vec4(0.7f, 0.7f, 0.0f, 1.0f);
        }
        const zrbench::SliceGeometry geometry = zrbench::MakeSliceGeometry(*image, *volume);
        const glm::vec3 view = glm::vec3(zrbench::PlaneP1Rotation()[2]);
        args.volume = volume.get();
        args.tableOwner = table.get();
        args.image = image.get();
        args.colourIndex = 1;
        args.valueIndex = 0;
        args.width = geometry.plane.width;
        args.height = geometry.plane.height;
        args.geometry = zrvolume::MakeSlabGeometry(geometry.plane, geometry.planeToVoxel, view, kSlabThickness,
                                                   kSlabPitch);
        args.projectionCode = code;
        args.gradientMagnitude = code == 1;
    }
};

void RunSlab(benchmark::State& state, int code) {
    omp_set_num_threads(static_cast<int>(state.range(0)));
    SlabWorkload workload(code);
    if (workload.args.geometry.layerCount != 50) {
        state.SkipWithError("the W2 geometry must have 50 layers");
        return;
    }
    for (auto _ : state) {
        const bool drawn = zrvolume::RenderSlabProjection(workload.args);
        benchmark::DoNotOptimize(drawn);
    }
    const int64_t pixels = int64_t(zrbench::kPlaneP1Size.x) * zrbench::kPlaneP1Size.y;
    state.SetItemsProcessed(state.iterations() * pixels * workload.args.geometry.layerCount);
    state.counters["threads"] = static_cast<double>(state.range(0));
}

zrreference::ReferenceTarget ReferenceOutput(zrobjects::ZrIObject& image) {
    zrobjects::FrameBuffer* colour = image.GetFrameBuffer(1, 1);
    zrobjects::FrameBuffer* values = image.GetFrameBuffer(3, 0);
    return {static_cast<uint32_t*>(colour->pixels), static_cast<uint16_t*>(values->pixels), colour->width};
}

void RunSlabReference(benchmark::State& state, int code) {
    SlabWorkload workload(code);
    const auto grid = zrvolume::MakeVoxelGrid<unsigned short>(*workload.volume->GetVolumeData());
    const zrvolume::OtfTable table = zrvolume::ReadOtfTable(*workload.table);
    const zrreference::ReferenceTarget out = ReferenceOutput(*workload.image);
    const zrvolume::CompositingShading shading =
        zrvolume::MakeCompositingShading(*workload.volume, workload.args.phongCoeffs, workload.args.gradientMagnitude,
                                         workload.args.geometry.layerStep);
    for (auto _ : state) {
        if (code == 0 || code == 1) {
            zrreference::SlabCompositing(grid, workload.args.geometry, shading, workload.args.width,
                                         workload.args.height, table.rows[0], false, out);
        } else {
            zrreference::SlabProjection(grid, workload.args.geometry, code, workload.args.width,
                                        workload.args.height, table.rows[0], false, {}, out);
        }
        benchmark::DoNotOptimize(out.colour);
    }
    const int64_t pixels = int64_t(zrbench::kPlaneP1Size.x) * zrbench::kPlaneP1Size.y;
    state.SetItemsProcessed(state.iterations() * pixels * workload.args.geometry.layerCount);
    state.counters["threads"] = 1;
}

void W2_SlabMaximum(benchmark::State& state) { RunSlab(state, 10); }
void W2_SlabMaximum_ScalarReference(benchmark::State& state) { RunSlabReference(state, 10); }
void W3_SlabMinimum_ScalarReference(benchmark::State& state) { RunSlabReference(state, 11); }
void W4_SlabAverage_ScalarReference(benchmark::State& state) { RunSlabReference(state, 12); }
void W3_SlabMinimum(benchmark::State& state) { RunSlab(state, 11); }
void W4_SlabAverage(benchmark::State& state) { RunSlab(state, 12); }
void W10_SlabShadedCompositing(benchmark::State& state) { RunSlab(state, 1); }
void W10_SlabShadedCompositing_ScalarReference(benchmark::State& state) { RunSlabReference(state, 1); }

// W6: 512 samples of p(t) = centre + (40 cos t, 40 sin t, 30 t / pi) mm, t
// evenly spaced in [-pi, pi], up = world z, tangent = p'(t); 512 x 512 pixels,
// about one column per sample, rows spanning 100 mm, thin.
struct HelixWorkload {
    std::shared_ptr<zrobjects::ZrVObjectVolume> volume = zrbench::VolumeV1();
    std::shared_ptr<zrobjects::ZrObject> table = zrbench::BenchTable();
    std::shared_ptr<zrobjects::ZrIObject> image = zrbench::MakePlaneP1Image();
    std::vector<glm::vec3> points, ups, tangents;
    zrvolume::CurvedReformationArgs args;

    // Thin (code 0, thickness 0) for W6; W11 passes code 10 and 10 mm.
    explicit HelixWorkload(int code = 0, float thickness = 0.0f) {
        constexpr int kSamples = 512;
        const glm::dvec3 centre = zrbench::VolumeV1Centre();
        const double pi = std::numbers::pi;
        for (int i = 0; i < kSamples; ++i) {
            const double t = -pi + 2.0 * pi * i / (kSamples - 1);
            points.emplace_back(centre + glm::dvec3(40.0 * std::cos(t), 40.0 * std::sin(t), 30.0 * t / pi));
            tangents.emplace_back(-40.0 * std::sin(t), 40.0 * std::cos(t), 30.0 / pi);
        }
        ups.assign(kSamples, glm::vec3(0.0f, 0.0f, 1.0f));
        const zrbench::SliceGeometry geometry = zrbench::MakeSliceGeometry(*image, *volume);
        args.volume = volume.get();
        args.tableOwner = table.get();
        args.image = image.get();
        args.colourIndex = 1;
        args.valueIndex = 0;
        args.width = zrbench::kPlaneP1Size.x;
        args.height = zrbench::kPlaneP1Size.y;
        args.curvePoints = points.data();
        args.upVectors = ups.data();
        args.tangents = tangents.data();
        args.curveCount = kSamples;
        args.worldToVoxel = geometry.planeToVoxel;
        // The whole curve, as a camera at the origin with a view extent of the
        // plane width and height shows it: about one column per sample.
        args.planeWidth = static_cast<float>(kSamples - 1);
        args.planeHeight = 100.0f;
        const float dx = 0.5f * args.planeWidth / args.width, dy = 0.5f * args.planeHeight / args.height;
        const float left = dx - 0.5f * args.planeWidth, top = 0.5f * args.planeHeight - dy;
        args.planeCorners[0] = {left, top, 0.0f};
        args.planeCorners[1] = {-left, top, 0.0f};
        args.planeCorners[2] = {left, -top, 0.0f};
        args.planeCorners[3] = {-left, -top, 0.0f};
        args.projectionCode = code;
        args.thickness = thickness;
        args.layerStep = kSlabPitch;
    }
};

void W6_CurvedReformation(benchmark::State& state) {
    omp_set_num_threads(static_cast<int>(state.range(0)));
    HelixWorkload workload;
    for (auto _ : state) {
        const bool drawn = zrvolume::RenderCurvedReformation(workload.args);
        benchmark::DoNotOptimize(drawn);
    }
    state.SetItemsProcessed(state.iterations() * int64_t(workload.args.width) * workload.args.height);
    state.counters["threads"] = static_cast<double>(state.range(0));
}

void W6_CurvedReformation_ScalarReference(benchmark::State& state) {
    HelixWorkload workload;
    const auto grid = zrvolume::MakeVoxelGrid<unsigned short>(*workload.volume->GetVolumeData());
    const zrvolume::OtfTable table = zrvolume::ReadOtfTable(*workload.table);
    const zrreference::ReferenceTarget out = ReferenceOutput(*workload.image);
    const zrvolume::CurvedSectionGeometry geometry = zrvolume::MakeCurvedSectionGeometry(workload.args);
    for (auto _ : state) {
        zrreference::CurvedThin(grid, workload.args, geometry, table.rows[0], table.length, false, out);
        benchmark::DoNotOptimize(out.colour);
    }
    state.SetItemsProcessed(state.iterations() * int64_t(workload.args.width) * workload.args.height);
    state.counters["threads"] = 1;
}

constexpr float kCurvedSlabThickness = 10.0f;  // mm: 25 layers 0.4 mm apart

int64_t CurvedSlabItems(const benchmark::State& state, const HelixWorkload& workload) {
    const int layers = zrvolume::MakeCurvedSectionGeometry(workload.args).lastLayer + 1;
    return state.iterations() * int64_t(workload.args.width) * workload.args.height * layers;
}

void W11_CurvedSlabMaximum(benchmark::State& state) {
    omp_set_num_threads(static_cast<int>(state.range(0)));
    HelixWorkload workload(10, kCurvedSlabThickness);
    if (zrvolume::MakeCurvedSectionGeometry(workload.args).lastLayer != 24) {
        state.SkipWithError("W11 must have 25 layers");
        return;
    }
    for (auto _ : state) {
        const bool drawn = zrvolume::RenderCurvedReformation(workload.args);
        benchmark::DoNotOptimize(drawn);
    }
    state.SetItemsProcessed(CurvedSlabItems(state, workload));
    state.counters["threads"] = static_cast<double>(state.range(0));
}

void W11_CurvedSlabMaximum_ScalarReference(benchmark::State& state) {
    HelixWorkload workload(10, kCurvedSlabThickness);
    const auto grid = zrvolume::MakeVoxelGrid<unsigned short>(*workload.volume->GetVolumeData());
    const zrvolume::OtfTable table = zrvolume::ReadOtfTable(*workload.table);
    const zrreference::ReferenceTarget out = ReferenceOutput(*workload.image);
    const zrvolume::CurvedSectionGeometry geometry = zrvolume::MakeCurvedSectionGeometry(workload.args);
    for (auto _ : state) {
        zrreference::CurvedSlab(grid, workload.args, geometry, 10, table.rows[0], table.length, false, out);
        benchmark::DoNotOptimize(out.colour);
    }
    state.SetItemsProcessed(CurvedSlabItems(state, workload));
    state.counters["threads"] = 1;
}

}  // namespace

BENCHMARK(W2_SlabMaximum_ScalarReference)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W3_SlabMinimum_ScalarReference)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W4_SlabAverage_ScalarReference)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W6_CurvedReformation_ScalarReference)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W10_SlabShadedCompositing_ScalarReference)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W11_CurvedSlabMaximum_ScalarReference)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W2_SlabMaximum)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W3_SlabMinimum)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W4_SlabAverage)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W10_SlabShadedCompositing)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W6_CurvedReformation)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W11_CurvedSlabMaximum)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
