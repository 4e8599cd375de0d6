// `zrslice view`: loads the files once, serves the viewer on a local address
// and renders every frame the page asks for until interrupted.
#pragma once

#include <string>

#include "io/render_run.h"
#include "view_scene.h"

namespace zrview {

struct ViewOptions {
    ViewSources sources;
    std::string host = "127.0.0.1";
    int port = 8765;
    std::string saveFolder = ".";
    bool quiet = false;
};

// Blocks until SIGINT or SIGTERM; returns the exit code. Throws InputError
// when a file cannot be loaded or the address cannot be had.
int RunViewer(const ViewOptions& options, zrio::PluginSession& plugin);

}  // namespace zrview
