// The cached smoothing kernel and the smoothing pass with its carried sums.
#include "mesh/smoothing.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <vector>

#include "mesh/bvh/tracked_heap.h"
#include "mesh/smoothing_kernel.h"

namespace {

using zrmesh::BuildSmoothingKernel;
using zrmesh::ReleaseSmoothingKernel;

// Runs the body on one thread, then restores the team size.
template <class Body>
void OnOneThread(Body&& body) {
    const int before = omp_get_max_threads();
    omp_set_num_threads(1);
    body();
    omp_set_num_threads(before);
}

// Entry [i][j] = (g(i - r) + g(j - r)) / 2 with g(d) = exp(-d^2 / (2 sigma^2)):
// the sum of two Gaussians, not their product; radius 0 is the single weight one.
TEST(SmoothingKernel, IsTheScaledSumOfTwoGaussians) {
    for (auto [radius, sigma] : {std::pair{1, 1.0f}, {2, 3.0f}, {3, 2.0f}, {0, 1.0f}}) {
        ReleaseSmoothingKernel();
        const zrmesh::SmoothingKernel& kernel = BuildSmoothingKernel(radius, sigma);
        ASSERT_NE(kernel.weights, nullptr);
        EXPECT_EQ(kernel.radius, radius);
        EXPECT_EQ(kernel.sigma, sigma);
        const float twoSigmaSquared = 2.0f * sigma * sigma;  // lambdas may not capture bindings before clang 16
        const auto g = [&](int d) { return std::exp(-static_cast<float>(d * d) / twoSigmaSquared); };
        const int size = 2 * radius + 1;
        for (int i = 0; i < size; ++i)
            for (int j = 0; j < size; ++j)
                EXPECT_FLOAT_EQ(kernel.weights[i * size + j], (g(i - radius) + g(j - radius)) / 2.0f)
                    << radius << ", " << sigma << ": " << i << "," << j;
    }
    ReleaseSmoothingKernel();
}

TEST(SmoothingKernel, IsCachedUntilRadiusOrSigmaChanges) {
    ReleaseSmoothingKernel();
    const uint64_t empty = zrbvh::HeapBytesInUse();
    const float* first = BuildSmoothingKernel(3, 1.0f).weights;
    const uint64_t held = zrbvh::HeapBytesInUse();
    EXPECT_GE(held - empty, 49 * sizeof(float));
    EXPECT_EQ(BuildSmoothingKernel(3, 1.0f).weights, first);
    EXPECT_EQ(zrbvh::HeapBytesInUse(), held);

    EXPECT_EQ(BuildSmoothingKernel(3, 2.0f).sigma, 2.0f);
    EXPECT_EQ(BuildSmoothingKernel(4, 2.0f).radius, 4);
    EXPECT_GE(zrbvh::HeapBytesInUse() - empty, 81 * sizeof(float));

    ReleaseSmoothingKernel();
    EXPECT_EQ(zrbvh::HeapBytesInUse(), empty);
    EXPECT_EQ(zrmesh::CachedSmoothingKernel().weights, nullptr);
}

TEST(Smoothing, RadiusZeroOnOneThreadCarriesTheFirstPixelOnward) {
    // One pixel set: raster order on one thread leaves everything before it
    // empty and, the sums never being reset, repeats it in every later pixel.
    const int width = 6, height = 4;
    std::vector<uint32_t> source(width * height, 0u), destination(width * height, 0xdeadbeefu);
    const uint32_t pixel = 0xff102030u;
    source[2 * width + 3] = pixel;
    OnOneThread([&] {
        SmoothImage(source.data(), destination.data(), width, height, BuildSmoothingKernel(0, 1.0f));
    });
    for (int i = 0; i < width * height; ++i) EXPECT_EQ(destination[i], i < 2 * width + 3 ? 0u : pixel) << i;
    ReleaseSmoothingKernel();
}

TEST(Smoothing, OnOneThreadTheFirstReachedPixelGetsTheKernelWeight) {
    // A white pixel at (4, 4) with r = 1: in raster order the first pixel whose
    // window reaches it is (3, 3), where it sits at kernel entry [2][2].
    const int width = 9, height = 9;
    std::vector<uint32_t> source(width * height, 0u), destination(width * height, 0u);
    source[4 * width + 4] = 0x80402010u;
    OnOneThread([&] {
        SmoothImage(source.data(), destination.data(), width, height, BuildSmoothingKernel(1, 1.0f));
    });
    const float corner = std::exp(-0.5f);
    for (int i = 0; i < 3 * width + 3; ++i) ASSERT_EQ(destination[i], 0u) << i;
    const uint32_t first = destination[3 * width + 3];
    EXPECT_EQ(first & 0xffu, static_cast<uint32_t>(0x10 * corner));
    EXPECT_EQ((first >> 8) & 0xffu, static_cast<uint32_t>(0x20 * corner));
    EXPECT_EQ((first >> 24) & 0xffu, static_cast<uint32_t>(0x80 * corner));
    ReleaseSmoothingKernel();
}

TEST(Smoothing, SumsAreLimitedTo255) {
    const int width = 3, height = 1;
    std::vector<uint32_t> source(width * height, 0xffffffffu), destination(width * height, 0u);
    SmoothImage(source.data(), destination.data(), width, height, BuildSmoothingKernel(1, 1.0f));
    for (uint32_t p : destination) EXPECT_EQ(p, 0xffffffffu);
    ReleaseSmoothingKernel();
}

TEST(Smoothing, AnyRowAssignmentKeepsLinePixelsAndLeavesAnEmptyImageEmpty) {
    // Properties that hold whichever rows each thread takes: the sums only
    // grow, so every source pixel is at least reproduced; and nothing appears
    // without a source pixel.
    const int width = 40, height = 30;
    std::vector<uint32_t> source(width * height, 0u), destination(width * height, 0u);
    for (int x = 5; x < 35; ++x) source[15 * width + x] = 0xff3060c0u;
    SmoothImage(source.data(), destination.data(), width, height, BuildSmoothingKernel(2, 1.5f));
    for (int i = 0; i < width * height; ++i) {
        if (source[i] == 0) continue;
        for (int shift = 0; shift < 32; shift += 8)
            EXPECT_GE((destination[i] >> shift) & 0xffu, (source[i] >> shift) & 0xffu) << i;
    }
    std::vector<uint32_t> empty(width * height, 0u), out(width * height, 0x12345678u);
    SmoothImage(empty.data(), out.data(), width, height, BuildSmoothingKernel(2, 1.5f));
    for (uint32_t p : out) EXPECT_EQ(p, 0u);
    ReleaseSmoothingKernel();
}

}  // namespace
