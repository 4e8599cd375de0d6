// Replays every fuzz input kept under tests/data/fuzz-regressions/ (one folder
// per fuzz target) through the same harnesses the fuzzers use, so that each
// finding stays fixed in the ordinary builds; and checks the byte form of
// DoModule inputs the fuzzer decodes.
#include <gtest/gtest.h>

#include <algorithm>
#include <any>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include <glm/glm.hpp>

#include "fuzz/do_module_harness.h"
#include "fuzz/request_encoding.h"
#if defined(ZR_HAVE_REQUEST_FILE_HARNESS)
#include "fuzz/request_file_harness.h"
#endif

namespace fs = std::filesystem;
using namespace zrfuzz;

namespace {

std::vector<fs::path> Inputs(const fs::path& folder) {
    std::vector<fs::path> files;
    if (fs::is_directory(folder))
        for (const auto& item : fs::directory_iterator(folder))
            if (item.is_regular_file() && item.path().filename().string()[0] != '.') files.push_back(item.path());
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<uint8_t> ReadBytes(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

const KeyRule& RuleOf(const std::string& key) {
    for (const KeyRule& rule : KnownKeys())
        if (key == rule.key) return rule;
    throw std::invalid_argument(key);
}

const std::type_info& StoredType(ValueType type) {
    switch (type) {
        case ValueType::Bool: return typeid(bool);
        case ValueType::Int: return typeid(int32_t);
        case ValueType::Float: return typeid(float);
        case ValueType::Double: return typeid(double);
        case ValueType::Float2: return typeid(glm::vec2);
        case ValueType::Float3: return typeid(glm::vec3);
        case ValueType::Float4: return typeid(glm::vec4);
        case ValueType::Double4: return typeid(glm::dvec4);
        case ValueType::Matrix44f: return typeid(glm::mat4);
        case ValueType::String: return typeid(std::string);
        case ValueType::FloatList: return typeid(std::vector<float>);
        case ValueType::IntList: return typeid(std::vector<int32_t>);
        case ValueType::DoubleList: return typeid(std::vector<double>);
        case ValueType::Float3List: return typeid(std::vector<glm::vec3>);
        case ValueType::Double2List: return typeid(std::vector<glm::dvec2>);
        case ValueType::Count: break;
    }
    return typeid(void);
}

}  // namespace

// ---- Kept findings ----

TEST(FuzzRegressions, EveryKeptDoModuleInputRunsToTheEnd) {
    const auto files = Inputs(fs::path(ZR_FUZZ_REGRESSIONS_DIR) / "do_module");
    if (files.empty()) GTEST_SKIP() << "no DoModule finding kept";
    for (const fs::path& file : files) {
        SCOPED_TRACE(file.filename().string());
        const std::vector<uint8_t> bytes = ReadBytes(file);
        EXPECT_EQ(RunDoModuleInput(bytes.data(), bytes.size()), 0);
    }
}

#if defined(ZR_HAVE_REQUEST_FILE_HARNESS)
TEST(FuzzRegressions, EveryKeptRequestFileInputIsAcceptedOrRefusedByName) {
    auto files = Inputs(fs::path(ZR_FUZZ_REGRESSIONS_DIR) / "request_file");
    const auto seeds = Inputs(fs::path(ZR_FUZZ_SEEDS_DIR) / "request_file");
    files.insert(files.end(), seeds.begin(), seeds.end());
    ASSERT_FALSE(files.empty());
    for (const fs::path& file : files) {
        SCOPED_TRACE(file.filename().string());
        const std::vector<uint8_t> bytes = ReadBytes(file);
        EXPECT_EQ(RunRequestFileInput(bytes.data(), bytes.size()), 0);
    }
}
#endif

// ---- The byte form of DoModule inputs ----

TEST(RequestEncoding, DecodesWhatTheEncoderWrote) {
    InputEncoder encoder(1, 0x15, 2, 3);
    ASSERT_TRUE(encoder.Add(ParamTarget::Request, 0, "_bool_IsFirstRenderer", true));
    ASSERT_TRUE(encoder.Add(ParamTarget::Request, 0, "_int_VolumeRayCastType", -12345));
    ASSERT_TRUE(encoder.Add(ParamTarget::Image, 0, "_bool_SkipSrOnPlaneRenderer", true));
    ASSERT_TRUE(encoder.Add(ParamTarget::SceneEntry, 4, "_double_WindowingWidth", 123.25));
    ASSERT_TRUE(encoder.Add(ParamTarget::Object, 2, "_float3_VecClipPlaneWS", glm::vec3(1.5f, -2.0f, 0.25f)));
    encoder.NextRequest();
    ASSERT_TRUE(encoder.Add(ParamTarget::Request, 0, "_string_RenderingSourceType", std::string("MESH")));
    ASSERT_TRUE(encoder.Add(ParamTarget::Request, 0, "_vlist_DOUBLE2_ITF",
                            std::vector<glm::dvec2>{{1.0, 2.0}, {3.0, 4.0}}));
    ASSERT_TRUE(encoder.Add(ParamTarget::Request, 0, "_int_KernelRadius", 4));           // ranged -2..6
    ASSERT_TRUE(encoder.Add(ParamTarget::Request, 0, "_float_PlaneThickness", 30.0f));  // ranged -5..60

    const DecodedInput input = DecodeInput(encoder.Bytes().data(), encoder.Bytes().size());
    EXPECT_EQ(input.source, 1);
    EXPECT_EQ(input.enabledMask, 0x15);
    EXPECT_EQ(input.view, 2);
    EXPECT_EQ(input.placement, 3);
    ASSERT_EQ(input.requests.size(), 2u);
    ASSERT_EQ(input.requests[0].size(), 5u);
    ASSERT_EQ(input.requests[1].size(), 4u);

    const auto& first = input.requests[0];
    EXPECT_EQ(first[0].key, "_bool_IsFirstRenderer");
    EXPECT_EQ(std::any_cast<bool>(first[0].value), true);
    EXPECT_EQ(std::any_cast<int32_t>(first[1].value), -12345);
    EXPECT_EQ(first[2].target, ParamTarget::Image);
    EXPECT_EQ(first[3].target, ParamTarget::SceneEntry);
    EXPECT_EQ(first[3].entry, 4);
    EXPECT_EQ(std::any_cast<double>(first[3].value), 123.25);
    EXPECT_EQ(first[4].target, ParamTarget::Object);
    EXPECT_EQ(first[4].entry, 2);
    EXPECT_EQ(std::any_cast<glm::vec3>(first[4].value), glm::vec3(1.5f, -2.0f, 0.25f));

    const auto& second = input.requests[1];
    EXPECT_EQ(std::any_cast<std::string>(second[0].value), "MESH");
    const auto itf = std::any_cast<std::vector<glm::dvec2>>(second[1].value);
    ASSERT_EQ(itf.size(), 2u);
    EXPECT_EQ(itf[1], glm::dvec2(3.0, 4.0));
    EXPECT_EQ(std::any_cast<int32_t>(second[2].value), 4);
    // Ranged values travel as 16-bit fractions of their range.
    EXPECT_NEAR(std::any_cast<float>(second[3].value), 30.0f, 65.0 / 65535.0);
}

TEST(RequestEncoding, TheEncoderRefusesUnknownKeysAndMistypedValues) {
    InputEncoder encoder(0, 0, 0, 0);
    const size_t header = encoder.Bytes().size();
    EXPECT_FALSE(encoder.Add(ParamTarget::Request, 0, "_bool_NoSuchKey", true));
    EXPECT_FALSE(encoder.Add(ParamTarget::Request, 0, "_double_WindowingWidth", 3.0f));
    EXPECT_FALSE(encoder.Add(ParamTarget::Request, 0, "_int_NumOTFs", int64_t(2)));
    EXPECT_EQ(encoder.Bytes().size(), header);
}

TEST(RequestEncoding, AnyBytesDecodeIntoKnownKeysWithinTheirRanges) {
    std::mt19937 random(7);
    int wrongTypes = 0, records = 0;
    for (int trial = 0; trial < 300; ++trial) {
        std::vector<uint8_t> bytes(random() % 300);
        for (uint8_t& b : bytes) b = static_cast<uint8_t>(random());
        const DecodedInput input = DecodeInput(bytes.data(), bytes.size());
        ASSERT_GE(input.requests.size(), 1u);
        ASSERT_LE(input.requests.size(), static_cast<size_t>(kMaxRequests));
        EXPECT_LT(input.source, static_cast<int>(SourceChoices().size()));
        for (const auto& request : input.requests)
            for (const ParamRecord& record : request) {
                ++records;
                const KeyRule& rule = RuleOf(record.key);
                ASSERT_TRUE(record.value.has_value()) << record.key;
                if (rule.type == ValueType::Double && record.value.type() == typeid(double) && rule.Ranged()) {
                    const double v = std::any_cast<double>(record.value);
                    EXPECT_GE(v, rule.lo);
                    EXPECT_LE(v, rule.hi);
                }
                if (rule.type == ValueType::Int && record.value.type() == typeid(int32_t) && rule.Ranged()) {
                    const int32_t v = std::any_cast<int32_t>(record.value);
                    EXPECT_GE(v, rule.lo);
                    EXPECT_LE(v, rule.hi);
                }
                bool known = false;
                for (int t = 0; t < static_cast<int>(ValueType::Count); ++t)
                    known = known || record.value.type() == StoredType(static_cast<ValueType>(t));
                EXPECT_TRUE(known) << record.key;
                wrongTypes += record.value.type() != StoredType(rule.type);
            }
    }
    EXPECT_GT(records, 1000);
    EXPECT_GT(wrongTypes, 0) << "some records carry a type their key does not take";
}
