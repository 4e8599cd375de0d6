// Dispatch by source type and the progress value, in process.
#include "module/dispatch.h"

#include <gtest/gtest.h>

#include "host/image_builder.h"

namespace {

zrobjects::ModuleRequest RequestFor(const std::any& sourceType, zrobjects::ZrIObject& image) {
    zrobjects::ModuleRequest request;
    request.params["_ZrIObject*_RenderOut"] = &image;
    if (sourceType.has_value()) request.params["_string_RenderingSourceType"] = sourceType;
    return request;
}

}  // namespace

TEST(Dispatch, UnsupportedSourceTypesPrintAndFail) {
    auto image = zrobjects::MakeSectionImage({});
    for (const char* type : {"VOLUME", "MESH"}) {
        zrmodule::ModuleProgress() = 100.0;
        auto request = RequestFor(std::string(type), *image);
        testing::internal::CaptureStdout();
        EXPECT_FALSE(zrmodule::DispatchRequest(request));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "NOT YET CPU RENDERING");
        EXPECT_EQ(zrmodule::ModuleProgress(), 0.0);
    }
}

TEST(Dispatch, UnknownSourceTypesFinishWithoutDrawing) {
    auto image = zrobjects::MakeSectionImage({});
    for (const char* type : {"sectional_volume", "SECTIONAL_VOLUME ", "", "SURFACE"}) {
        zrmodule::ModuleProgress() = 0.0;
        auto request = RequestFor(std::string(type), *image);
        testing::internal::CaptureStdout();
        EXPECT_TRUE(zrmodule::DispatchRequest(request)) << type;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(zrmodule::ModuleProgress(), 100.0);
        EXPECT_EQ(image->CountFrameBuffers(1), 0) << "nothing may be drawn for '" << type << "'";
    }
}

TEST(Dispatch, AMistypedSourceTypeLeavesAsBadAnyCast) {
    auto image = zrobjects::MakeSectionImage({});
    auto request = RequestFor(std::any("SECTIONAL_VOLUME"), *image);  // const char*, not std::string
    zrmodule::ModuleProgress() = 100.0;
    EXPECT_THROW(zrmodule::DispatchRequest(request), std::bad_any_cast);
    EXPECT_EQ(zrmodule::ModuleProgress(), 0.0);
}
