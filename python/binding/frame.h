// One render of a request document through the plug-in, kept with its scene
// so that a pixel can be traced back into the volume afterwards.
#pragma once

#include <map>
#include <memory>
#include <string>

#include <glm/glm.hpp>
#include <nlohmann/json.hpp>

#include "held_objects.h"
#include "io/render_run.h"
#include "io/request_file.h"

namespace zrpython {

struct Frame {
    zrio::RequestFile file;
    zrio::Scene scene;
    zrio::RenderOutput output;
    // Screen (pixel x, pixel y, millimetres along the view, 1) to LPS world.
    glm::dmat4 pixelToWorld{1.0};
    std::map<std::string, std::shared_ptr<HeldObject>> held;  // kept alive with the scene
};

// Parses `document` (named `name` in messages, relative names taken from
// `baseDirectory`) exactly as `zrslice render` parses a request file, builds
// its scene with the `held` objects standing for the objects of the same
// names, and runs its requests. Throws zrio::InputError with the text the
// command-line host prints. Called without Python's lock: the plug-in takes
// requests one at a time, so runs wait for each other there, while scene
// building (file reading, mesh hierarchies) runs side by side.
std::unique_ptr<Frame> RenderDocument(const nlohmann::json& document, const std::string& name,
                                      const std::string& baseDirectory,
                                      std::map<std::string, std::shared_ptr<HeldObject>> held,
                                      zrio::PluginSession& plugin);

}  // namespace zrpython
