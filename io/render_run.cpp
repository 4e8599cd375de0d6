#include "render_run.h"

#include <unistd.h>

#include <any>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <typeinfo>

#include "host/zr_types.h"
#include "input_error.h"
#include "request_checks.h"
#include "tagged_params.h"

namespace zrio {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const char* const kIsoKeys[] = {"_vlist_DOUBLE_IsoLines0", "_vlist_DOUBLE_IsoLines1", "_vlist_DOUBLE_IsoLines2",
                                "_vlist_DOUBLE_IsoLines3"};
const char* const kCrossKeys[] = {"_vlist_FLOAT_CrossLines", "_vlist_FLOAT3_CrossLineObjColor",
                                  "_vlist_INT_CrossLineObjCount", "_vlist_INT_CrossLineObjID"};

// Four numbers per segment, grouped so that the JSON reads as segments.
template <class T>
json Segments(const std::vector<T>& flat) {
    json out = json::array();
    for (size_t k = 0; k + 3 < flat.size(); k += 4) out.push_back({flat[k], flat[k + 1], flat[k + 2], flat[k + 3]});
    return out;
}

RgbaImage PictureOf(zrobjects::ZrIObject& image, ByteOrder order) {
    RgbaImage picture;
    picture.width = image.Width();
    picture.height = image.Height();
    picture.pixels.assign(static_cast<size_t>(picture.width) * picture.height * 4, 0);
    const zrobjects::FrameBuffer* out = image.GetFrameBuffer(zrenums::EzrFrameBufferUsage_RenderOut, 0);
    if (!out || out->elementType.size != 4) return picture;
    std::memcpy(picture.pixels.data(), out->pixels, picture.pixels.size());
    if (order == ByteOrder::Bgra)
        for (size_t p = 0; p < picture.pixels.size(); p += 4) std::swap(picture.pixels[p], picture.pixels[p + 2]);
    return picture;
}

std::optional<GreyImage16> ValuesOf(zrobjects::ZrIObject& image) {
    const zrobjects::FrameBuffer* buffer = image.GetFrameBuffer(zrenums::EzrFrameBufferUsage_Custom, 0);
    if (!buffer || buffer->elementType != zrobjects::MakeDataType<uint16_t>()) return std::nullopt;
    GreyImage16 values;
    values.width = image.Width();
    values.height = image.Height();
    values.values.resize(static_cast<size_t>(values.width) * values.height);
    std::memcpy(values.values.data(), buffer->pixels, values.values.size() * sizeof(uint16_t));
    return values;
}

std::string NameOfObject(const Scene& scene, int32_t id) {
    for (const auto& [name, object] : scene.objects)
        if (object->GetObjectID() == id) return name;
    return {};
}

json CrossLinesOf(zrobjects::ZrIObject& image, const Scene& scene) {
    const zrobjects::ParamMap& params = image.Params();
    auto find = [&](const char* key) -> const std::any* {
        auto it = params.find(key);
        return it == params.end() ? nullptr : &it->second;
    };
    const auto* lines = find(kCrossKeys[0]) ? std::any_cast<std::vector<float>>(find(kCrossKeys[0])) : nullptr;
    if (!lines) return nullptr;
    const auto* colours = find(kCrossKeys[1]) ? std::any_cast<std::vector<glm::vec3>>(find(kCrossKeys[1])) : nullptr;
    const auto* counts = find(kCrossKeys[2]) ? std::any_cast<std::vector<int32_t>>(find(kCrossKeys[2])) : nullptr;
    const auto* ids = find(kCrossKeys[3]) ? std::any_cast<std::vector<int32_t>>(find(kCrossKeys[3])) : nullptr;
    json objects = json::array();
    size_t start = 0;
    // The segments of object k follow those of objects 0..k-1 in the flat list.
    for (size_t k = 0; counts && k < counts->size(); ++k) {
        json object;
        object["segmentCount"] = (*counts)[k];
        if (ids && k < ids->size()) {
            object["id"] = (*ids)[k];
            object["object"] = NameOfObject(scene, (*ids)[k]);
        }
        if (colours && k < colours->size()) object["colour"] = {(*colours)[k].x, (*colours)[k].y, (*colours)[k].z};
        const size_t end = std::min(lines->size(), start + 4 * static_cast<size_t>(std::max((*counts)[k], 0)));
        object["segments"] = Segments(std::vector<float>(lines->begin() + start, lines->begin() + end));
        start = end;
        objects.push_back(std::move(object));
    }
    json out;
    out["segments"] = Segments(*lines);
    out["objects"] = std::move(objects);
    return out;
}

std::string TempName(const std::string& path) { return path + ".tmp-" + std::to_string(getpid()); }

}  // namespace

PluginSession::PluginSession(const std::string& path) : module_(path) { module_.initModule(); }

PluginSession::~PluginSession() { module_.deInitModule(); }

std::string DefaultPluginPath() {
    std::error_code ec;
    const fs::path self = fs::canonical("/proc/self/exe", ec);
    return ((ec ? fs::current_path() : self.parent_path()) / zrobjects::PluginFileName()).string();
}

RenderOutput RunRequestFile(const RequestFile& file, PluginSession& plugin, const ProgressFn& progress) {
    Scene scene = BuildScene(file);
    return RunRequests(file, scene, plugin, progress);
}

RenderOutput RunRequests(const RequestFile& file, Scene& scene, PluginSession& plugin, const ProgressFn& progress) {
    std::vector<std::string> warnings = scene.warnings;
    bool listsOnly = false;  // a mesh request that hands its lines back draws nothing by design
    json requests = json::array();
    for (size_t k = 0; k < file.requests.size(); ++k) {
        zrobjects::ModuleRequest request;
        request.params = file.requests[k];
        request.params["_ZrIObject*_RenderOut"] = scene.image.get();
        request.scene = scene.entries;
        if (!file.sceneObjects[k].empty())
            for (size_t e = 0; e < request.scene.size(); ++e)
                request.scene[e].enabled = request.scene[e].enabled && file.sceneObjects[k].count(file.scene[e].object) > 0;
        if (!file.targetVolumes[k].empty())
            request.params["_int_TargetVolumeObjectID"] = scene.objects.at(file.targetVolumes[k])->GetObjectID();
        const auto sourceIt = request.params.find("_string_RenderingSourceType");
        const std::string source =
            sourceIt == request.params.end() ? "SECTIONAL_VOLUME" : std::any_cast<std::string>(sourceIt->second);
        for (std::string& w : RequestWarnings(file, scene, request.scene, k)) warnings.push_back(std::move(w));
        if (progress) progress(k, file.requests.size(), source);
        bool ok = false;
        try {
            ok = plugin.Module().doModule(&request);
        } catch (const std::bad_any_cast&) {
            throw InputError(file.path, "requests[" + std::to_string(k) + "]: the module found a parameter of the wrong type");
        }
        if (!ok)
            throw InputError(file.path, "requests[" + std::to_string(k) + "]: the module declined the request (source \"" +
                                            source + "\")");
        const auto crossLines = request.params.find("_bool_GetCrossLines");
        listsOnly = listsOnly || (source == "SECTIONAL_MESH" && crossLines != request.params.end() &&
                                  std::any_cast<bool>(crossLines->second));
        json report;
        report["source"] = source;
        report["progress"] = plugin.Module().getProgress();
        for (const char* key : kIsoKeys) {
            auto it = request.params.find(key);
            if (it != request.params.end()) {
                if (const auto* list = std::any_cast<std::vector<double>>(&it->second))
                    report["isoLines"][std::string(key).substr(std::strlen("_vlist_DOUBLE_"))] = Segments(*list);
            }
        }
        requests.push_back(std::move(report));
    }

    RenderOutput output;
    output.picture = PictureOf(*scene.image, ResolveByteOrder(file));
    if (file.writeValues) output.values = ValuesOf(*scene.image);
    output.lists["requests"] = std::move(requests);
    output.lists["descriptor"] = scene.image->GetDescriptor();
    output.lists["byteOrder"] = ResolveByteOrder(file) == ByteOrder::Rgba ? "RGBA" : "BGRA";
    const json cross = CrossLinesOf(*scene.image, scene);
    if (!cross.is_null()) output.lists["crossLines"] = cross;
    // Values a user reads off the value picture are stored words: value + offset.
    for (const auto& [name, loaded] : scene.volumes) {
        json& v = output.lists["volumes"][name];
        v["valueOffset"] = loaded.values.offset;
        v["float"] = loaded.values.isFloat;
        if (!loaded.values.units.empty()) v["units"] = loaded.values.units;
        v["range"] = {loaded.values.min, loaded.values.max};
    }
    if (warnings.empty() && !listsOnly && PictureIsEmpty(output.picture.pixels))
        warnings.push_back("the picture is empty: no request drew anything");
    output.warnings = std::move(warnings);
    return output;
}

OutputPaths OutputPathsFor(const std::string& out) {
    fs::path picture(out);
    if (picture.extension() != ".png") picture += ".png";
    fs::path stem = picture;
    stem.replace_extension();
    return {picture.string(), stem.string() + ".values.png", stem.string() + ".lists.json"};
}

void WriteRenderOutput(const RenderOutput& output, const OutputPaths& paths) {
    const fs::path folder = fs::path(paths.picture).parent_path();
    std::error_code ec;
    if (!folder.empty()) {
        fs::create_directories(folder, ec);
        if (ec) throw InputError(folder.string(), "cannot create the output folder: " + ec.message());
    }
    std::vector<std::pair<std::string, std::string>> written;  // temporary, final
    auto removeTemps = [&] {
        for (const auto& [temp, final] : written) fs::remove(temp, ec);
    };
    try {
        written.emplace_back(TempName(paths.picture), paths.picture);
        WritePngRgba(written.back().first, output.picture);
        if (output.values && !paths.values.empty()) {
            written.emplace_back(TempName(paths.values), paths.values);
            WritePngGrey16(written.back().first, *output.values);
        }
        if (!paths.lists.empty()) {
            written.emplace_back(TempName(paths.lists), paths.lists);
            std::ofstream lists(written.back().first);
            lists << output.lists.dump(1) << "\n";
            lists.close();
            if (!lists) throw InputError(paths.lists, "write failed");
        }
    } catch (const InputError& e) {
        removeTemps();
        // Report the final name, not the temporary one.
        for (const auto& [temp, final] : written)
            if (e.File() == temp) throw InputError(final, e.what());
        throw;
    }
    for (const auto& [temp, final] : written) {
        fs::rename(temp, final, ec);
        if (ec) {
            removeTemps();
            throw InputError(final, "cannot write: " + ec.message());
        }
    }
    // A run without a value buffer must not leave an older one beside the picture.
    if (!output.values && !paths.values.empty()) fs::remove(paths.values, ec);
}

void WriteTextFile(const std::string& path, const std::string& text) {
    const std::string temp = TempName(path);
    {
        std::ofstream out(temp);
        out << text;
        out.close();
        if (!out) {
            std::error_code ec;
            fs::remove(temp, ec);
            throw InputError(path, "write failed");
        }
    }
    std::error_code ec;
    fs::rename(temp, path, ec);
    if (ec) {
        fs::remove(temp, ec);
        throw InputError(path, "cannot write: " + ec.message());
    }
}

}  // namespace zrio
