// L1: time to first picture of volume V1 saved as a signed 16-bit NIfTI-1
// file, split into its phases: the bytes alone (the page-cache copy of the
// plain file, the decompression of the .nii.gz), then the whole load that a
// host does before it draws (header, reading slice by slice into the module
// volume, the offset in place, the value range). The whole process, from its
// start to the picture written, is timed by bench/time_to_picture.py, which
// also writes the files (bench/volume_v1_nifti.py) before this program runs.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>
#include <vector>

#include "io/byte_source.h"
#include "io/volume_files.h"

#ifndef ZR_BENCH_DATA_DIR
#define ZR_BENCH_DATA_DIR "bench-data"
#endif

namespace {

constexpr int64_t kVoxels = int64_t{512} * 512 * 400;

std::string PlainPath() { return std::string(ZR_BENCH_DATA_DIR) + "/v1_i16.nii"; }
std::string CompressedPath() { return std::string(ZR_BENCH_DATA_DIR) + "/v1_i16.nii.gz"; }

bool Present(benchmark::State& state, const std::string& path) {
    std::error_code error;
    if (std::filesystem::exists(path, error)) return true;
    state.SkipWithError((path + " is missing: run python3 bench/volume_v1_nifti.py " ZR_BENCH_DATA_DIR).c_str());
    return false;
}

// Every byte of the (decompressed) file through one slice-sized buffer, as
// the reader takes them.
void ReadBytes(benchmark::State& state, const std::string& path) {
    if (!Present(state, path)) return;
    std::vector<unsigned char> slice(512 * 512 * 2);
    for (auto _ : state) {
        zrio::ByteSource source(path);
        while (source.ReadSome(slice.data(), slice.size()) == slice.size()) benchmark::DoNotOptimize(slice.data());
    }
    state.SetItemsProcessed(state.iterations() * kVoxels);
}

void L1_PlainBytes(benchmark::State& state) { ReadBytes(state, PlainPath()); }
void L1_InflateBytes(benchmark::State& state) { ReadBytes(state, CompressedPath()); }

void Load(benchmark::State& state, const std::string& path) {
    if (!Present(state, path)) return;
    for (auto _ : state) {
        const zrio::VolumeFile file = zrio::ReadVolumeFile(path);
        benchmark::DoNotOptimize(file.loaded.volume->GetVolumeData()->storage.get());
    }
    state.SetItemsProcessed(state.iterations() * kVoxels);
}

void L1_LoadPlain(benchmark::State& state) { Load(state, PlainPath()); }
void L1_LoadCompressed(benchmark::State& state) { Load(state, CompressedPath()); }

BENCHMARK(L1_PlainBytes)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(L1_InflateBytes)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(L1_LoadPlain)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(L1_LoadCompressed)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
