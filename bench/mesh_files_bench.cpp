// M2: time to first picture of mesh S2 (bench/sphere_s2.h), split into what a
// host does before the cut: reading the file (STL with its corners welded,
// PLY as stored), building the hierarchy, and the cut itself by the plane
// z = 10.3 mm (view direction +z, 512 x 512 pixels over 200 mm, drawn in one
// colour). The whole process, from its start to the picture written, is timed
// against VTK's reader and cutter by bench/time_to_picture.py.
//
// Reading and welding run on one thread; the hierarchy and the cut take the
// thread count as their argument. The "vertices" counter is the vertex count
// after reading (or welding).
#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "bench/sphere_s2.h"
#include "bench/workloads.h"
#include "host/bvh_builder.h"
#include "host/image_builder.h"
#include "io/corner_welding.h"
#include "io/mesh_files.h"
#include "mesh/bvh/bvh_node.h"
#include "mesh/line_drawing.h"
#include "mesh/plane_cut.h"

namespace {

// Sets the OpenMP thread count for one benchmark and restores it after.
class Threads {
public:
    explicit Threads(int64_t count) : before_(omp_get_max_threads()) {
        omp_set_num_threads(static_cast<int>(count));
    }
    ~Threads() { omp_set_num_threads(before_); }

private:
    int before_;
};

void ReadFile(benchmark::State& state, const std::string& path) {
    size_t vertices = 0;
    for (auto _ : state) {
        const zrobjects::MeshArrays mesh = zrio::ReadMeshFile(path);
        vertices = mesh.positions.size() / 3;
        benchmark::DoNotOptimize(mesh.indices.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(zrbench::kSphereS2Triangles));
    state.counters["vertices"] = static_cast<double>(vertices);
}

void M2_ReadStl(benchmark::State& state) { ReadFile(state, zrbench::SphereS2StlPath()); }
void M2_ReadPly(benchmark::State& state) { ReadFile(state, zrbench::SphereS2PlyPath()); }

const zrobjects::MeshArrays& S2() {
    static const zrobjects::MeshArrays arrays = zrio::ReadMeshFile(zrbench::SphereS2PlyPath());
    return arrays;
}

// The welding alone, over S2's corners as a binary STL repeats them.
void M2_WeldStlCorners(benchmark::State& state) {
    const zrobjects::MeshArrays& s2 = S2();
    std::vector<float> corners(3 * s2.indices.size());
    for (size_t k = 0; k < s2.indices.size(); ++k)
        std::copy_n(&s2.positions[3 * size_t{s2.indices[k]}], 3, &corners[3 * k]);
    std::vector<uint32_t> vertices(s2.indices.size());
    size_t welded = 0;
    for (auto _ : state) {
        zrio::CornerWelder welder(s2.indices.size() / 6 + 2);
        welder.Weld(corners.data(), s2.indices.size(), vertices.data());
        welded = welder.VertexCount();
        benchmark::DoNotOptimize(vertices.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(zrbench::kSphereS2Triangles));
    state.counters["vertices"] = static_cast<double>(welded);
}

// Argument: thread count.
void M2_BuildHierarchy(benchmark::State& state) {
    const zrobjects::MeshArrays& s2 = S2();
    const Threads threads(state.range(0));
    for (auto _ : state) {
        auto tree = zrobjects::BuildBvh(s2.positions.data(), static_cast<int32_t>(s2.positions.size() / 3),
                                        s2.indices.data(), static_cast<int32_t>(s2.indices.size() / 3));
        benchmark::DoNotOptimize(tree->root);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(zrbench::kSphereS2Triangles));
}

// Argument: thread count.
void M2_CutPlane(benchmark::State& state) {
    static const auto mesh = zrobjects::MakeMeshPrimitive(S2());
    zrobjects::SectionView view;
    view.centre = {0.0, 0.0, 10.3};
    view.pixelSpacing = glm::dvec2(200.0 / 512.0);
    view.size = {512, 512};
    const auto image = zrobjects::MakeSectionImage(view);
    const zrbench::MeshCutView cut = zrbench::MeshCutViewOf(*image);
    const Threads threads(state.range(0));

    const zrobjects::PrimitiveData& data = *mesh->GetPrimitiveData();
    const auto* tree = static_cast<const zrbvh::BvhTree*>(mesh->GetBVHTree());
    std::vector<uint32_t> pixels(512 * 512, 0u);
    zrmesh::SegmentTarget target;
    target.pixels = pixels.data();
    target.width = 512;
    target.height = 512;
    target.colour = zrmesh::PackColour(glm::vec3(1.0f, 0.8f, 0.2f), false);
    for (auto _ : state) {
        zrmesh::CutMeshWithPlane(cut.planePoint, cut.planeNormal, data, tree, cut.objectToScreen, target);
        benchmark::DoNotOptimize(pixels.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(data.primitiveCount));
}

BENCHMARK(M2_ReadStl)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(M2_ReadPly)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(M2_WeldStlCorners)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(M2_BuildHierarchy)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(M2_CutPlane)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
