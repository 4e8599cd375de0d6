// Whole "SECTIONAL_VOLUME" requests on the fixed workloads W1-W4, so the set-up
// and finishing around the kernels is visible next to the kernel benchmarks,
// and W12: W1's plane at 1024 x 1024 pixels in fast quality mode (a reduced
// image of at most 256 steps a side, enlarged), whose yardstick is the W1
// kernel. Argument: thread count.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <utility>

#include "bench/workloads.h"
#include "host/plugin_interface.h"
#include "module/dispatch.h"

namespace {

struct RequestWorkload {
    std::shared_ptr<zrobjects::ZrIObject> image;
    zrobjects::ModuleRequest request;

    RequestWorkload(std::shared_ptr<zrobjects::ZrIObject> target, int mode, float thickness)
        : image(std::move(target)) {
        auto volume = zrbench::VolumeV1();
        volume->SetTableObject("WINDOWING", zrbench::BenchTable());
        zrobjects::SceneEntry entry;
        entry.object = volume.get();
        request.scene.push_back(entry);
        request.params["_ZrIObject*_RenderOut"] = image.get();
        request.params["_bool_IsFirstRenderer"] = true;
        request.params["_int_VolumeRayCastType"] = mode;
        request.params["_float_PlaneThickness"] = thickness;
    }
};

void RunRequest(benchmark::State& state, int mode, float thickness, int layers) {
    omp_set_num_threads(static_cast<int>(state.range(0)));
    RequestWorkload workload(zrbench::MakePlaneP1Image(), mode, thickness);
    for (auto _ : state) {
        const bool done = zrmodule::DispatchRequest(workload.request);
        benchmark::DoNotOptimize(done);
    }
    const int64_t pixels = int64_t(zrbench::kPlaneP1Size.x) * zrbench::kPlaneP1Size.y;
    state.SetItemsProcessed(state.iterations() * pixels * layers);
    state.counters["threads"] = static_cast<double>(state.range(0));
}

void W12_Request_FastQuality(benchmark::State& state) {
    omp_set_num_threads(static_cast<int>(state.range(0)));
    RequestWorkload workload(zrbench::MakePlaneW12Image(), 0, 0.0f);
    workload.request.params["_bool_IsFastQualityMode"] = true;
    workload.request.params["_int_LengthFastModeMax"] = zrbench::kW12LengthFastModeMax;
    for (auto _ : state) {
        const bool done = zrmodule::DispatchRequest(workload.request);
        benchmark::DoNotOptimize(done);
    }
    const int64_t pixels = int64_t(zrbench::kPlaneW12Size.x) * zrbench::kPlaneW12Size.y;
    state.SetItemsProcessed(state.iterations() * pixels);
    state.counters["threads"] = static_cast<double>(state.range(0));
}

void W1_Request_ThinSlice(benchmark::State& state) { RunRequest(state, 0, 0.0f, 1); }
void W2_Request_SlabMaximum(benchmark::State& state) { RunRequest(state, 10, 20.0f, 50); }
void W3_Request_SlabMinimum(benchmark::State& state) { RunRequest(state, 11, 20.0f, 50); }
void W4_Request_SlabAverage(benchmark::State& state) { RunRequest(state, 12, 20.0f, 50); }

}  // namespace

BENCHMARK(W1_Request_ThinSlice)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W2_Request_SlabMaximum)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W3_Request_SlabMinimum)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W4_Request_SlabAverage)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(W12_Request_FastQuality)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
