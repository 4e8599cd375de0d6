#include "volume/kernels/layer_merge.h"

#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>

namespace {

uint32_t Pack(uint32_t b0, uint32_t b1, uint32_t b2, uint32_t b3) { return b0 | b1 << 8 | b2 << 16 | b3 << 24; }
uint32_t ByteOf(uint32_t p, int b) { return (p >> (8 * b)) & 0xffu; }

void ExpectBytesNear(uint32_t actual, int b0, int b1, int b2, int b3) {
    const int expected[4] = {b0, b1, b2, b3};
    for (int i = 0; i < 4; ++i) EXPECT_LE(std::abs(static_cast<int>(ByteOf(actual, i)) - expected[i]), 1) << i;
}

// One front (earlier) and one back (new) pixel merged into a 1 x 1 output.
struct OnePixel {
    uint32_t front, back, output = 0x77777777u;
    float mask = 1.0f;
    zrvolume::LayerMergeArgs Args(float pitch, float thickness, bool withMask = true) {
        zrvolume::LayerMergeArgs a;
        a.voxelPitchMin = pitch;
        a.planeThickness = thickness;
        a.width = a.height = 1;
        a.weight = 0.25f;
        a.earlier = &front;
        a.target = &back;
        a.depthMask = withMask ? &mask : nullptr;
        a.output = &output;
        return a;
    }
};

TEST(LayerMerge, ClearFrontPassesTheBackThroughUnchanged) {
    OnePixel p{Pack(200, 100, 50, 0), Pack(1, 2, 3, 64)};
    zrvolume::MergeLayers(p.Args(0.5f, 10.0f));
    EXPECT_EQ(p.output, Pack(1, 2, 3, 64));
}

TEST(LayerMerge, SlabWithPositiveMaskMixesWithTheWeight) {
    OnePixel p{Pack(200, 100, 0, 255), Pack(40, 0, 255, 128)};
    zrvolume::MergeLayers(p.Args(0.5f, 10.0f));
    // B w + F (1 - w), w = 0.25
    ExpectBytesNear(p.output, 160, 75, 63, 255);
}

TEST(LayerMerge, OtherwiseTheFrontLiesOverTheBackByOpacity) {
    const double fA = 128 / 255.0;
    const int expected[3] = {static_cast<int>(40 * (1 - fA) + 200 * fA), static_cast<int>(100 * fA),
                             static_cast<int>(255 * (1 - fA))};
    // A thin plane (pitch not below thickness), a zero mask and no mask all take
    // the opacity rule.
    for (int variant = 0; variant < 3; ++variant) {
        OnePixel p{Pack(200, 100, 0, 128), Pack(40, 0, 255, 255)};
        if (variant == 1) p.mask = 0.0f;
        const zrvolume::LayerMergeArgs a = variant == 0 ? p.Args(0.5f, 0.5f) : p.Args(0.5f, 10.0f, variant == 1);
        zrvolume::MergeLayers(a);
        ExpectBytesNear(p.output, expected[0], expected[1], expected[2], 255);
    }
}

TEST(LayerMerge, ClearBackBehindAnOpaqueFrontGivesTheFront) {
    OnePixel p{Pack(200, 100, 7, 255), Pack(40, 90, 255, 0)};
    p.mask = 0.0f;
    zrvolume::MergeLayers(p.Args(0.5f, 10.0f));
    EXPECT_EQ(p.output, Pack(200, 100, 7, 255));
}

TEST(LayerMerge, EveryPixelOfEveryRowIsMerged) {
    const int width = 7, height = 5;
    std::vector<uint32_t> front(width * height), back(width * height), output(width * height, 0x77777777u);
    for (int i = 0; i < width * height; ++i) {
        front[i] = i % 2 ? Pack(i, 0, 0, 255) : 0u;
        back[i] = Pack(0, i, 0, 255);
    }
    zrvolume::LayerMergeArgs a;
    a.width = width;
    a.height = height;
    a.earlier = front.data();
    a.target = back.data();
    a.output = output.data();
    zrvolume::MergeLayers(a);
    for (int i = 0; i < width * height; ++i) EXPECT_EQ(output[i], i % 2 ? Pack(i, 0, 0, 255) : back[i]) << i;
}

}  // namespace
