// M1: the plane P1 cuts a torus of 1,000,000 triangles (major radius 60 mm,
// minor 25 mm, centred at the V1 centre in the world xy plane) through its
// hierarchy, which is built once beforehand and not timed. Measured at 1 and 2
// threads, drawing the segments into a 512 x 512 target or collecting them as
// cross lines. Throughput is in triangles per second; the "segments" counter
// reports how many segments one cut yields in list mode.
//
// M1_Request_PlaneCut times the whole "SECTIONAL_MESH" request on the same scene
// (cross lines collected), so the work around the cut is visible next to it.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <memory>
#include <vector>

#include "bench/workloads.h"
#include "common/matrix_record.h"
#include "host/mesh_builder.h"
#include "host/plugin_interface.h"
#include "mesh/bvh/bvh_node.h"
#include "mesh/line_drawing.h"
#include "mesh/plane_cut.h"
#include "module/dispatch.h"

namespace {

struct M1Scene {
    std::shared_ptr<zrobjects::ZrVObjectPrimitive> torus;
    std::shared_ptr<zrobjects::ZrIObject> image;
    zrbench::MeshCutView cut;
};

const M1Scene& Scene() {
    static const M1Scene scene = [] {
        M1Scene s;
        s.torus = zrobjects::MakeMeshPrimitive(
            zrobjects::MakeTorusArrays(60.0, 25.0, 1000, 500, zrbench::VolumeV1Centre()));
        s.image = zrobjects::MakeSectionImage(zrbench::PlaneP1View());
        s.cut = zrbench::MeshCutViewOf(*s.image);
        return s;
    }();
    return scene;
}

// Arguments: thread count, cross lines (1) or drawing (0).
void M1_PlaneCutTorus(benchmark::State& state) {
    const M1Scene& scene = Scene();
    const int threads = static_cast<int>(state.range(0));
    const bool crossLines = state.range(1) != 0;
    const int before = omp_get_max_threads();
    omp_set_num_threads(threads);

    const zrobjects::PrimitiveData& data = *scene.torus->GetPrimitiveData();
    const auto* tree = static_cast<const zrbvh::BvhTree*>(scene.torus->GetBVHTree());
    std::vector<uint32_t> target(512 * 512, 0u);
    std::vector<float> lines;
    zrmesh::SegmentTarget segmentTarget;
    segmentTarget.pixels = target.data();
    segmentTarget.width = 512;
    segmentTarget.height = 512;
    segmentTarget.colour = zrmesh::PackColour(glm::vec3(1.0f, 0.8f, 0.2f), false);
    segmentTarget.crossLines = crossLines ? &lines : nullptr;

    size_t segments = 0;
    for (auto _ : state) {
        lines.clear();
        lines.reserve(30000);
        zrmesh::CutMeshWithPlane(scene.cut.planePoint, scene.cut.planeNormal, data, tree, scene.cut.objectToScreen,
                                 segmentTarget);
        segments = lines.size() / 4;
        benchmark::DoNotOptimize(target.data());
        benchmark::DoNotOptimize(lines.data());
    }
    omp_set_num_threads(before);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(data.primitiveCount));
    if (crossLines) state.counters["segments"] = static_cast<double>(segments);
}

// Argument: thread count.
void M1_Request_PlaneCut(benchmark::State& state) {
    const M1Scene& scene = Scene();
    const int before = omp_get_max_threads();
    omp_set_num_threads(static_cast<int>(state.range(0)));
    auto image = zrbench::MakePlaneP1Image();
    zrobjects::ModuleRequest request;
    zrobjects::SceneEntry entry;
    entry.object = scene.torus.get();
    entry.colour = {1.0f, 0.8f, 0.2f};
    request.scene.push_back(entry);
    request.params["_string_RenderingSourceType"] = std::string("SECTIONAL_MESH");
    request.params["_ZrIObject*_RenderOut"] = image.get();
    request.params["_bool_IsFirstRenderer"] = true;
    request.params["_bool_GetCrossLines"] = true;
    for (auto _ : state) {
        const bool done = zrmodule::DispatchRequest(request);
        benchmark::DoNotOptimize(done);
    }
    omp_set_num_threads(before);
    const auto* data = scene.torus->GetPrimitiveData();
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(data->primitiveCount));
    state.counters["threads"] = static_cast<double>(state.range(0));
}

BENCHMARK(M1_Request_PlaneCut)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK(M1_PlaneCutTorus)
    ->ArgNames({"threads", "crosslines"})
    ->Args({1, 0})
    ->Args({2, 0})
    ->Args({1, 1})
    ->Args({2, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
