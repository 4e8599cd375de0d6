#include "view_scene.h"

#include <chrono>
#include <cmath>
#include <filesystem>

#include "io/input_error.h"
#include "io/scene_objects.h"
#include "io/volume_probe.h"

namespace zrview {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// Every frame document is parsed with this base; the served files are
// absolute, so it only has to stay the same for the loaded objects to be kept.
const fs::path kBase = ".";
const char* const kWhere = "request";

[[noreturn]] void Refuse(const std::string& what) { throw zrio::InputError(kWhere, what); }

std::string Absolute(const std::string& path) {
    std::error_code ec;
    const fs::path absolute = fs::absolute(path, ec);
    if (ec || !fs::exists(absolute)) throw zrio::InputError(path, "no such file or folder");
    return absolute.lexically_normal().string();
}

// Colours of the meshes, in command-line order (then again).
const double kMeshColours[][3] = {{1.0, 0.85, 0.1}, {0.2, 0.9, 1.0}, {1.0, 0.35, 0.8}, {0.5, 1.0, 0.3}};

// True when a table description names a file anywhere inside it.
bool NamesFile(const json& value) {
    if (value.is_object()) {
        for (const auto& [key, inner] : value.items())
            if (key == "entriesFile" || NamesFile(inner)) return true;
    } else if (value.is_array()) {
        for (const json& inner : value)
            if (NamesFile(inner)) return true;
    }
    return false;
}


}  // namespace

ViewScene::ViewScene(const ViewSources& sources, zrio::PluginSession& plugin) : plugin_(plugin) {
    const bool phantom = sources.volume == "phantom";
    json volume = {{"type", "volume"}};
    if (phantom) {
        volume["phantom"] = "head";
    } else {
        volume["file"] = Absolute(sources.volume);
        if (!sources.series.empty()) volume["series"] = sources.series;
    }
    objects_["volume"] = volume;
    // Labels are handed to the module as bytes (a mask is read as bytes); asking
    // for them so once keeps every frame from converting them again.
    if (!sources.labels.empty())
        objects_["labels"] = {{"type", "volume"}, {"file", Absolute(sources.labels)}, {"voxelType", "uint8"}};
    else if (phantom)
        objects_["labels"] = {{"type", "volume"}, {"phantom", "labels"}};
    json meshes = json::array();
    for (size_t k = 0; k < sources.meshes.size(); ++k) {
        const std::string name = "mesh" + std::to_string(k + 1);
        objects_[name] = {{"type", "mesh"}, {"file", Absolute(sources.meshes[k])}};
        const double* c = kMeshColours[k % std::size(kMeshColours)];
        meshes.push_back({{"name", name}, {"file", fs::path(sources.meshes[k]).filename().string()},
                          {"colour", {c[0], c[1], c[2]}}});
    }

    // Load everything once through the scene builder, so that the frames find
    // it kept. The labels are checked as a mask of the volume here, when given.
    json scene = json::array();
    json objects = objects_;
    objects["grey"] = {{"type", "table"}, {"window", {{"centre", 0}, {"width", 1}}}};
    json entry = {{"object", "volume"}, {"tables", {{"WINDOWING", "grey"}}}};
    if (objects_.contains("labels")) entry["tables"]["MASKVOLUME"] = "labels";
    scene.push_back(entry);
    for (const json& m : meshes) scene.push_back({{"object", m["name"]}});
    const json camera = {{"position", {0, 0, 0}}, {"viewDirection", {0, 0, 1}}, {"up", {0, -1, 0}}, {"viewExtent", 1}};
    const json load = {{"image", {{"size", {1, 1}}, {"camera", camera}}},
                       {"objects", objects},
                       {"scene", scene},
                       {"requests", {{{"_bool_IsFirstRenderer", true}}}}};  // checked, never run
    std::string where = sources.volume;
    try {
        const zrio::RequestFile file = zrio::ParseRequestDocument(load, sources.volume, kBase);
        zrio::Scene built = zrio::BuildScene(file, &kept_);
        volume_ = built.volumes.at("volume");
    } catch (const zrio::InputError&) {
        throw;
    } catch (const std::exception& e) {
        // The builders name the object ("objects.labels: ..."); say which file.
        const std::string text = e.what();
        if (text.rfind("objects.labels", 0) == 0 || text.find("MASKVOLUME") != std::string::npos)
            where = sources.labels.empty() ? "labels phantom" : sources.labels;
        throw zrio::InputError(where, text);
    }

    const zrobjects::VolumeData& data = *volume_->volume->GetVolumeData();
    const glm::dmat4 toWorld(volume_->volume->GetMatrixOS2RSf());
    json matrix = json::array();
    for (int c = 0; c < 4; ++c)
        for (int r = 0; r < 4; ++r) matrix.push_back(toWorld[c][r]);
    // The thickest useful slab: the longest diagonal of the volume's box.
    const glm::dvec3 d(data.dims);
    for (const glm::dvec3& diagonal : {glm::dvec3(d.x, d.y, d.z), glm::dvec3(-d.x, d.y, d.z),
                                       glm::dvec3(d.x, -d.y, d.z), glm::dvec3(d.x, d.y, -d.z)})
        maxThickness_ = std::max(maxThickness_, glm::length(glm::dmat3(toWorld) * diagonal));
    const zrio::VolumeValues& v = volume_->values;
    // The 1st and 99th percentiles: the page's first window when neither the
    // file nor a preset gives one (one pass over the voxels, once).
    const glm::dvec2 percentiles = zrio::MeasurePercentiles(*volume_->volume, v.offset);
    json values = {{"offset", v.offset}, {"isFloat", v.isFloat}, {"units", v.units}, {"min", v.min},
                   {"max", v.max},       {"low", percentiles[0]},  {"high", percentiles[1]}};
    if (volume_->window) values["window"] = {volume_->window->x, volume_->window->y};
    // Window presets are Hounsfield units: offered for CT only, that is a
    // volume in HU, or one without units whose values run from air (about
    // -1000) to bone, as a CT saved without its units does (NIfTI has no
    // field for them).
    json presets = json::array();
    const bool ctLike = v.units.empty() && !v.isFloat && v.min <= -900.0 && v.min >= -1100.0 && v.max >= 300.0;
    if (v.units == "HU" || ctLike)
        for (const zrio::WindowPreset& p : zrio::HuWindowPresets())
            presets.push_back({{"name", p.name}, {"centre", p.centre}, {"width", p.width}});
    description_ = {
        {"source", phantom ? std::string("head phantom") : fs::path(sources.volume).filename().string()},
        {"objects", objects_},
        {"volume", {{"dims", {data.dims.x, data.dims.y, data.dims.z}}, {"voxelToWorld", matrix}, {"values", values}}},
        {"labels", objects_.contains("labels")},
        {"meshes", meshes},
        {"presets", presets},
        {"limits", {{"imageSide", kMaxImageSide}, {"documentBytes", kMaxDocumentBytes}, {"thickness", maxThickness_}}},
    };
}

zrio::RequestFile ViewScene::Check(const json& document) const {
    if (!document.is_object()) Refuse("a frame is a JSON object (a request document)");
    if (document.contains("objects")) {
        const json& objects = document["objects"];
        if (!objects.is_object()) Refuse("objects: expects an object of named descriptions");
        for (const auto& [name, description] : objects.items()) {
            const std::string at = "objects." + name;
            if (objects_.contains(name)) {
                if (description != objects_[name])
                    Refuse(at + ": is served as given on the command line and cannot be changed here");
                continue;
            }
            if (!description.is_object() || description.value("type", json()) != "table")
                Refuse(at + ": the viewer shows only the volume, labels and meshes named on its command line; "
                            "a frame may describe tables only");
            if (NamesFile(description)) Refuse(at + ": a table read from a file cannot be asked for by the page");
        }
    }
    zrio::RequestFile file = zrio::ParseRequestDocument(document, kWhere, kBase);
    if (file.image.size.x > kMaxImageSide || file.image.size.y > kMaxImageSide)
        Refuse("image.size: " + std::to_string(file.image.size.x) + " x " + std::to_string(file.image.size.y) +
               " is larger than the viewer draws (at most " + std::to_string(kMaxImageSide) + " on a side)");
    for (size_t k = 0; k < file.requests.size(); ++k) {
        auto found = file.requests[k].find("_float_PlaneThickness");
        if (found == file.requests[k].end()) continue;
        const float thickness = std::any_cast<float>(found->second);
        if (std::abs(thickness) > maxThickness_ + 1.0)
            Refuse("requests[" + std::to_string(k) + "]._float_PlaneThickness: " + std::to_string(thickness) +
                   " mm is thicker than the volume's longest diagonal (" + std::to_string(maxThickness_) + " mm)");
    }
    return file;
}

Frame ViewScene::Render(const zrio::RequestFile& file) {
    const auto start = std::chrono::steady_clock::now();
    Frame frame;
    zrio::Scene scene = zrio::BuildScene(file, &kept_);
    frame.output = zrio::RunRequests(file, scene, plugin_);
    frame.milliseconds = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    return frame;
}

Probe ViewScene::At(const glm::dvec3& world) const {
    Probe probe;
    // The volume's scene entry is always the identity placement.
    const glm::dvec3 voxel = zrio::WorldToVoxel(*volume_->volume, glm::mat4(1.0f), world);
    if (const auto found = zrio::ProbeVoxel(*volume_, voxel)) {
        probe.inside = true;
        probe.voxel = found->index;
        probe.value = found->value;
    }
    return probe;
}

std::optional<zrio::SlabPick> ViewScene::Pick(const zrio::RequestFile& file, const glm::dvec2& pixel) {
    if (file.requests.empty()) throw zrio::InputError(kWhere, "requests: a pick needs the slab's request first");
    const zrio::Scene scene = zrio::BuildScene(file, &kept_);
    try {
        return zrio::PickSlabSample(file, scene, 0, pixel);
    } catch (const std::invalid_argument& e) {
        throw zrio::InputError(kWhere, e.what());
    }
}

}  // namespace zrview
