// The typed reads: exact type identity, defaults, null lists and pointers.
#include "common/param_reads.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include <glm/glm.hpp>

#include "host/zr_image.h"

using zrcommon::ParamMap;
using zrcommon::ReadList;
using zrcommon::ReadObjParam;
using zrcommon::ReadObjParamRef;
using zrcommon::ReadParam;
using zrcommon::ReadPointer;

TEST(ParamReads, MissingKeysGiveTheDefault) {
    ParamMap map;
    EXPECT_EQ(ReadParam<int>(map, "_int_VolumeRayCastType", 7), 7);
    EXPECT_FALSE(ReadParam<bool>(map, "_bool_IsRGBA", false));
    EXPECT_EQ(ReadParam<std::string>(map, "_string_SamplingMode", "TRILINEAR"), "TRILINEAR");
    EXPECT_EQ(ReadParam<glm::vec4>(map, "_float4_PhongCoeffs", glm::vec4(0.2f, 1.0f, 0.5f, 5.0f)),
              glm::vec4(0.2f, 1.0f, 0.5f, 5.0f));
}

TEST(ParamReads, StoredValuesOfTheExactTypeAreReturned) {
    ParamMap map;
    map["_int_NumOTFs"] = int32_t{3};
    map["_float_PlaneThickness"] = 2.5f;
    map["_double_Sigma"] = 1.25;
    map["_double4_ColorIso"] = glm::dvec4(1.0, 0.5, 0.25, 1.0);
    map["_matrix44f_MatrixClipWS2BS"] = glm::mat4(2.0f);
    EXPECT_EQ(ReadParam<int32_t>(map, "_int_NumOTFs", 1), 3);
    EXPECT_EQ(ReadParam<float>(map, "_float_PlaneThickness", 0.0f), 2.5f);
    EXPECT_EQ(ReadParam<double>(map, "_double_Sigma", 0.0), 1.25);
    EXPECT_EQ(ReadParam<glm::dvec4>(map, "_double4_ColorIso", glm::dvec4(0.0)), glm::dvec4(1.0, 0.5, 0.25, 1.0));
    EXPECT_EQ(ReadParam<glm::mat4>(map, "_matrix44f_MatrixClipWS2BS", glm::mat4(0.0f)), glm::mat4(2.0f));
}

TEST(ParamReads, KeysMatchExactlyIncludingCase) {
    ParamMap map;
    map["_bool_isRGBA"] = true;
    map["_bool_IsRGBA "] = true;
    EXPECT_FALSE(ReadParam<bool>(map, "_bool_IsRGBA", false));
}

TEST(ParamReads, ListsAreReturnedByReferenceAndAbsentListsAreNull) {
    ParamMap map;
    map["_vlist_FLOAT3_CurveInterpolations"] = std::vector<glm::vec3>{{1, 2, 3}};
    map["_vlist_DOUBLE_IsoLines0"] = std::vector<double>{};
    const auto* points = ReadList<std::vector<glm::vec3>>(map, "_vlist_FLOAT3_CurveInterpolations");
    ASSERT_NE(points, nullptr);
    EXPECT_EQ(points, &std::any_cast<const std::vector<glm::vec3>&>(map["_vlist_FLOAT3_CurveInterpolations"]));
    EXPECT_EQ(ReadList<std::vector<glm::vec3>>(map, "_vlist_FLOAT3_CurveUpVectors"), nullptr);
    // An empty stored list is present, not null.
    const auto* empty = ReadList<std::vector<double>>(map, "_vlist_DOUBLE_IsoLines0");
    ASSERT_NE(empty, nullptr);
    EXPECT_TRUE(empty->empty());
}

TEST(ParamReads, PointersAreReturnedAndAbsentPointersAreNull) {
    zrobjects::ZrIObject image(4, 4);
    ParamMap map;
    map["_ZrIObject*_RenderOut"] = &image;
    EXPECT_EQ(ReadPointer<zrobjects::ZrIObject*>(map, "_ZrIObject*_RenderOut"), &image);
    EXPECT_EQ(ReadPointer<zrobjects::ZrIObject*>(map, "_ZrIObject*_Other"), nullptr);
}

TEST(ParamReadErrors, AWiderNarrowerOrEmptyValueIsAMismatch) {
    ParamMap map;
    map["_int_NumOTFs"] = int64_t{2};
    map["_float_PlaneThickness"] = 2.0;
    map["_double_Sigma"] = 1.0f;
    map["_bool_IsRGBA"] = 1;
    map["_int_Empty"] = std::any{};
    map["_vlist_FLOAT_CrossLines"] = std::any{};
    EXPECT_THROW(ReadParam<int32_t>(map, "_int_NumOTFs", 1), std::bad_any_cast);
    EXPECT_THROW(ReadParam<float>(map, "_float_PlaneThickness", 0.0f), std::bad_any_cast);
    EXPECT_THROW(ReadParam<double>(map, "_double_Sigma", 0.0), std::bad_any_cast);
    EXPECT_THROW(ReadParam<bool>(map, "_bool_IsRGBA", false), std::bad_any_cast);
    EXPECT_THROW(ReadParam<int32_t>(map, "_int_Empty", 1), std::bad_any_cast);
    EXPECT_THROW(ReadList<std::vector<float>>(map, "_vlist_FLOAT_CrossLines"), std::bad_any_cast);
}

TEST(ParamReadErrors, ListsAndPointersCheckTheirTypeToo) {
    zrobjects::ZrIObject image(2, 2);
    ParamMap map;
    map["_vlist_FLOAT3_CurveUpVectors"] = std::vector<glm::dvec3>{};
    map["_ZrIObject*_RenderOut"] = static_cast<zrobjects::ZrObject*>(&image);
    EXPECT_THROW(ReadList<std::vector<glm::vec3>>(map, "_vlist_FLOAT3_CurveUpVectors"), std::bad_any_cast);
    EXPECT_THROW(ReadPointer<zrobjects::ZrIObject*>(map, "_ZrIObject*_RenderOut"), std::bad_any_cast);
}

TEST(ObjectParamReads, GoThroughTheObjectsOwnParameters) {
    zrobjects::ZrIObject image(2, 2);
    EXPECT_FALSE(ReadObjParam<bool>(image, "_bool_SkipSrOnPlaneRenderer", false));
    EXPECT_TRUE(image.SetObjParam("_bool_SkipSrOnPlaneRenderer", true));
    EXPECT_TRUE(ReadObjParam<bool>(image, "_bool_SkipSrOnPlaneRenderer", false));
    image.SetObjParam("_bool_ClipFree", 1.0);
    EXPECT_THROW(ReadObjParam<bool>(image, "_bool_ClipFree", false), std::bad_any_cast);
    EXPECT_EQ(ReadObjParamRef<std::vector<float>>(image, "_vlist_FLOAT_CrossLines"), nullptr);
}
