#include "volume/kernels/layer_merge.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "tests/volume/kernels/slice_fixtures.h"

namespace {

using slicetest::Bytes;

void ExpectBytesNear(uint32_t actual, uint32_t expected) {
    for (int i = 0; i < 32; i += 8)
        EXPECT_LE(std::abs(static_cast<int>((actual >> i) & 0xff) - static_cast<int>((expected >> i) & 0xff)),
                  1)
            << "byte " << i / 8 << ": " << std::hex << actual << " vs " << expected;
}

// One front (earlier) and one back (new) pixel merged into a 1 x 1 output with
// weight 0.25, for a slab (pitch 0.5 below thickness 10) or a thin plane.
uint32_t Merge(uint32_t front, uint32_t back, bool slab, const float* mask) {
    uint32_t output = slicetest::kUntouched;
    zrvolume::LayerMergeArgs a;
    a.voxelPitchMin = 0.5f;
    a.planeThickness = slab ? 10.0f : 0.5f;
    a.width = a.height = 1;
    a.weight = 0.25f;
    a.earlier = &front;
    a.target = &back;
    a.depthMask = mask;
    a.output = &output;
    zrvolume::MergeLayers(a);
    return output;
}

TEST(LayerMerge, TheFrontLiesOverTheBackByOpacityUnlessASlabPixelIsMasked) {
    const float one = 1.0f, zero = 0.0f;
    // A clear front passes the back through unchanged.
    EXPECT_EQ(Merge(Bytes(200, 100, 50, 0), Bytes(1, 2, 3, 64), true, &one), Bytes(1, 2, 3, 64));
    // A slab pixel with a positive mask mixes with the weight: B w + F (1 - w).
    ExpectBytesNear(Merge(Bytes(200, 100, 0, 255), Bytes(40, 0, 255, 128), true, &one),
                    Bytes(160, 75, 63, 255));
    // A thin plane, a zero mask and no mask all take the opacity rule.
    const double fA = 128 / 255.0;
    const uint32_t over = Bytes(static_cast<int>(40 * (1 - fA) + 200 * fA), static_cast<int>(100 * fA),
                                static_cast<int>(255 * (1 - fA)), 255);
    ExpectBytesNear(Merge(Bytes(200, 100, 0, 128), Bytes(40, 0, 255, 255), false, &one), over);
    ExpectBytesNear(Merge(Bytes(200, 100, 0, 128), Bytes(40, 0, 255, 255), true, &zero), over);
    ExpectBytesNear(Merge(Bytes(200, 100, 0, 128), Bytes(40, 0, 255, 255), true, nullptr), over);
    // A clear back behind an opaque front gives the front.
    EXPECT_EQ(Merge(Bytes(200, 100, 7, 255), Bytes(40, 90, 255, 0), true, &zero), Bytes(200, 100, 7, 255));
}

TEST(LayerMerge, EveryPixelOfEveryRowIsMerged) {
    const int width = 7, height = 5;
    std::vector<uint32_t> front(width * height), back(width * height),
        output(width * height, slicetest::kUntouched);
    for (int i = 0; i < width * height; ++i) {
        front[i] = i % 2 ? Bytes(i, 0, 0, 255) : 0u;
        back[i] = Bytes(0, i, 0, 255);
    }
    zrvolume::LayerMergeArgs a;
    a.width = width;
    a.height = height;
    a.earlier = front.data();
    a.target = back.data();
    a.output = output.data();
    zrvolume::MergeLayers(a);
    for (int i = 0; i < width * height; ++i) EXPECT_EQ(output[i], i % 2 ? front[i] : back[i]) << i;
}

}  // namespace
