// Frame buffers of the image object: insert, replace, reuse, sizes.
#include "host/zr_image.h"

#include <gtest/gtest.h>

#include <cstdint>

using namespace zrobjects;

TEST(ImageFrameBuffers, InsertAppendsTheNextIndexOfAUsage) {
    ZrIObject image(5, 3);
    EXPECT_EQ(image.GetFrameBuffer(1, 0), nullptr);
    image.InsertFrameBuffer(MakeDataType<color4>(), 1, "Out");
    image.InsertFrameBuffer(MakeDataType<color4>(), 1, "Backup");
    image.InsertFrameBuffer(MakeDataType<uint16_t>(), 3, "sample");
    ASSERT_NE(image.GetFrameBuffer(1, 1), nullptr);
    EXPECT_EQ(image.GetFrameBuffer(1, 0)->descriptor, "Out");
    EXPECT_EQ(image.GetFrameBuffer(1, 1)->descriptor, "Backup");
    EXPECT_EQ(image.GetFrameBuffer(1, 2), nullptr);
    EXPECT_EQ(image.GetFrameBuffer(3, 0)->elementType.size, 2u);
    EXPECT_EQ(image.GetFrameBuffer(2, 0), nullptr);
    EXPECT_EQ(image.GetFrameBuffer(1, -1), nullptr);
    EXPECT_EQ(image.CountFrameBuffers(1), 2);
}

TEST(ImageFrameBuffers, BuffersHoldTheImageSizeZeroedWithTheWidthFirst) {
    ZrIObject image(7, 4);
    image.InsertFrameBuffer(MakeDataType<color4>(), 1, "Out");
    FrameBuffer* buffer = image.GetFrameBuffer(1, 0);
    // The module reads the width as the first field and the pixels as the second.
    EXPECT_EQ(*reinterpret_cast<int32_t*>(buffer), 7);
    EXPECT_EQ(buffer->height, 4);
    const auto* pixels = static_cast<const uint32_t*>(buffer->pixels);
    for (int i = 0; i < 7 * 4; ++i) ASSERT_EQ(pixels[i], 0u);
    glm::ivec2 size;
    int count = 0, pixelBytes = 0;
    image.GetFrameBufferInfo(&size, &count, &pixelBytes);
    EXPECT_EQ(size, glm::ivec2(7, 4));
    EXPECT_EQ(count, 1);
    EXPECT_EQ(pixelBytes, 4);
    image.GetFrameBufferInfo(&size, nullptr, nullptr);  // the module passes null for the others
}

TEST(ImageFrameBuffers, ReplaceKeepsTheRecordAndChangesItsContents) {
    ZrIObject image(4, 4);
    image.InsertFrameBuffer(MakeDataType<color4>(), 2, "old");
    FrameBuffer* before = image.GetFrameBuffer(2, 0);
    static_cast<uint32_t*>(before->pixels)[3] = 0xdeadbeef;
    ASSERT_TRUE(image.ReplaceFrameBuffer(2, 0, MakeDataType<float>(), "depth"));
    FrameBuffer* after = image.GetFrameBuffer(2, 0);
    EXPECT_EQ(after, before);
    EXPECT_EQ(after->descriptor, "depth");
    EXPECT_EQ(after->elementType, MakeDataType<float>());
    EXPECT_EQ(static_cast<const float*>(after->pixels)[3], 0.0f);
    EXPECT_FALSE(image.ReplaceFrameBuffer(2, 1, MakeDataType<float>(), "missing"));
}

TEST(ImageErrors, AbsurdSizesAreRejected) {
    EXPECT_THROW(ZrIObject(0, 5), std::invalid_argument);
    EXPECT_THROW(ZrIObject(-3, 5), std::invalid_argument);
    EXPECT_THROW(ZrIObject(1 << 16, 1 << 16), std::invalid_argument);
}

TEST(ObjectParams, FoundFlagAndDescriptor) {
    ZrIObject image(1, 1);
    bool found = true;
    EXPECT_FALSE(image.GetObjParamA("_bool_IsRGBA", found).has_value());
    EXPECT_FALSE(found);
    EXPECT_FALSE(image.SetObjParam("", 1));
    EXPECT_TRUE(image.SetObjParam("_int_Count", int32_t{4}));
    EXPECT_EQ(std::any_cast<int32_t>(image.GetObjParamA("_int_Count", found)), 4);
    EXPECT_TRUE(found);
    image.SetDescriptor("CPU Unified Renderer By Orrik 2019.07.22");
    EXPECT_EQ(image.GetDescriptor(), "CPU Unified Renderer By Orrik 2019.07.22");
    EXPECT_NE(image.GetObjectID(), 0);
    EXPECT_EQ(image.GetObjectType(), zrenums::EzrObjectType_Image);
}
