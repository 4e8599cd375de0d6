// What the viewer shows: the volume, label volume and meshes named on the
// command line, loaded once and kept loaded, and the checks that every frame
// document from the page passes before it reaches the plug-in.
//
// A frame is a whole request document, as a request file would hold it. The
// page may describe tables, the image, the scene list and the requests as it
// likes (every key through the same checked list as a request file), but
// volumes and meshes only as this scene serves them: the page can never name a
// file.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <glm/glm.hpp>
#include <nlohmann/json.hpp>

#include "io/render_run.h"
#include "io/request_file.h"
#include "io/slab_pick.h"

namespace zrview {

// What the command line named.
struct ViewSources {
    std::string volume;              // file, DICOM folder, or "phantom"
    std::string series;              // DICOM series choice (may be empty)
    std::string labels;              // label volume file (may be empty)
    std::vector<std::string> meshes;  // mesh files
};

// Bounds on what one frame may ask for.
inline constexpr int kMaxImageSide = 2048;
inline constexpr size_t kMaxDocumentBytes = 4u << 20;

struct Frame {
    zrio::RenderOutput output;
    double milliseconds = 0.0;  // building the scene and running the requests
};

// What the pointer is over: the voxel nearest to a world point.
struct Probe {
    bool inside = false;
    glm::ivec3 voxel{0};
    double value = 0.0;  // in the volume's own units
};

class ViewScene {
public:
    // Loads every named file (InputError naming the file when one fails).
    ViewScene(const ViewSources& sources, zrio::PluginSession& plugin);

    // What the page needs to know, as JSON: the served objects (to copy into
    // its documents), the volume's grid, placement and values, the presets,
    // the meshes and the bounds.
    const nlohmann::json& Description() const { return description_; }

    // Checks a frame document from the page: the request-file rules, plus the
    // viewer's own (served volumes and meshes only, no table read from a file,
    // bounded image size and slab thickness). Throws zrio::InputError naming
    // "request" and what is wrong.
    zrio::RequestFile Check(const nlohmann::json& document) const;

    // Renders a checked document on the kept objects. Not thread-safe: one
    // caller at a time (the frame worker).
    Frame Render(const zrio::RequestFile& file);

    // The voxel nearest to an LPS point (reads the loaded volume only: safe
    // beside Render).
    Probe At(const glm::dvec3& world) const;

    // The winning sample under `pixel` of the first request of a checked
    // maximum or minimum slab document (zrio::PickSlabSample); none outside
    // the volume. Throws InputError saying why the request has no winning
    // sample. Not thread-safe: the frame worker's, like Render.
    std::optional<zrio::SlabPick> Pick(const zrio::RequestFile& file, const glm::dvec2& pixel);

private:
    nlohmann::json objects_;  // name -> description, as served
    nlohmann::json description_;
    zrio::PluginSession& plugin_;
    zrio::LoadedObjects kept_;
    std::optional<zrio::LoadedVolume> volume_;
    double maxThickness_ = 0.0;
};

}  // namespace zrview
