// The zrslice program end to end: exit codes, the one-line error answers with
// no partial output (one mistake per stage: file, JSON, parameters, image,
// objects, the module; the messages themselves are checked where they are made), replays of the checked-in
// request files against their expected pictures, and the demo gallery's replayable request files.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "tests/io/file_test_support.h"
#include "tests/tools/zrslice_runner.h"
#include "io/png_io.h"

namespace zrio {
namespace {

namespace fs = std::filesystem;
using testing::ScratchFolder;


// Files in `dir` other than the ones the test wrote itself.
std::vector<std::string> Outputs(const ScratchFolder& dir, const std::vector<std::string>& inputs) {
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(dir.Path())) {
        const std::string name = entry.path().filename().string();
        if (std::find(inputs.begin(), inputs.end(), name) == inputs.end()) found.push_back(name);
    }
    return found;
}

const char* kSmallRequest = R"({
  "image": {"size": [24, 24], "camera": {"position": [0, 0, 20], "viewDirection": [0, 0, 1], "up": [0, -1, 0],
            "viewExtent": 240}},
  "objects": {"head": {"type": "volume", "phantom": "head", "dims": [24, 24, 18], "spacing": [9, 9, 11]},
              "window": {"type": "table", "preset": "softTissue"}},
  "scene": [{"object": "head", "tables": {"WINDOWING": "window"}}],
  "requests": [{"_bool_IsFirstRenderer": true, "_bool_StoreSampleValueToCustomBuffer": true}]
})";

TEST(ZrsliceCli, UsageErrorsExitWithTwo) {
    ScratchFolder dir("cli-usage");
    EXPECT_EQ(Zrslice("", dir).exitCode, 2);
    EXPECT_EQ(Zrslice("paint", dir).exitCode, 2);
    EXPECT_EQ(Zrslice("render", dir).exitCode, 2);  // REQUEST and -o are required
    EXPECT_EQ(Zrslice("--help", dir).exitCode, 0);
}

TEST(ZrsliceCli, RendersPictureValuesAndLists) {
    ScratchFolder dir("cli-render");
    testing::WriteText(dir / "small.json", kSmallRequest);
    const RunResult run = Zrslice("-q render " + Quoted(dir / "small.json") + " -o " + Quoted(dir / "out/small.png"), dir);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.err.empty()) << run.err;  // --quiet
    const RgbaImage picture = ReadPngRgba(dir / "out/small.png");
    EXPECT_EQ(picture.width, 24);
    // The centre pixel is brain: a grey of the soft-tissue window, fully covered.
    const uint8_t* centre = &picture.pixels[(12 * 24 + 12) * 4];
    EXPECT_EQ(centre[3], 255);
    EXPECT_EQ(centre[0], centre[1]);
    EXPECT_GT(centre[0], 60);
    EXPECT_LT(centre[0], 200);
    const GreyImage16 values = ReadPngGrey16(dir / "out/small.values.png");
    EXPECT_EQ(values.values.size(), 24u * 24u);
    EXPECT_NEAR(values.values[12 * 24 + 12], 1054, 1);  // brain, truncated sample
    std::ifstream lists(dir / "out/small.lists.json");
    const nlohmann::json report = nlohmann::json::parse(lists);
    EXPECT_EQ(report["descriptor"], "CPU Unified Renderer By Orrik 2019.07.22");
    EXPECT_EQ(report["requests"][0]["progress"], 100.0);
}

TEST(ZrsliceCli, BadInputIsOneLineAndLeavesNoOutput) {
    ScratchFolder dir("cli-errors");
    nlohmann::json valid = nlohmann::json::parse(kSmallRequest);
    struct Case {
        std::string name;
        std::string contents;  // empty: the file is not written
        std::string expected;  // part of the one line
    };
    auto with = [&](const char* pointer, nlohmann::json value) {
        nlohmann::json doc = valid;
        doc[nlohmann::json::json_pointer(pointer)] = std::move(value);
        return doc.dump();
    };
    std::vector<char> cutNifti = testing::NiftiInt16(8, 8, 8, 1, 1, 1, std::vector<int16_t>(512, 100));
    cutNifti.erase(cutNifti.end() - 200, cutNifti.end());
    testing::WriteBytes(dir / "cut.nii", cutNifti);
    testing::WriteBytes(dir / "short.raw", std::vector<char>(100));
    const std::vector<Case> cases = {
        {"missing.json", "", "missing.json: no such file"},
        {"notjson.json", "{ this is not json", "not valid JSON"},
        {"badtype.json", with("/requests/0/_float_PlaneThickness", "20"),
         "\"_float_PlaneThickness\" expects a number"},
        {"hugesize.json", with("/image/size", {16384, 16384}), "too large"},
        {"shortraw.json",
         with("/objects/head",
              {{"type", "volume"}, {"raw", "short.raw"}, {"voxelType", "uint16"}, {"dims", {8, 8, 8}}}),
         "short.raw: raw file holds 100 bytes"},
        {"cutnifti.json", with("/objects/head", {{"type", "volume"}, {"file", "cut.nii"}}), "cut.nii: "},
        {"declined.json", with("/requests/0/_string_RenderingSourceType", "VOLUME"), "declined"},
    };
    for (const Case& c : cases) {
        if (!c.contents.empty()) testing::WriteText(dir / c.name, c.contents);
        const RunResult run = Zrslice("render " + Quoted(dir / c.name) + " -o " + Quoted(dir / "out.png"), dir);
        EXPECT_EQ(run.exitCode, 1) << c.name << ": " << run.err;
        EXPECT_EQ(run.err.rfind("zrslice: ", 0), 0u) << c.name << ": " << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << c.name << ": " << run.err;
        EXPECT_NE(run.err.find(c.expected), std::string::npos) << c.name << ": " << run.err;
        std::vector<std::string> inputs = {"cut.nii", "short.raw"};
        for (const Case& other : cases) inputs.push_back(other.name);
        EXPECT_TRUE(Outputs(dir, inputs).empty()) << c.name << " left " << Outputs(dir, inputs).front();
    }
}

TEST(ZrsliceCli, InfoDescribesVolumeFiles) {
    ScratchFolder dir("cli-info");
    testing::WriteBytes(dir / "v.nii", testing::NiftiInt16(5, 4, 3, 0.5f, 0.5f, 2.0f, std::vector<int16_t>(60, 1)));
    const std::string out = dir / "info.txt";
    const int status = std::system((std::string(ZRSLICE_PATH) + " info " + Quoted(dir / "v.nii") + " >" + out).c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::ifstream in(out);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_NE(text.str().find("5 x 4 x 3 voxels"), std::string::npos) << text.str();
    EXPECT_NE(text.str().find("NIfTI"), std::string::npos);
    EXPECT_EQ(Zrslice("info " + Quoted(dir / "none.nii"), dir).exitCode, 1);
}

// Every checked-in request file replays to its checked-in picture, exactly.
TEST(ZrsliceReplay, RequestFilesMatchExpectedPictures) {
    ScratchFolder dir("cli-replay");
    const fs::path requests = fs::path(ZR_TEST_DATA_DIR) / "requests";
    const fs::path expected = fs::path(ZR_TEST_DATA_DIR) / "expected";
    int compared = 0;
    for (const auto& entry : fs::directory_iterator(requests)) {
        if (entry.path().extension() != ".json") continue;
        const std::string stem = entry.path().stem().string();
        const fs::path want = expected / (stem + ".png");
        if (!fs::exists(want)) continue;  // request kept without a judged picture
        const RunResult run = Zrslice("-q render " + Quoted(entry.path().string()) + " -o " + Quoted(dir / (stem + ".png")), dir);
        ASSERT_EQ(run.exitCode, 0) << stem << ": " << run.err;
        const RgbaImage got = ReadPngRgba(dir / (stem + ".png"));
        const RgbaImage ref = ReadPngRgba(want.string());
        ASSERT_EQ(got.width, ref.width) << stem;
        ASSERT_EQ(got.height, ref.height) << stem;
        size_t differing = 0;
        for (size_t k = 0; k < got.pixels.size(); ++k) differing += got.pixels[k] != ref.pixels[k];
        EXPECT_EQ(differing, 0u) << stem << ": " << differing << " bytes differ from " << want;
        ++compared;
    }
    EXPECT_GE(compared, 10);
}

// The demo writes a picture and a request file per capability; replaying a
// request file gives the same picture.
TEST(ZrsliceDemo, GalleryIsCompleteAndReplayable) {
    ScratchFolder dir("cli-demo");
    const RunResult run = Zrslice("demo --size 32 -o " + Quoted(dir / "gallery"), dir);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.err.find("contact-sheet.png"), std::string::npos);
    EXPECT_TRUE(fs::exists(dir / "gallery/contact-sheet.png"));
    int pictures = 0;
    for (const auto& entry : fs::directory_iterator(dir / "gallery")) {
        const std::string name = entry.path().filename().string();
        if (entry.path().extension() != ".json" || name.find(".lists.") != std::string::npos) continue;
        const std::string stem = entry.path().stem().string();
        ASSERT_TRUE(fs::exists(dir / ("gallery/" + stem + ".png"))) << stem;
        ++pictures;
        if (stem != "07-curved" && stem != "13-mesh-cut") continue;  // replay two, to keep the test short
        ASSERT_EQ(Zrslice("-q render " + Quoted(entry.path().string()) + " -o " + Quoted(dir / "replay.png"), dir).exitCode, 0);
        EXPECT_EQ(ReadPngRgba(dir / "replay.png").pixels, ReadPngRgba(dir / ("gallery/" + stem + ".png")).pixels) << stem;
    }
    EXPECT_EQ(pictures, 17);
}

}  // namespace
}  // namespace zrio
