// Typed keys from JSON: each tag yields its exact stored type, and every value
// that does not fit its tag is refused with a message naming the key.
#include <gtest/gtest.h>

#include <glm/glm.hpp>

#include "io/tagged_params.h"

namespace zrio {
namespace {

using nlohmann::json;

template <class T>
T As(const std::string& key, const json& value) {
    const std::any stored = ConvertTaggedValue(key, value);
    EXPECT_EQ(stored.type(), typeid(T)) << key;
    return std::any_cast<T>(stored);
}

std::string ErrorOf(const std::string& key, const json& value) {
    try {
        ConvertTaggedValue(key, value);
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "no error";
}

TEST(TaggedParams, KeyTagPrefersTheLongestTag) {
    EXPECT_EQ(KeyTag("_vlist_FLOAT3_CurveUpVectors"), "vlist_FLOAT3");
    EXPECT_EQ(KeyTag("_vlist_FLOAT_CrossLines"), "vlist_FLOAT");
    EXPECT_EQ(KeyTag("_float2_GraidentMagMinMax"), "float2");
    EXPECT_EQ(KeyTag("_double4_ColorIso"), "double4");
    EXPECT_EQ(KeyTag("_ZrIObject*_RenderOut"), "ZrIObject*");
    EXPECT_EQ(KeyTag("_float_"), "");  // a tag needs a name after it
    EXPECT_EQ(KeyTag("float_PlaneThickness"), "");
    EXPECT_EQ(KeyTag("_Float_PlaneThickness"), "");  // tags are case-sensitive
}

TEST(TaggedParams, ScalarsTakeTheirTagsExactType) {
    EXPECT_EQ(As<bool>("_bool_IsRGBA", true), true);
    EXPECT_EQ(As<int32_t>("_int_NumOTFs", 5), 5);
    EXPECT_EQ(As<float>("_float_PlaneThickness", 20.0), 20.0f);
    EXPECT_EQ(As<float>("_float_PlaneThickness", 3), 3.0f);  // an integer is a number
    EXPECT_EQ(As<double>("_double_BlendingWeight", 0.25), 0.25);
    EXPECT_EQ(As<std::string>("_string_RenderingSourceType", "SECTIONAL_MESH"), "SECTIONAL_MESH");
}

TEST(TaggedParams, VectorsListsAndMatrices) {
    EXPECT_EQ(As<glm::vec2>("_float2_X", json::array({1, 2})), glm::vec2(1, 2));
    EXPECT_EQ(As<glm::vec3>("_float3_X", json::array({1, 2, 3})), glm::vec3(1, 2, 3));
    EXPECT_EQ(As<glm::vec4>("_float4_X", json::array({1, 2, 3, 4})), glm::vec4(1, 2, 3, 4));
    EXPECT_EQ(As<glm::dvec4>("_double4_X", json::array({1, 2, 3, 0.5})), glm::dvec4(1, 2, 3, 0.5));
    EXPECT_EQ(As<std::vector<float>>("_vlist_FLOAT_X", json::array({1.5, 2})), (std::vector<float>{1.5f, 2.0f}));
    EXPECT_EQ(As<std::vector<int32_t>>("_vlist_INT_X", json::array({-1, 7})), (std::vector<int32_t>{-1, 7}));
    EXPECT_EQ(As<std::vector<double>>("_vlist_DOUBLE_X", json::array({0.1})), (std::vector<double>{0.1}));
    const auto points = As<std::vector<glm::vec3>>("_vlist_FLOAT3_X", json::parse("[[1,2,3],[4,5,6]]"));
    ASSERT_EQ(points.size(), 2u);
    EXPECT_EQ(points[1], glm::vec3(4, 5, 6));
    const auto pairs = As<std::vector<glm::dvec2>>("_vlist_DOUBLE2_ITF", json::parse("[[0,0],[100,50]]"));
    ASSERT_EQ(pairs.size(), 2u);
    EXPECT_EQ(pairs[1], glm::dvec2(100, 50));
    EXPECT_TRUE(As<std::vector<float>>("_vlist_FLOAT_X", json::array()).empty());
}

TEST(TaggedParams, MatrixRowsAreWrittenAsOnPaper) {
    // Row-major text, column-major glm: the translation sits in column 3.
    const auto m = As<glm::mat4>("_matrix44f_MatrixClipWS2BS",
                                 json::parse("[[1,2,3,10],[4,5,6,20],[7,8,9,30],[0,0,0,1]]"));
    EXPECT_EQ(m[3], glm::vec4(10, 20, 30, 1));
    EXPECT_EQ(m[0][1], 4.0f);  // column 0, row 1
    EXPECT_EQ(m[1][0], 2.0f);  // column 1, row 0
}

TEST(TaggedParamsErrors, WrongJsonTypesNameTheKey) {
    EXPECT_NE(ErrorOf("_float_PlaneThickness", "thick").find("\"_float_PlaneThickness\" expects a number"),
              std::string::npos);
    EXPECT_NE(ErrorOf("_bool_IsRGBA", 1).find("\"_bool_IsRGBA\" expects true or false"), std::string::npos);
    EXPECT_NE(ErrorOf("_int_NumOTFs", 2.5).find("\"_int_NumOTFs\" expects an integer"), std::string::npos);
    EXPECT_NE(ErrorOf("_string_SamplingMode", 3).find("expects a string"), std::string::npos);
    EXPECT_NE(ErrorOf("_float3_X", json::array({1, 2})).find("array of 3 numbers"), std::string::npos);
    EXPECT_NE(ErrorOf("_vlist_FLOAT3_X", json::parse("[[1,2,3],[1,2]]")).find("\"_vlist_FLOAT3_X\""), std::string::npos);
    EXPECT_NE(ErrorOf("_matrix44f_X", json::parse("[[1,2,3,4]]")).find("4 rows of 4"), std::string::npos);
}

TEST(TaggedParamsErrors, RangesTagsAndHostOnlyKeys) {
    EXPECT_NE(ErrorOf("_int_X", 3000000000LL).find("does not fit a 32-bit integer"), std::string::npos);
    EXPECT_NE(ErrorOf("_int_X", -3000000000LL).find("does not fit a 32-bit integer"), std::string::npos);
    EXPECT_NE(ErrorOf("_float_X", 1e300).find("does not fit a float"), std::string::npos);
    EXPECT_NE(ErrorOf("_quaternion_X", 1).find("\"_quaternion_X\" has no known type tag"), std::string::npos);
    EXPECT_NE(ErrorOf("_ZrIObject*_RenderOut", 0).find("filled in by the host"), std::string::npos);
    EXPECT_NE(ErrorOf("_outptr_delegate_EndBgThread", 0).find("delegate"), std::string::npos);
    EXPECT_NE(ErrorOf("_TableMap_OTF", 0).find("tables"), std::string::npos);
}

TEST(TaggedParamsErrors, ParamObjectNamesWhereTheKeyWas) {
    try {
        ConvertParamObject(json::parse(R"({"_bool_IsRGBA": true, "_float_PlaneThickness": "x"})"), "requests[2]");
        FAIL() << "no error";
    } catch (const std::invalid_argument& e) {
        EXPECT_EQ(std::string(e.what()).rfind("requests[2]: \"_float_PlaneThickness\"", 0), 0u) << e.what();
    }
    EXPECT_THROW(ConvertParamObject(json::array(), "image.params"), std::invalid_argument);
}

TEST(TaggedParams, ListsConvertBackToJson) {
    EXPECT_EQ(TaggedValueToJson(std::any(std::vector<double>{1.0, 2.5})), json::parse("[1.0, 2.5]"));
    EXPECT_EQ(TaggedValueToJson(std::any(std::vector<glm::vec3>{{1, 2, 3}})), json::parse("[[1.0, 2.0, 3.0]]"));
    EXPECT_TRUE(TaggedValueToJson(std::any(3.0f)).is_null());
}

}  // namespace
}  // namespace zrio
