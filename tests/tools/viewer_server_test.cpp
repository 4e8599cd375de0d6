// The viewer's server through its HTTP interface, as the page meets it
// (cpp-httplib's own client): the page and the scene description, frames that
// are the same pixels as `zrslice render` of the same document, saved requests
// that replay to their pictures, hostile and malformed requests, a stalled
// client, and the render worker's rule that a newer frame of a view replaces
// one still waiting.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <thread>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "io/input_error.h"
#include "io/png_io.h"
#include "tests/io/file_test_support.h"
#include "tests/tools/zrslice_runner.h"
#include "tools/zrslice/view/frame_worker.h"
#include "tools/zrslice/view/viewer_server.h"

namespace zrview {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using zrio::testing::ScratchFolder;

// One viewer of the head phantom for the whole suite (loading takes a moment).
class Viewer : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        saves_ = new ScratchFolder("viewer-saves");
        plugin_ = new zrio::PluginSession(ZR_PLUGIN_PATH);
        ViewSources sources;
        sources.volume = "phantom";
        scene_ = new ViewScene(sources, *plugin_);
        server_ = new ViewerServer(*scene_, saves_->Path());
        port_ = server_->Bind("127.0.0.1", 0);
        thread_ = new std::thread([] { server_->Serve(); });
    }
    static void TearDownTestSuite() {
        server_->Stop();
        thread_->join();
        delete thread_;
        delete server_;
        delete scene_;
        delete plugin_;
        delete saves_;
    }

    static httplib::Client Client() {
        httplib::Client client("127.0.0.1", port_);
        client.set_read_timeout(60, 0);
        return client;
    }

    // An axial slice of the head through the phantom's own objects.
    static json Document(int width, int height) {
        const json served = scene_->Description()["objects"];
        return {{"image",
                 {{"size", {width, height}},
                  {"camera", {{"position", {0, 0, 10}}, {"viewDirection", {0, 0, 1}}, {"up", {0, -1, 0}},
                              {"viewExtent", {240.0, 240.0 * height / width}}}}}},
                {"objects", {{"volume", served["volume"]}, {"window", {{"type", "table"}, {"preset", "softTissue"}}}}},
                {"scene", {{{"object", "volume"}, {"tables", {{"WINDOWING", "window"}}}}}},
                {"requests", {{{"_string_RenderingSourceType", "SECTIONAL_VOLUME"}, {"_bool_IsFirstRenderer", true}}}}};
    }

    static httplib::Result PostFrame(const json& document, const std::string& view = "axial") {
        return Client().Post(("/api/frame?view=" + view).c_str(), document.dump(), "application/json");
    }

    // Refused as a frame and as a save, naming `words`, with nothing written.
    static void ExpectRefused(const json& document, const std::string& words) {
        const auto files = [] { return std::distance(fs::directory_iterator(saves_->Path()), {}); };
        const auto before = files();
        for (const auto& res : {PostFrame(document), Client().Post("/api/save", document.dump(), "application/json")}) {
            ASSERT_TRUE(res);
            const std::string said = res->status == 200 ? std::string("a picture") : res->body;
            EXPECT_EQ(res->status, 400) << said;
            EXPECT_NE(res->body.find(words), std::string::npos) << said;
        }
        EXPECT_EQ(files(), before);
    }

    static inline ScratchFolder* saves_ = nullptr;
    static inline zrio::PluginSession* plugin_ = nullptr;
    static inline ViewScene* scene_ = nullptr;
    static inline ViewerServer* server_ = nullptr;
    static inline std::thread* thread_ = nullptr;
    static inline int port_ = 0;
};

// Runs `zrslice render` on a request document and returns its picture.
zrio::RgbaImage RenderedByZrslice(const json& document, const ScratchFolder& dir, const std::string& name) {
    const std::string request = dir / (name + ".json"), picture = dir / (name + "-out.png");
    zrio::testing::WriteText(request, document.dump());
    const zrio::RunResult run = zrio::Zrslice("-q render " + zrio::Quoted(request) + " -o " + zrio::Quoted(picture), dir);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    return zrio::ReadPngRgba(picture);
}

TEST_F(Viewer, ServesThePageBuiltIntoTheProgram) {
    auto client = Client();
    const auto page = client.Get("/");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_NE(page->get_header_value("Content-Type").find("text/html"), std::string::npos);
    EXPECT_NE(page->body.find("<script src=\"/viewer.js\">"), std::string::npos);
    const auto script = client.Get("/viewer.js");
    ASSERT_TRUE(script);
    EXPECT_EQ(script->status, 200);
    EXPECT_NE(script->body.find("/api/frame"), std::string::npos);
    // Nothing else is served: no files from the disk, whatever the path says.
    for (const char* path : {"/etc/passwd", "/../../../../etc/passwd", "/%2e%2e/%2e%2e/etc/passwd", "/main.cpp"}) {
        const auto res = client.Get(path);
        ASSERT_TRUE(res) << path;
        EXPECT_NE(res->status, 200) << path;
        EXPECT_EQ(res->body.find("root:"), std::string::npos) << path;
    }
}

TEST_F(Viewer, DescribesTheSceneInTheVolumesUnits) {
    const auto res = Client().Get("/api/scene");
    ASSERT_TRUE(res);
    ASSERT_EQ(res->status, 200);
    const json scene = json::parse(res->body);
    EXPECT_EQ(scene["objects"]["volume"], json({{"type", "volume"}, {"phantom", "head"}}));
    EXPECT_TRUE(scene["labels"].get<bool>());  // the phantom comes with its labels
    // The head is CT-like: stored as HU + 1024, and offered the HU presets.
    EXPECT_EQ(scene["volume"]["values"]["offset"], 1024);
    EXPECT_EQ(scene["volume"]["values"]["units"], "HU");
    bool softTissue = false;
    for (const json& p : scene["presets"])
        if (p["name"] == "softTissue") softTissue = p["centre"] == 40.0 && p["width"] == 400.0;
    EXPECT_TRUE(softTissue) << scene["presets"].dump();
}

TEST_F(Viewer, FramesAreThePixelsOfTheSameRequestFile) {
    ScratchFolder dir("viewer-frames");
    for (const json& document :
         {Document(96, 64), [] {
              json slab = Document(80, 80);
              slab["requests"][0]["_int_VolumeRayCastType"] = 10;
              slab["requests"][0]["_float_PlaneThickness"] = 30.0;
              return slab;
          }()}) {
        const auto res = PostFrame(document);
        ASSERT_TRUE(res);
        ASSERT_EQ(res->status, 200) << res->body;
        const int width = std::stoi(res->get_header_value("X-Frame-Width"));
        const int height = std::stoi(res->get_header_value("X-Frame-Height"));
        EXPECT_EQ(width, document["image"]["size"][0].get<int>());
        EXPECT_EQ(height, document["image"]["size"][1].get<int>());
        EXPECT_GT(std::stod(res->get_header_value("X-Render-Ms")), 0.0);
        ASSERT_EQ(res->body.size(), static_cast<size_t>(width) * height * 4);
        const zrio::RgbaImage expected = RenderedByZrslice(document, dir, "frame");
        ASSERT_EQ(expected.width, width);
        ASSERT_EQ(expected.height, height);
        EXPECT_TRUE(std::equal(expected.pixels.begin(), expected.pixels.end(),
                               reinterpret_cast<const uint8_t*>(res->body.data())))
            << "the frame's bytes differ from zrslice render of the same document";
        // And the head is in it: not one colour.
        const std::string& px = res->body;
        bool varied = false;
        for (size_t k = 4; k < px.size() && !varied; k += 4) varied = px.compare(k, 4, px, 0, 4) != 0;
        EXPECT_TRUE(varied);
    }
}

TEST_F(Viewer, SavedRequestsReplayToTheirPictures) {
    ScratchFolder dir("viewer-replay");
    json document = Document(64, 64);
    document["requests"][0]["_int_VolumeRayCastType"] = 11;
    document["requests"][0]["_float_PlaneThickness"] = 12.0;
    std::vector<std::string> requests;
    for (int k = 0; k < 2; ++k) {
        const auto res = Client().Post("/api/save", document.dump(), "application/json");
        ASSERT_TRUE(res);
        ASSERT_EQ(res->status, 200) << res->body;
        const json answer = json::parse(res->body);
        const fs::path request = answer["request"].get<std::string>(), picture = answer["picture"].get<std::string>();
        // Names chosen by the server, in the save folder, never overwritten.
        EXPECT_EQ(request.parent_path(), saves_->Path());
        EXPECT_EQ(picture.parent_path(), saves_->Path());
        requests.push_back(request.filename().string());
        const json saved = json::parse(std::ifstream(request));
        EXPECT_EQ(saved, document);
        const zrio::RgbaImage replayed = RenderedByZrslice(saved, dir, "replay");
        const zrio::RgbaImage written = zrio::ReadPngRgba(picture.string());
        EXPECT_EQ(replayed.pixels, written.pixels);
    }
    EXPECT_EQ(requests, (std::vector<std::string>{"view-001.json", "view-002.json"}));
}

TEST_F(Viewer, RefusesWhatARequestFileWouldRefuse) {
    json misspelt = Document(32, 32);
    misspelt["requests"][0]["_float_PlaneThicknes"] = 4.0;
    ExpectRefused(misspelt, "did you mean \"_float_PlaneThickness\"");
    json mistyped = Document(32, 32);
    mistyped["requests"][0]["_int_VolumeRayCastType"] = "10";
    ExpectRefused(mistyped, "_int_VolumeRayCastType");
    json noImage = Document(32, 32);
    noImage.erase("image");
    ExpectRefused(noImage, "image");
    json unknownField = Document(32, 32);
    unknownField["imag"] = json::object();
    ExpectRefused(unknownField, "imag");
}

TEST_F(Viewer, RefusesFilesAndSizesThePageMayNotAskFor) {
    json huge = Document(32, 32);
    huge["image"]["size"] = {4096, 4096};
    ExpectRefused(huge, "at most 2048");
    json otherFile = Document(32, 32);
    otherFile["objects"]["secret"] = {{"type", "volume"}, {"file", "/etc/passwd"}};
    otherFile["scene"].push_back({{"object", "secret"}});
    ExpectRefused(otherFile, "objects.secret: the viewer shows only");
    json changed = Document(32, 32);
    changed["objects"]["volume"] = {{"type", "volume"}, {"file", "/etc/shadow"}};
    ExpectRefused(changed, "objects.volume: is served as given");
    json mesh = Document(32, 32);
    mesh["objects"]["ball"] = {{"type", "mesh"}, {"file", "/tmp/any.stl"}};
    ExpectRefused(mesh, "objects.ball: the viewer shows only");
    json tableFile = Document(32, 32);
    tableFile["objects"]["window"] = {{"type", "table"}, {"entriesFile", "/etc/passwd"}};
    ExpectRefused(tableFile, "objects.window: a table read from a file");
    json rowFile = Document(32, 32);
    rowFile["objects"]["window"] = {{"type", "table"}, {"rows", {{{"entriesFile", "/etc/passwd"}}}}};
    ExpectRefused(rowFile, "objects.window: a table read from a file");
    json thick = Document(32, 32);
    thick["requests"][0]["_int_VolumeRayCastType"] = 12;
    thick["requests"][0]["_float_PlaneThickness"] = 9000.0;
    ExpectRefused(thick, "_float_PlaneThickness");
}

TEST_F(Viewer, AnswersMalformedRequestsWithoutDrawing) {
    auto client = Client();
    for (const std::string body : {"{", "[1, 2]", "\"text\"", ""}) {
        const auto res = client.Post("/api/frame?view=axial", body, "application/json");
        ASSERT_TRUE(res) << body;
        EXPECT_EQ(res->status, 400) << body << ": " << res->body;
    }
    const auto badView = client.Post("/api/frame?view=../x", Document(8, 8).dump(), "application/json");
    ASSERT_TRUE(badView);
    EXPECT_EQ(badView->status, 400);
    const auto noView = client.Post("/api/frame", Document(8, 8).dump(), "application/json");
    ASSERT_TRUE(noView);
    EXPECT_EQ(noView->status, 400);
    // A body beyond the bound is refused before it is read.
    const std::string big(kMaxDocumentBytes + 1, ' ');
    const auto tooBig = client.Post("/api/frame?view=axial", big, "application/json");
    ASSERT_TRUE(tooBig);
    EXPECT_EQ(tooBig->status, 413);
    for (const char* path : {"/api/probe?x=1&y=2", "/api/probe?x=a&y=0&z=0", "/api/probe?x=nan&y=0&z=0"}) {
        const auto res = client.Get(path);
        ASSERT_TRUE(res) << path;
        EXPECT_EQ(res->status, 400) << path;
    }
}

TEST_F(Viewer, ProbeFindsTheVoxelAndItsValue) {
    const json scene = scene_->Description();
    const json& m = scene["volume"]["voxelToWorld"];  // column-major
    auto world = [&](double i, double j, double k) {
        std::vector<double> p(3);
        for (int r = 0; r < 3; ++r)
            p[r] = m[r].get<double>() * i + m[4 + r].get<double>() * j + m[8 + r].get<double>() * k +
                   m[12 + r].get<double>();
        return p;
    };
    auto probe = [&](const std::vector<double>& p) {
        const std::string path = "/api/probe?x=" + std::to_string(p[0]) + "&y=" + std::to_string(p[1]) +
                                 "&z=" + std::to_string(p[2]);
        const auto res = Client().Get(path.c_str());
        EXPECT_TRUE(res && res->status == 200);
        return json::parse(res->body);
    };
    // The corner voxel is air: -1000 HU.
    const json corner = probe(world(0.2, -0.3, 0.4));
    EXPECT_TRUE(corner["inside"].get<bool>());
    EXPECT_EQ(corner["voxel"], json({0, 0, 0}));
    EXPECT_EQ(corner["value"], -1000.0);
    const json dims = scene["volume"]["dims"];
    const json last = probe(world(dims[0].get<double>() - 1, dims[1].get<double>() - 1.4, dims[2].get<double>() - 1));
    EXPECT_EQ(last["voxel"], json({dims[0].get<int>() - 1, dims[1].get<int>() - 1, dims[2].get<int>() - 1}));
    EXPECT_FALSE(probe(world(-0.6, 0, 0))["inside"].get<bool>());
    EXPECT_FALSE(probe(world(0, 0, dims[2].get<double>() - 0.4))["inside"].get<bool>());
}

TEST_F(Viewer, PicksTheWinningSampleOfAMaximumSlab) {
    json slab = Document(64, 64);
    slab["requests"][0]["_int_VolumeRayCastType"] = 10;
    slab["requests"][0]["_float_PlaneThickness"] = 30.0;
    const auto res = Client().Post("/api/pick?x=32&y=20", slab.dump(), "application/json");
    ASSERT_TRUE(res);
    ASSERT_EQ(res->status, 200) << res->body;
    const json pick = json::parse(res->body);
    ASSERT_TRUE(pick["found"].get<bool>()) << res->body;
    // Layers one finest voxel pitch (1.6 mm) apart: round(30 / 1.6) = 19 of
    // them, centred on the plane z = 10, so the sample lies within the slab.
    EXPECT_EQ(pick["layerCount"], 19);
    const double z = pick["world"][2].get<double>();
    EXPECT_LE(std::abs(z - 10.0), 15.0) << res->body;
    // A thin slice has no winning sample; the pick says so.
    const auto thin = Client().Post("/api/pick?x=32&y=20", Document(64, 64).dump(), "application/json");
    ASSERT_TRUE(thin);
    EXPECT_EQ(thin->status, 400) << thin->body;
    const auto noPixel = Client().Post("/api/pick?x=32", slab.dump(), "application/json");
    ASSERT_TRUE(noPixel);
    EXPECT_EQ(noPixel->status, 400);
}

TEST_F(Viewer, AStalledClientHoldsNoRenderSlot) {
    // A client that sends half a request and then nothing.
    const int stalled = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(stalled, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port_));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(stalled, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const std::string head = "POST /api/frame?view=axial HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n{\"ima";
    ASSERT_EQ(write(stalled, head.data(), head.size()), static_cast<ssize_t>(head.size()));
    // Frames of the same view and others are drawn meanwhile, and quickly.
    const auto start = std::chrono::steady_clock::now();
    for (const char* view : {"axial", "coronal"}) {
        const auto res = PostFrame(Document(32, 32), view);
        ASSERT_TRUE(res);
        EXPECT_EQ(res->status, 200) << res->body;
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    close(stalled);
}

TEST_F(Viewer, ASecondViewerOnTheSamePortIsRefused) {
    ViewerServer second(*scene_, saves_->Path());
    EXPECT_THROW(second.Bind("127.0.0.1", port_), zrio::InputError);
}

// Ctrl-C can come at any moment, even before the server listens: a stop
// before Serve makes Serve return at once, and a stop while Serve is starting
// still ends it (the library's own stop reaches only a listening server).
TEST_F(Viewer, AStopAtAnyMomentEndsServing) {
    const auto endsWithin = [](std::future<void>& served) {
        return served.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    };
    {
        ViewerServer early(*scene_, saves_->Path());
        early.Bind("127.0.0.1", 0);
        early.Stop();
        std::future<void> served = std::async(std::launch::async, [&] { early.Serve(); });
        if (!endsWithin(served)) {
            ADD_FAILURE() << "a stop before serving did not end it";
            std::_Exit(1);  // the serving thread cannot be joined
        }
    }
    for (int round = 0; round < 20; ++round) {
        ViewerServer racing(*scene_, saves_->Path());
        racing.Bind("127.0.0.1", 0);
        std::future<void> served = std::async(std::launch::async, [&] { racing.Serve(); });
        racing.Stop();
        if (!endsWithin(served)) {
            ADD_FAILURE() << "a stop while serving started did not end it (round " << round << ")";
            std::_Exit(1);
        }
    }
}

TEST(FrameWorker, ANewerFrameOfAViewReplacesTheOneWaiting) {
    FrameWorker worker;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> busy{false};
    // The worker is busy with another view's frame ...
    auto blocker = std::async(std::launch::async, [&] {
        return worker.Run("other", [&] {
            busy = true;
            released.wait();
        });
    });
    while (!busy) std::this_thread::yield();
    // ... while two frames of one view arrive, the older first.
    std::atomic<int> drawn{0};
    auto older = std::async(std::launch::async, [&] { return worker.Run("axial", [&] { drawn += 1; }); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    auto newer = std::async(std::launch::async, [&] { return worker.Run("axial", [&] { drawn += 10; }); });
    // The older one is answered at once, without being drawn.
    const bool answeredAtOnce = older.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    release.set_value();
    EXPECT_TRUE(answeredAtOnce);
    EXPECT_FALSE(older.get());
    EXPECT_TRUE(blocker.get());
    EXPECT_TRUE(newer.get());
    EXPECT_EQ(drawn, 10);
    // Different views never replace each other.
    auto a = std::async(std::launch::async, [&] { return worker.Run("a", [] {}); });
    auto b = std::async(std::launch::async, [&] { return worker.Run("b", [] {}); });
    EXPECT_TRUE(a.get());
    EXPECT_TRUE(b.get());
}

}  // namespace
}  // namespace zrview
