// Request documents: what a valid one turns into, and the one-line errors for
// every kind of mistake (each names the file and the field, key or value).
#include <gtest/gtest.h>

#include "host/zrobjects.h"
#include "tests/io/file_test_support.h"
#include "io/input_error.h"
#include "io/request_file.h"

namespace zrio {
namespace {

using nlohmann::json;

json Valid() {
    return json::parse(R"({
      "image": {"size": [40, 20], "camera": {"position": [0, 0, 5], "viewDirection": [0, 0, 1], "up": [0, -1, 0],
                "viewExtent": [80, 30]}, "params": {"_bool_SkipSrOnPlaneRenderer": false}},
      "objects": {
        "head": {"type": "volume", "phantom": "head", "dims": [16, 16, 12], "spacing": [12, 12, 14]},
        "labels": {"type": "volume", "phantom": "labels", "dims": [16, 16, 12], "spacing": [12, 12, 14]},
        "window": {"type": "table", "window": {"centre": 1064, "width": 400}, "count": 256},
        "packed": {"type": "table", "entries": ["0xFF0000FF", 4278190080, "0x00000000", "0xFFFFFFFF"], "rowLength": 2},
        "ball": {"type": "mesh", "builtin": "sphere", "radius": 20, "segments": 12}
      },
      "scene": [
        {"object": "head", "tables": {"WINDOWING": "window", "OTF": "packed", "MASKVOLUME": "labels"},
         "params": {"_int_NumOTFs": 2}, "objectParams": {"_bool_ClipFree": true}},
        {"object": "ball", "colour": [1, 0.5, 0], "enabled": false,
         "matrix": [[1, 0, 0, 10], [0, 1, 0, 0], [0, 0, 1, 0], [0, 0, 0, 1]]}
      ],
      "requests": [{"_int_VolumeRayCastType": 0, "targetVolume": "head"},
                   {"_string_RenderingSourceType": "SECTIONAL_MESH", "sceneObjects": ["ball"]}]
    })");
}

// A program that keeps its volumes loaded (a viewer, a Python session) builds
// a scene per frame: an unchanged volume or mesh is the same object again, a
// changed description is built anew, and tables always follow the frame.
TEST(RequestFile, KeptObjectsAreReusedUntilTheirDescriptionChanges) {
    LoadedObjects kept;
    json document = Valid();
    Scene first = BuildScene(ParseRequestDocument(document, "req.json", "."), &kept);
    document["objects"]["window"]["window"]["centre"] = 900;
    Scene second = BuildScene(ParseRequestDocument(document, "req.json", "."), &kept);
    EXPECT_EQ(first.objects.at("head"), second.objects.at("head"));
    EXPECT_EQ(first.objects.at("ball"), second.objects.at("ball"));
    EXPECT_NE(first.objects.at("window"), second.objects.at("window"));
    auto* head = dynamic_cast<zrobjects::ZrVObjectVolume*>(second.entries[0].object);
    EXPECT_EQ(head->GetTableObject("WINDOWING"), second.objects.at("window").get());

    document["objects"]["head"]["spacing"] = json::array({12, 12, 13});
    Scene third = BuildScene(ParseRequestDocument(document, "req.json", "."), &kept);
    EXPECT_NE(third.objects.at("head"), second.objects.at("head"));
    EXPECT_EQ(third.objects.at("labels"), second.objects.at("labels"));
    EXPECT_EQ(kept.byName.count("window"), 0u);
}

std::string ErrorOf(const json& document) {
    try {
        ParseRequestDocument(document, "req.json", ".");
    } catch (const InputError& e) {
        EXPECT_EQ(e.File(), "req.json");
        return e.Line();
    }
    return "no error";
}

TEST(RequestFile, ValidDocumentBecomesAScene) {
    const RequestFile file = ParseRequestDocument(Valid(), "req.json", ".");
    EXPECT_EQ(file.image.size, glm::ivec2(40, 20));
    // View extent / size is the spacing between pixel centres.
    EXPECT_EQ(PixelSpacing(file.image), glm::dvec2(2.0, 1.5));
    ASSERT_EQ(file.requests.size(), 2u);
    EXPECT_EQ(std::any_cast<int32_t>(file.requests[0].at("_int_VolumeRayCastType")), 0);
    EXPECT_EQ(file.requests[0].count("targetVolume"), 0u);  // directives are not parameters
    EXPECT_EQ(file.targetVolumes[0], "head");
    EXPECT_EQ(file.sceneObjects[1], std::set<std::string>{"ball"});

    Scene scene = BuildScene(file);
    ASSERT_EQ(scene.entries.size(), 2u);
    auto* head = dynamic_cast<zrobjects::ZrVObjectVolume*>(scene.entries[0].object);
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->GetTableObject("WINDOWING"), scene.objects.at("window").get());
    EXPECT_EQ(head->GetTableObject("MASKVOLUME"), scene.objects.at("labels").get());
    bool found = false;
    EXPECT_TRUE(std::any_cast<bool>(head->GetObjParamA("_bool_ClipFree", found)));
    EXPECT_EQ(std::any_cast<int32_t>(scene.entries[0].params.at("_int_NumOTFs")), 2);
    // Packed entries: two rows of two, as written.
    const auto& table = std::any_cast<const zrobjects::MapTable&>(
        scene.objects.at("packed")->GetObjParamA("_TableMap_OTF", found));
    EXPECT_EQ(table.array_lengths, glm::ivec2(2, 2));
    EXPECT_EQ(table.pp_data[0][0], 0xFF0000FFu);
    EXPECT_EQ(table.pp_data[1][1], 0xFFFFFFFFu);

    const zrobjects::SceneEntry& ball = scene.entries[1];
    EXPECT_FALSE(ball.enabled);
    EXPECT_EQ(ball.colour, glm::vec3(1, 0.5f, 0));
    EXPECT_EQ(ball.objectToWorld[3], glm::vec4(10, 0, 0, 1));
    EXPECT_EQ(ball.worldToObject[3], glm::vec4(-10, 0, 0, 1));
    EXPECT_EQ(scene.image->Width(), 40);
}

TEST(RequestFile, ByteOrderFollowsTheLastRequest) {
    json doc = Valid();
    EXPECT_EQ(ResolveByteOrder(ParseRequestDocument(doc, "r", ".")), ByteOrder::Bgra);  // mesh, no IsRGBA
    doc["requests"][1]["_bool_IsRGBA"] = true;
    EXPECT_EQ(ResolveByteOrder(ParseRequestDocument(doc, "r", ".")), ByteOrder::Rgba);
    doc["requests"].erase(1);
    EXPECT_EQ(ResolveByteOrder(ParseRequestDocument(doc, "r", ".")), ByteOrder::Rgba);  // volume
    doc["output"] = {{"byteOrder", "BGRA"}};
    EXPECT_EQ(ResolveByteOrder(ParseRequestDocument(doc, "r", ".")), ByteOrder::Bgra);
}

TEST(RequestFileErrors, EachMistakeIsNamed) {
    struct Case {
        std::string pointer;  // JSON pointer to change
        json value;
        std::string expected;  // part of the message
    };
    const std::vector<Case> cases = {
        {"/image/size", json::array({-4, 20}), "image.size[0]: value -4 is out of range"},
        {"/image/size", json::array({16384, 16384}), "image.size: 16384 x 16384 pixels are too large"},
        {"/image/camera/viewDirection", json::array({0, 0, 0}),
         "image.camera.viewDirection: view direction is zero"},
        {"/image/camera/up", json::array({0, 0, 2}), "parallel to the view direction"},
        {"/image/camera/viewExtent", -3, "view extent must be positive"},
        {"/scene/0/object", "skull", "scene[0].object: names an unknown object \"skull\""},
        {"/scene/0/tables/WINDOWING", "head", "\"head\" must be a table"},
        {"/scene/0/tables/LUT", "window", "unknown table directory name"},
        {"/scene/0/params/_float_PlaneThickness", "thick", "\"_float_PlaneThickness\" expects a number"},
        {"/requests/0/_bool_IsRGBA", 1, "requests[0]: \"_bool_IsRGBA\" expects true or false"},
        {"/requests/0/targetVolume", "nobody", "not in the scene"},
        {"/scene/1/matrix", json::parse("[[0,0,0,0],[0,1,0,0],[0,0,1,0],[0,0,0,1]]"), "matrix is singular"},
        {"/image/zoom", 2, "unknown field \"zoom\""},
        {"/requests", json::array(), "requests: expects a non-empty array"},
    };
    for (const Case& c : cases) {
        json doc = Valid();
        doc[json::json_pointer(c.pointer)] = c.value;
        const std::string line = ErrorOf(doc);
        EXPECT_EQ(line.rfind("req.json: ", 0), 0u) << line;
        EXPECT_NE(line.find(c.expected), std::string::npos) << c.pointer << " -> " << line;
        EXPECT_EQ(line.find('\n'), std::string::npos) << line;
    }
}

TEST(RequestFileErrors, ObjectMistakesSurfaceWhenTheSceneIsBuilt) {
    const std::vector<std::pair<json, std::string>> cases = {
        {json::parse(R"({"type": "volume", "phantom": "torso"})"), "unknown phantom \"torso\""},
        {json::parse(R"({"type": "volume", "file": "nowhere.nii"})"), "nowhere.nii: no such file"},
        {json::parse(R"({"type": "volume", "raw": "x.raw", "dims": [2, 2, 2]})"), "needs \"voxelType\""},
        {json::parse(R"({"type": "volume", "phantom": "head", "dims": [0, 4, 4]})"), "out of range"},
    };
    for (const auto& [object, expected] : cases) {
        json doc = Valid();
        doc["objects"]["head"] = object;
        try {
            BuildScene(ParseRequestDocument(doc, "req.json", "."));
            ADD_FAILURE() << "no error for " << object.dump();
        } catch (const InputError& e) {
            EXPECT_NE(e.Line().find(expected), std::string::npos) << e.Line();
        }
    }
    for (const char* table :
         {R"({"type": "table", "window": {"centre": 0, "width": 0}})",
          R"({"type": "table", "entries": ["0x1FFFFFFFF"]})", R"({"type": "table", "preset": "lungs"})"}) {
        json doc = Valid();
        doc["objects"]["window"] = json::parse(table);
        EXPECT_THROW(BuildScene(ParseRequestDocument(doc, "req.json", ".")), InputError) << table;
    }
}

TEST(RequestFileErrors, UnreadableFiles) {
    testing::ScratchFolder dir("request-errors");
    EXPECT_THROW(ParseRequestFile(dir / "none.json"), InputError);
    testing::WriteText(dir / "broken.json", "{\"image\": ");
    try {
        ParseRequestFile(dir / "broken.json");
        FAIL();
    } catch (const InputError& e) {
        EXPECT_NE(e.Line().find("not valid JSON"), std::string::npos);
        EXPECT_EQ(e.File(), dir / "broken.json");
    }
}

}  // namespace
}  // namespace zrio
