#include "viewer_server.h"

#include <httplib.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <atomic>
#include <cmath>
#include <functional>
#include <optional>
#include <thread>

#include "io/input_error.h"
#include "page_assets.h"

namespace zrview {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// Enough for every view's frame, a save and a probe at once, with room for the
// browser's spare connections.
constexpr size_t kHandlerThreads = 16;
constexpr time_t kTimeoutSeconds = 5;

void Answer(httplib::Response& res, int status, const std::string& text) {
    res.status = status;
    res.set_content(text + "\n", "text/plain; charset=utf-8");
}

void AnswerJson(httplib::Response& res, const json& value) {
    res.status = 200;
    res.set_content(value.dump(), "application/json");
}

// The body as a JSON document, or nullopt with the answer already given.
std::optional<json> DocumentOf(const httplib::Request& req, httplib::Response& res) {
    try {
        return json::parse(req.body);
    } catch (const json::exception& e) {
        Answer(res, 400, std::string("request: the body is not JSON: ") + e.what());
        return std::nullopt;
    }
}

// The document checked as the viewer serves it, or nullopt with the answer
// saying why already given.
std::optional<zrio::RequestFile> Checked(ViewScene& scene, const json& document, httplib::Response& res) {
    try {
        return scene.Check(document);
    } catch (const zrio::InputError& e) {
        Answer(res, 400, e.Line());
        return std::nullopt;
    }
}

// `work` for the render thread, its failure kept in `failure` as the line a
// user reads ("<what>: ..." when the error names no file or field).
template <class Work>
std::function<void()> Guarded(const char* what, std::string& failure, Work work) {
    return [what, &failure, work] {
        try {
            work();
        } catch (const zrio::InputError& e) {
            failure = e.Line();
        } catch (const std::exception& e) {
            failure = std::string(what) + ": " + e.what();
        }
    };
}

std::optional<double> Coordinate(const httplib::Request& req, const char* name) {
    if (!req.has_param(name)) return std::nullopt;
    const std::string text = req.get_param_value(name);
    try {
        size_t used = 0;
        const double value = std::stod(text, &used);
        if (used != text.size() || !std::isfinite(value)) return std::nullopt;
        return value;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// The first free "view-NNN" in `folder`, checked for both files.
std::string FreeStem(const fs::path& folder) {
    for (int n = 1;; ++n) {
        char stem[32];
        std::snprintf(stem, sizeof(stem), "view-%03d", n);
        if (!fs::exists(folder / (std::string(stem) + ".json")) && !fs::exists(folder / (std::string(stem) + ".png")))
            return stem;
    }
}

}  // namespace

ViewerServer::ViewerServer(ViewScene& scene, fs::path saveFolder)
    : scene_(scene), saveFolder_(std::move(saveFolder)), http_(std::make_unique<httplib::Server>()) {
    http_->new_task_queue = [] { return new httplib::ThreadPool(kHandlerThreads); };
    http_->set_payload_max_length(kMaxDocumentBytes);
    http_->set_read_timeout(kTimeoutSeconds, 0);
    http_->set_write_timeout(kTimeoutSeconds, 0);
    // Reuse an address left in TIME_WAIT (a viewer started again at once), but
    // never share a port with a listener that is still there, as the library's
    // default SO_REUSEPORT would: a second viewer on the same port is refused.
    http_->set_socket_options([](int socket) {
        int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    });
    Route();
}

ViewerServer::~ViewerServer() = default;

int ViewerServer::Bind(const std::string& host, int port) {
    const int bound = port == 0 ? http_->bind_to_any_port(host) : (http_->bind_to_port(host, port) ? port : -1);
    if (bound <= 0)
        throw zrio::InputError(host + ":" + std::to_string(port),
                               "cannot listen there (in use, or not an address of this machine); try another --port");
    return bound;
}

void ViewerServer::Serve() {
    serving_ = true;
    if (!stopRequested_) http_->listen_after_bind();
    serving_ = false;
}

// The library's stop reaches only a server that is already listening; a stop
// that comes while Serve is on its way there waits for it, and one that comes
// before Serve makes Serve return at once. (Each side writes its flag before it
// reads the other's, so at least one of them sees the other.)
void ViewerServer::Stop() {
    stopRequested_ = true;
    while (serving_ && !http_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    http_->stop();
}

void ViewerServer::Route() {
    http_->Get(R"(/[a-z.]*)", [](const httplib::Request& req, httplib::Response& res) {
        const PageAsset* asset = FindPageAsset(req.path);
        if (!asset) return Answer(res, 404, req.path + ": not part of the viewer");
        res.set_content(reinterpret_cast<const char*>(asset->bytes), asset->size, asset->contentType);
        res.set_header("Cache-Control", "no-store");
    });

    http_->Get("/api/scene", [this](const httplib::Request&, httplib::Response& res) {
        AnswerJson(res, scene_.Description());
    });

    http_->Get("/api/probe", [this](const httplib::Request& req, httplib::Response& res) {
        const auto x = Coordinate(req, "x"), y = Coordinate(req, "y"), z = Coordinate(req, "z");
        if (!x || !y || !z) return Answer(res, 400, "probe: give the LPS point as numbers x, y and z");
        const Probe probe = scene_.At({*x, *y, *z});
        json answer = {{"inside", probe.inside}};
        if (probe.inside)
            answer.update({{"voxel", {probe.voxel.x, probe.voxel.y, probe.voxel.z}}, {"value", probe.value}});
        AnswerJson(res, answer);
    });

    http_->Post("/api/frame", [this](const httplib::Request& req, httplib::Response& res) {
        const std::string view = req.get_param_value("view");
        const bool named = !view.empty() && view.size() <= 16 &&
                           std::all_of(view.begin(), view.end(), [](char c) {
                               return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
                           });
        if (!named)
            return Answer(res, 400, "frame: name the view as ?view= with 1 to 16 letters, digits or '-'");
        const std::optional<json> document = DocumentOf(req, res);
        const std::optional<zrio::RequestFile> file = document ? Checked(scene_, *document, res) : std::nullopt;
        if (!file) return;
        Frame frame;
        std::string failure;
        const bool drawn = worker_.Run(view, Guarded("request", failure, [&] { frame = scene_.Render(*file); }));
        if (!drawn) return Answer(res, 409, "frame: a newer frame of view " + view + " took this one's place");
        if (!failure.empty()) return Answer(res, 400, failure);
        const zrio::RgbaImage& picture = frame.output.picture;
        res.set_header("X-Frame-Width", std::to_string(picture.width));
        res.set_header("X-Frame-Height", std::to_string(picture.height));
        char ms[32];
        std::snprintf(ms, sizeof(ms), "%.3f", frame.milliseconds);
        res.set_header("X-Render-Ms", ms);
        res.set_header("X-Frame-Warnings", json(frame.output.warnings).dump(-1, ' ', true));
        res.set_content(reinterpret_cast<const char*>(picture.pixels.data()), picture.pixels.size(),
                        "application/octet-stream");
    });

    http_->Post("/api/pick", [this](const httplib::Request& req, httplib::Response& res) {
        const auto x = Coordinate(req, "x"), y = Coordinate(req, "y");
        if (!x || !y) return Answer(res, 400, "pick: give the pixel as numbers x and y");
        const std::optional<json> document = DocumentOf(req, res);
        const std::optional<zrio::RequestFile> file = document ? Checked(scene_, *document, res) : std::nullopt;
        if (!file) return;
        std::optional<zrio::SlabPick> pick;
        std::string failure;
        const bool done =
            worker_.Run("pick", Guarded("pick", failure, [&] { pick = scene_.Pick(*file, {*x, *y}); }));
        if (!done) return Answer(res, 409, "pick: a newer pick took this one's place");
        if (!failure.empty()) return Answer(res, 400, failure);
        json answer = {{"found", pick.has_value()}};
        if (pick)
            answer.update({{"world", {pick->world.x, pick->world.y, pick->world.z}},
                           {"voxel", {pick->voxel.x, pick->voxel.y, pick->voxel.z}},
                           {"layer", pick->layer},
                           {"layerCount", pick->layerCount},
                           {"value", pick->value}});
        AnswerJson(res, answer);
    });

    http_->Post("/api/save", [this](const httplib::Request& req, httplib::Response& res) {
        const std::optional<json> document = DocumentOf(req, res);
        const std::optional<zrio::RequestFile> file = document ? Checked(scene_, *document, res) : std::nullopt;
        if (!file) return;
        // Saves run on the render thread too: the picture is the module's, and
        // the names are chosen there one save at a time.
        json answer;
        std::string failure;
        static std::atomic<unsigned> saves{0};
        const bool done = worker_.Run("save-" + std::to_string(saves++), Guarded("save", failure, [&] {
                const Frame frame = scene_.Render(*file);
                std::error_code ec;
                fs::create_directories(saveFolder_, ec);
                const std::string stem = FreeStem(saveFolder_);
                const fs::path request = saveFolder_ / (stem + ".json"), picture = saveFolder_ / (stem + ".png");
                zrio::WriteTextFile(request.string(), document->dump(2) + "\n");
                try {
                    zrio::WriteRenderOutput(frame.output, {picture.string(), "", ""});
                } catch (...) {
                    fs::remove(request, ec);  // both files or neither
                    throw;
                }
                answer = {{"request", request.string()}, {"picture", picture.string()},
                          {"replay", "zrslice render " + request.string() + " -o OUT.png"}};
        }));
        if (!done) return Answer(res, 503, "save: the viewer is stopping");
        if (!failure.empty()) return Answer(res, 400, failure);
        AnswerJson(res, answer);
    });
}

}  // namespace zrview
