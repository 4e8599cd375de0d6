// The viewer's HTTP side (cpp-httplib): serves the page built into the
// program, describes the scene, and turns each frame document the page posts
// into pixels through the frame worker. Binds to one address and port; a
// request body is at most kMaxDocumentBytes, and clients that stall are cut
// off by read and write timeouts.
//
//   GET  /                       the page (and /viewer.js, /viewer.css)
//   GET  /api/scene              ViewScene::Description()
//   POST /api/frame?view=NAME    body: a request document; answer: the picture
//                                as raw RGBA rows, its size in X-Frame-Width and
//                                X-Frame-Height, the render time in
//                                X-Render-Ms, warnings in X-Frame-Warnings (JSON);
//                                409 when a newer frame of the same view took
//                                its place, 400 naming what is wrong
//   GET  /api/probe?x=&y=&z=     the voxel nearest to an LPS point: index, value
//   POST /api/pick?x=&y=         body: a maximum or minimum slab document;
//                                answer: the winning sample under pixel (x, y):
//                                LPS point, voxel position, layer, value
//   POST /api/save               body: a request document; writes it and its
//                                picture to the save folder under names the
//                                server chooses; answers with those names
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>

#include "frame_worker.h"
#include "view_scene.h"

namespace httplib {
class Server;
}

namespace zrview {

class ViewerServer {
public:
    ViewerServer(ViewScene& scene, std::filesystem::path saveFolder);
    ~ViewerServer();
    ViewerServer(const ViewerServer&) = delete;
    ViewerServer& operator=(const ViewerServer&) = delete;

    // Binds to `host`:`port` (0: any free port) and returns the port. Throws
    // zrio::InputError when the address cannot be had.
    int Bind(const std::string& host, int port);
    // Answers requests until Stop (from any thread, before or while serving).
    void Serve();
    void Stop();

private:
    void Route();

    ViewScene& scene_;
    std::filesystem::path saveFolder_;
    FrameWorker worker_;  // outlives the server's handler threads
    std::unique_ptr<httplib::Server> http_;
    std::atomic<bool> serving_{false};
    std::atomic<bool> stopRequested_{false};
};

}  // namespace zrview
