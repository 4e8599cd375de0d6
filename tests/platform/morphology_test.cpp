// The morphology stand-in: life cycle and the two filters.
#include "platform/morphology.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct Initialised : testing::Test {
    void SetUp() override { MoFiInitializeDx11(); }
    void TearDown() override { MoFiDeinitializeDx11(); }
};

// A 7 x 5 image with a 3 x 3 block of 200 in the middle of a 10 background.
std::vector<uint8_t> Block() {
    std::vector<uint8_t> image(7 * 5, 10);
    for (int y = 1; y <= 3; ++y)
        for (int x = 2; x <= 4; ++x) image[y * 7 + x] = 200;
    return image;
}

}  // namespace

TEST(Morphology, FiltersRefuseToRunBeforeInitialisation) {
    ASSERT_FALSE(MoFiIsInitialized());
    const auto in = Block();
    std::vector<uint8_t> out(in.size(), 77);
    EXPECT_FALSE(MorphErosionFilter2D(in.data(), out.data(), 7, 5, 1));
    EXPECT_EQ(out[0], 77);
    MoFiInitializeDx11();
    EXPECT_TRUE(MoFiIsInitialized());
    MoFiDeinitializeDx11();
    EXPECT_FALSE(MoFiIsInitialized());
    MoFiDeinitializeDx11();  // an extra tear-down is harmless
    EXPECT_FALSE(MoFiIsInitialized());
}

TEST_F(Initialised, ErosionShrinksABlockToItsCentre) {
    const auto in = Block();
    std::vector<uint8_t> out(in.size());
    ASSERT_TRUE(MorphErosionFilter2D(in.data(), out.data(), 7, 5, 1));
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) EXPECT_EQ(out[y * 7 + x], (x == 3 && y == 2) ? 200 : 10) << x << "," << y;
}

TEST_F(Initialised, DilationGrowsABlockByTheRadiusClippedAtTheBorder) {
    const auto in = Block();
    std::vector<uint8_t> out(in.size());
    ASSERT_TRUE(MorphDilationFilter2D(in.data(), out.data(), 7, 5, 1));
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) EXPECT_EQ(out[y * 7 + x], (x >= 1 && x <= 5) ? 200 : 10) << x << "," << y;
    ASSERT_TRUE(MorphDilationFilter2D(in.data(), out.data(), 7, 5, 0));
    EXPECT_EQ(out, in);
}

TEST_F(Initialised, BadArgumentsAreRefused) {
    const auto in = Block();
    std::vector<uint8_t> out(in.size());
    EXPECT_FALSE(MorphDilationFilter2D(nullptr, out.data(), 7, 5, 1));
    EXPECT_FALSE(MorphDilationFilter2D(in.data(), out.data(), 0, 5, 1));
    EXPECT_FALSE(MorphDilationFilter2D(in.data(), out.data(), 7, 5, -1));
}
