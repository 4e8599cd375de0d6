// Runs a request file through the plug-in: builds the scene, hands each request
// to DoModule in order on the one image (the renderer chain), and collects what
// came out: render-out 0 as RGBA, the 16-bit value buffer when there is one, and
// the lists the module returned. Writing is separate and all-or-nothing.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/plugin_loader.h"
#include "png_io.h"
#include "request_file.h"

namespace zrio {

// The plug-in, initialised on construction and de-initialised on destruction,
// as a host holds it.
class PluginSession {
public:
    explicit PluginSession(const std::string& path);
    ~PluginSession();
    PluginSession(const PluginSession&) = delete;
    PluginSession& operator=(const PluginSession&) = delete;

    zrobjects::PluginModule& Module() { return module_; }

private:
    zrobjects::PluginModule module_;
};

// Default plug-in path: beside the running program.
std::string DefaultPluginPath();

struct RenderOutput {
    RgbaImage picture;                 // render-out 0, always R, G, B, A
    std::optional<GreyImage16> values;  // usage-3 buffer 0 when it holds 16-bit values
    nlohmann::json lists;              // requests' results and returned lists
    // Why the picture may not be what the user wanted: scene and request
    // warnings, an empty picture. Empty for a clean run.
    std::vector<std::string> warnings;
};

// Called before each request: index, count, source type.
using ProgressFn = std::function<void(size_t, size_t, const std::string&)>;

// Throws InputError (naming the request file) when the module refuses a
// request (DoModule false) or a parameter's type (std::bad_any_cast).
RenderOutput RunRequestFile(const RequestFile& file, PluginSession& plugin, const ProgressFn& progress = {});

// The same on a scene already built from `file` (BuildScene), so that a program
// holding its volumes loaded renders frame after frame without reading them.
RenderOutput RunRequests(const RequestFile& file, Scene& scene, PluginSession& plugin, const ProgressFn& progress = {});

// Where the outputs of `out` go: `out` itself (".png" added when missing), the
// values beside it as <stem>.values.png, the lists as <stem>.json.
struct OutputPaths {
    std::string picture, values, lists;
};
OutputPaths OutputPathsFor(const std::string& out);

// Writes every output to a temporary name and renames them only when all were
// written, so a failure never leaves a partial file. Creates the folder.
void WriteRenderOutput(const RenderOutput& output, const OutputPaths& paths);

// Writes `text` to `path` the same all-or-nothing way.
void WriteTextFile(const std::string& path, const std::string& text);

}  // namespace zrio
