#include "volume/kernels/image_upscale.h"

#include <cmath>
#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>

namespace {

using zrvolume::ImageUpscaleArgs;

constexpr uint32_t kUntouched = 0x77777777u;

uint32_t Grey(uint32_t v) { return v | v << 8 | v << 16 | v << 24; }
uint32_t Pack(uint32_t b0, uint32_t b1, uint32_t b2, uint32_t b3) { return b0 | b1 << 8 | b2 << 16 | b3 << 24; }
uint32_t ByteOf(uint32_t p, int b) { return (p >> (8 * b)) & 0xffu; }

// Source and destination share one pitch; the reduced source sits in the
// leading rows and columns of its buffer.
struct Buffers {
    int pitch;
    std::vector<uint32_t> source, destination;
    std::vector<uint16_t> sourceValues, destinationValues;
    std::vector<float> mask;

    Buffers(int pitch, int rows)
        : pitch(pitch),
          source(static_cast<size_t>(pitch) * rows, 0),
          destination(static_cast<size_t>(pitch) * rows, kUntouched),
          sourceValues(static_cast<size_t>(pitch) * rows, 0),
          destinationValues(static_cast<size_t>(pitch) * rows, 0x7777),
          mask(static_cast<size_t>(pitch) * rows, 0.0f) {}

    ImageUpscaleArgs Args() {
        ImageUpscaleArgs a;
        a.source = source.data();
        a.sourceValues = sourceValues.data();
        a.destination = destination.data();
        a.destinationValues = destinationValues.data();
        a.pitch = pitch;
        return a;
    }
    uint32_t& Source(int c, int r) { return source[r * pitch + c]; }
    uint32_t Destination(int c, int r) const { return destination[r * pitch + c]; }
};

TEST(ImageUpscale, HalfStepRepeatsEachSourceColumnOverTwoPixels) {
    Buffers b(10, 4);
    const uint32_t row[] = {0, 255, 100, 7};
    for (int c = 0; c < 4; ++c) b.Source(c, 0) = Grey(row[c]);
    ImageUpscaleArgs a = b.Args();
    a.x0 = 2;
    a.x1 = 8;
    a.rowOffset = 1;
    a.rowCount = 1;
    a.sx = 0.5f;
    a.sy = 0.0f;
    zrvolume::UpscaleImage(a);
    // fx alternates 0 and 0.5; the source column advances every second pixel.
    const uint32_t expected[] = {0, 127, 255, 177, 100, 53};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(b.Destination(2 + i, 1), Grey(expected[i])) << i;
    EXPECT_EQ(b.Destination(1, 1), kUntouched);
    EXPECT_EQ(b.Destination(8, 1), kUntouched);
    for (int c = 0; c < 10; ++c) EXPECT_EQ(b.Destination(c, 0), kUntouched);
}

TEST(ImageUpscale, BilinearWeightsPerByteTruncated) {
    Buffers b(8, 6);
    b.Source(0, 0) = Pack(0, 10, 255, 255);
    b.Source(1, 0) = Pack(100, 30, 0, 255);
    b.Source(0, 1) = Pack(200, 50, 255, 0);
    b.Source(1, 1) = Pack(40, 70, 0, 0);
    ImageUpscaleArgs a = b.Args();
    a.x0 = 0;
    a.x1 = 4;
    a.rowCount = 4;
    a.sx = 0.25f;
    a.sy = 0.25f;
    zrvolume::UpscaleImage(a);
    // (x, r) = (1, 2): fx = 0.25, fy = 0.5.
    // byte 0: (0 .75 + 100 .25) .5 + (200 .75 + 40 .25) .5 = 92.5
    // byte 1: (10 .75 + 30 .25) .5 + (50 .75 + 70 .25) .5 = 35
    // byte 2: 255 .75 = 191.25; byte 3: (255) .5 = 127.5
    EXPECT_EQ(b.Destination(1, 2), Pack(92, 35, 191, 127));
    // (3, 3): fx = fy = 0.75.
    // byte 0: (0 .25 + 100 .75) .25 + (200 .25 + 40 .75) .75 = 78.75
    EXPECT_EQ(ByteOf(b.Destination(3, 3), 0), 78u);
    EXPECT_EQ(b.Destination(0, 0), b.source[0]);  // weights 1, 0, 0, 0
}

TEST(ImageUpscale, ValuesAreInterpolatedLikeTheColour) {
    Buffers b(8, 4);
    b.sourceValues[0] = 1000;
    b.sourceValues[1] = 2001;
    b.sourceValues[8] = 3000;
    b.sourceValues[9] = 0;
    ImageUpscaleArgs a = b.Args();
    a.x1 = 2;
    a.rowCount = 2;
    a.sx = 0.5f;
    a.sy = 0.5f;
    zrvolume::UpscaleImage(a);
    EXPECT_EQ(b.destinationValues[0], 1000);
    EXPECT_EQ(b.destinationValues[1], 1500);  // 1500.5 truncated
    EXPECT_EQ(b.destinationValues[8], 2000);
    EXPECT_EQ(b.destinationValues[9], 1500);  // (1000 + 2001 + 3000 + 0) / 4 = 1500.25
    // Without a source value buffer the destination values stay.
    a.sourceValues = nullptr;
    b.destinationValues[0] = 5;
    zrvolume::UpscaleImage(a);
    EXPECT_EQ(b.destinationValues[0], 5);
}

// ---- Up-scale and merge -----------------------------------------------------

int ExpectedByte(double x) { return static_cast<int>(x * 255.0); }

// One sample merged into one destination pixel with weight 0.25; returns the
// destination and its value.
std::pair<uint32_t, uint16_t> MergeOne(uint32_t sample, uint32_t destination, const float* mask) {
    Buffers b(8, 4);
    ImageUpscaleArgs a = b.Args();
    a.x1 = 1;
    a.rowCount = 1;
    a.sx = a.sy = 1.0f;
    a.weight = 0.25f;
    a.mask = mask;
    b.sourceValues[0] = 1234;
    b.Source(0, 0) = sample;
    b.destination[0] = destination;
    zrvolume::UpscaleAndMergeImage(a);
    return {b.destination[0], b.destinationValues[0]};
}

void ExpectBytesNear(uint32_t actual, int b0, int b1, int b2, int b3) {
    const int expected[4] = {b0, b1, b2, b3};
    for (int i = 0; i < 4; ++i) EXPECT_LE(std::abs(static_cast<int>(ByteOf(actual, i)) - expected[i]), 1) << i;
}

TEST(ImageUpscaleAndMerge, ClearSamplesLeaveTheDestinationAndClearDestinationsReceiveTheSample) {
    const float unmasked = 0.0f;
    EXPECT_EQ(MergeOne(Pack(200, 0, 255, 0), Pack(1, 2, 3, 4), &unmasked),
              std::make_pair(Pack(1, 2, 3, 4), uint16_t{0x7777}));
    const auto [pixel, value] = MergeOne(Pack(200, 0, 255, 128), Pack(9, 9, 9, 0), &unmasked);
    ExpectBytesNear(pixel, 200, 0, 255, 128);
    EXPECT_EQ(value, 1234);
}

TEST(ImageUpscaleAndMerge, TheExistingContentLiesOverTheSampleUnlessMaskedThenTheWeightMixes) {
    const float unmasked = 0.0f, masked = 1.0f;
    const double dA = 128 / 255.0;
    for (const float* mask : {&unmasked, static_cast<const float*>(nullptr)})
        ExpectBytesNear(MergeOne(Pack(200, 0, 255, 255), Pack(100, 50, 0, 128), mask).first,
                        ExpectedByte(dA * 100 / 255 + (1 - dA) * 200 / 255.0), ExpectedByte(dA * 50 / 255),
                        ExpectedByte((1 - dA) * 255 / 255.0), 255);
    ExpectBytesNear(MergeOne(Pack(200, 0, 255, 255), Pack(100, 50, 0, 128), &masked).first,
                    ExpectedByte((0.75 * 100 + 0.25 * 200) / 255), ExpectedByte(0.75 * 50 / 255),
                    ExpectedByte(0.25 * 255 / 255), 255);
}

}  // namespace
