#include "request_file.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>
#include <set>
#include <stdexcept>

#include "host/image_builder.h"
#include "input_error.h"
#include "json_fields.h"
#include "module_keys.h"
#include "scene_objects.h"
#include "tagged_params.h"
#include "volume_files.h"

namespace zrio {

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

[[noreturn]] void Fail(const std::string& where, const std::string& what) {
    throw std::invalid_argument(where + ": " + what);
}

const std::set<std::string> kTableNames = {"WINDOWING", "OTF", "MASKVOLUME"};

// Ten metres: thicker than any patient or scanner bore.
constexpr float kMaxPlaneThickness = 10000.0f;

std::string DimsText(const glm::ivec3& d) {
    return std::to_string(d.x) + " x " + std::to_string(d.y) + " x " + std::to_string(d.z);
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

ImageSpec ParseImage(const json& value) {
    const Fields f(value, "image");
    f.OnlyKnown({"size", "camera", "params"});
    ImageSpec image;
    const json& size = f.Raw("size");
    if (!size.is_array() || size.size() != 2) Fail("image.size", "expects [width, height], got " + Shown(size));
    // Negative or zero sizes are refused here; the upper bound keeps one
    // buffer under 2^28 pixels, and the memory check below catches the rest.
    image.size.x = IntAt(size[0], "image.size[0]", 1, 16384);
    image.size.y = IntAt(size[1], "image.size[1]", 1, 16384);
    // An image carries about six frame buffers of up to 4 bytes per pixel.
    const uint64_t bytes = static_cast<uint64_t>(image.size.x) * image.size.y * 4 * 6;
    const uint64_t pixels = static_cast<uint64_t>(image.size.x) * image.size.y;
    if (pixels > (uint64_t{1} << 26) || bytes > PhysicalMemoryBytes() / 2)
        Fail("image.size", std::to_string(image.size.x) + " x " + std::to_string(image.size.y) +
                               " pixels are too large (at most 67108864 pixels whose buffers fit in half of "
                               "this machine's memory)");

    const Fields c(f.Raw("camera"), "image.camera");
    c.OnlyKnown({"position", "viewDirection", "up", "viewExtent"});
    image.camera.position = c.Vec3("position", glm::dvec3(0.0));
    image.camera.viewDirection = c.Vec3("viewDirection");
    image.camera.up = c.Vec3("up");
    if (!(glm::length(image.camera.viewDirection) > 1e-12)) Fail("image.camera.viewDirection", "view direction is zero");
    if (!(glm::length(image.camera.up) > 1e-12)) Fail("image.camera.up", "up vector is zero");
    if (!(glm::length(glm::cross(glm::normalize(image.camera.viewDirection), glm::normalize(image.camera.up))) > 1e-6))
        Fail("image.camera.up", "up vector is parallel to the view direction");
    const json& extent = c.Raw("viewExtent");
    if (extent.is_number()) {
        // One number: the extent of the longer side, the other follows the
        // pixel aspect so that pixels are square.
        const double e = NumberAt(extent, "image.camera.viewExtent");
        const double longer = std::max(image.size.x, image.size.y);
        image.camera.viewExtent = glm::dvec2(e * image.size.x / longer, e * image.size.y / longer);
    } else {
        image.camera.viewExtent = VecAt<2>(extent, "image.camera.viewExtent");
    }
    if (!(image.camera.viewExtent.x > 0.0) || !(image.camera.viewExtent.y > 0.0))
        Fail("image.camera.viewExtent", "view extent must be positive");
    if (f.Has("params")) image.params = ConvertParamObject(f.Raw("params"), "image.params");
    return image;
}

ObjectSpec ParseObject(const std::string& name, const json& value) {
    const std::string where = "objects." + name;
    const Fields f(value, where);
    ObjectSpec object;
    object.name = name;
    object.source = value;
    const std::string type = f.String("type");
    if (type == "volume")
        object.kind = ObjectSpec::Kind::Volume;
    else if (type == "table")
        object.kind = ObjectSpec::Kind::Table;
    else if (type == "mesh")
        object.kind = ObjectSpec::Kind::Mesh;
    else
        Fail(f.PathOf("type"), "unknown object type \"" + type + "\" (volume, table, mesh)");
    return object;
}

SceneEntryDescription ParseEntry(const json& value, size_t index, const std::vector<ObjectSpec>& objects) {
    const std::string where = "scene[" + std::to_string(index) + "]";
    const Fields f(value, where);
    f.OnlyKnown({"object", "enabled", "colour", "matrix", "tables", "objectParams", "params"});
    SceneEntryDescription entry;
    entry.object = f.String("object");
    const ObjectSpec* object = nullptr;
    for (const ObjectSpec& o : objects) object = o.name == entry.object ? &o : object;
    if (!object) Fail(f.PathOf("object"), "names an unknown object \"" + entry.object + "\"");
    if (object->kind == ObjectSpec::Kind::Table)
        Fail(f.PathOf("object"), "\"" + entry.object + "\" is a table; tables belong in a volume's \"tables\"");
    entry.enabled = f.Bool("enabled", true);
    if (f.Has("colour")) {
        const glm::dvec3 c = f.Vec3("colour");
        for (int k = 0; k < 3; ++k)
            if (c[k] < 0.0 || c[k] > 1.0) Fail(f.PathOf("colour"), "colour components must be in 0..1");
        entry.colour = glm::vec3(c);
    }
    if (f.Has("matrix")) {
        const glm::dmat4 m = MatrixAt(f.Raw("matrix"), f.PathOf("matrix"));
        if (IsSingular(glm::dmat3(m))) Fail(f.PathOf("matrix"), "matrix is singular");
        entry.objectToWorld = glm::mat4(m);
    }
    if (f.Has("tables")) {
        const Fields t(f.Raw("tables"), f.PathOf("tables"));
        if (object->kind != ObjectSpec::Kind::Volume && !f.Raw("tables").empty())
            Fail(f.PathOf("tables"), "only volumes have a table directory");
        for (const auto& [name, target] : f.Raw("tables").items()) {
            const std::string at = t.PathOf(name.c_str());
            if (!kTableNames.count(name)) Fail(at, "unknown table directory name (WINDOWING, OTF, MASKVOLUME)");
            if (!target.is_string()) Fail(at, "expects an object name, got " + Shown(target));
            const std::string targetName = target.get<std::string>();
            const ObjectSpec* found = nullptr;
            for (const ObjectSpec& o : objects) found = o.name == targetName ? &o : found;
            if (!found) Fail(at, "names an unknown object \"" + targetName + "\"");
            const auto wanted = name == "MASKVOLUME" ? ObjectSpec::Kind::Volume : ObjectSpec::Kind::Table;
            if (found->kind != wanted)
                Fail(at, "\"" + targetName + "\" must be a " + (name == "MASKVOLUME" ? "volume" : "table"));
            entry.tables[name] = targetName;
        }
    }
    if (f.Has("objectParams")) entry.objectParams = ConvertParamObject(f.Raw("objectParams"), f.PathOf("objectParams"));
    if (f.Has("params")) entry.params = ConvertParamObject(f.Raw("params"), f.PathOf("params"));
    return entry;
}

// Gives a volume its table directory from the scene entry. Integer volumes
// get their tables built at entry = value + offset; a float volume's WINDOWING
// description also becomes the float path's window or curve on the entry
// (unless the entry sets them itself), since the module windows float
// volumes without a table. A volume without a table uses the file's own
// window when it has one.
template <class TableFor>
void AttachTables(const SceneEntryDescription& described, const LoadedVolume& loaded, TableFor tableFor,
                  const std::map<std::string, const ObjectSpec*>& objectsByName, Scene& scene,
                  zrobjects::ParamMap& entryParams, zrobjects::ZrVObjectVolume& volume) {
    const std::string where = "objects." + described.object;
    const int offset = loaded.values.offset;
    for (const auto& [dirName, target] : described.tables) {
        if (dirName != "MASKVOLUME") {
            volume.SetTableObject(dirName, tableFor(target, offset));
            continue;
        }
        // The module reads the mask at the volume's own voxel indices, as bytes.
        const LoadedVolume& mask = scene.volumes.at(target);
        const glm::ivec3 maskDims = mask.volume->GetVolumeData()->dims, dims = volume.GetVolumeData()->dims;
        if (maskDims != dims)
            throw std::invalid_argument(where + ": its MASKVOLUME \"" + target + "\" has " + DimsText(maskDims) +
                                        " voxels, the volume " + DimsText(dims) + "; a mask must share the volume's grid");
        try {
            volume.SetTableObject(dirName, AsLabelVolume(mask));
        } catch (const std::invalid_argument& e) {
            throw std::invalid_argument("objects." + target + ": used as a MASKVOLUME: " + e.what());
        }
    }
    const bool floatWindowGiven = entryParams.count("_double_WindowingCenter") ||
                                  entryParams.count("_double_WindowingWidth") ||
                                  entryParams.count("_vlist_DOUBLE2_ITF");
    auto windowing = described.tables.find("WINDOWING");
    if (windowing == described.tables.end() && loaded.window) {
        // The file's own window, in its values.
        const nlohmann::json own = {{"type", "table"},
                                    {"window", {{"centre", loaded.window->x}, {"width", loaded.window->y}}}};
        char text[96];
        std::snprintf(text, sizeof(text), "no WINDOWING table given: using the file's own window (centre %g, width %g)",
                      loaded.window->x, loaded.window->y);
        scene.warnings.push_back(where + ": " + text);
        volume.SetTableObject("WINDOWING", BuildTableObject(own, where, {}, offset));
        if (loaded.values.isFloat && !floatWindowGiven)
            for (auto& [key, value] : FloatWindowParams(own, where)) entryParams[key] = value;
        return;
    }
    if (!loaded.values.isFloat) {
        if (windowing == described.tables.end() && described.enabled)
            scene.warnings.push_back(where + ": no WINDOWING table, so the module draws nothing for this volume; give "
                                             "its scene entry \"tables\": {\"WINDOWING\": <a table>}");
        return;
    }
    if (floatWindowGiven) return;
    if (windowing == described.tables.end())
        throw std::invalid_argument(where + ": a float volume needs something to window it: give it a WINDOWING "
                                            "table (a window, control points or a window preset)");
    const std::string table = windowing->second;
    for (auto& [key, value] : FloatWindowParams(objectsByName.at(table)->source, "objects." + table)) entryParams[key] = value;
}

// Values the module would take without a word but that cannot be what the
// user meant: a source type it does not know (it counts those as done and
// draws nothing), a slab thicker than anything that could be scanned (the
// layer loop would run for hours).
void CheckRequestValues(const zrobjects::ParamMap& request, const std::string& where) {
    if (auto it = request.find("_string_RenderingSourceType"); it != request.end()) {
        const std::string source = std::any_cast<std::string>(it->second);
        const auto& known = RenderingSourceTypes();
        if (std::find(known.begin(), known.end(), source) == known.end() && source != "VOLUME" && source != "MESH") {
            std::string nearest = known.front();
            for (const std::string& k : known)
                if (Lower(source).find(Lower(k.substr(std::string("SECTIONAL_").size()))) != std::string::npos) nearest = k;
            Fail(where + "._string_RenderingSourceType",
                 "\"" + source + "\" is not a source the module draws (SECTIONAL_VOLUME, SECTIONAL_MESH); did you mean \"" +
                     nearest + "\"?");
        }
    }
    if (auto it = request.find("_float_PlaneThickness"); it != request.end()) {
        const float thickness = std::any_cast<float>(it->second);
        if (!(std::abs(thickness) <= kMaxPlaneThickness))
            Fail(where + "._float_PlaneThickness",
                 "a slab of " + Shown(json(thickness)) + " mm is beyond any scan; give at most " +
                     std::to_string(static_cast<int>(kMaxPlaneThickness)) + " mm");
    }
}

}  // namespace

glm::dvec2 PixelSpacing(const ImageSpec& image) {
    return image.camera.viewExtent / glm::dvec2(image.size);
}

RequestFile ParseRequestDocument(const json& document, const std::string& path, const fs::path& baseDirectory) {
    RequestFile file;
    file.path = path;
    file.baseDirectory = baseDirectory;
    try {
        const Fields top(document, "document");
        top.OnlyKnown({"description", "image", "objects", "scene", "requests", "output"});
        if (top.Has("description")) top.String("description");
        file.image = ParseImage(top.Raw("image"));
        if (top.Has("objects")) {
            const Fields objects(top.Raw("objects"), "objects");
            for (const auto& [name, value] : top.Raw("objects").items()) file.objects.push_back(ParseObject(name, value));
        }
        if (top.Has("scene")) {
            const json& scene = top.Raw("scene");
            if (!scene.is_array()) Fail("scene", "expects an array of scene entries, got " + Shown(scene));
            for (size_t k = 0; k < scene.size(); ++k) file.scene.push_back(ParseEntry(scene[k], k, file.objects));
        }
        const json& requests = top.Raw("requests");
        if (!requests.is_array() || requests.empty()) Fail("requests", "expects a non-empty array of requests");
        for (size_t k = 0; k < requests.size(); ++k) {
            const std::string where = "requests[" + std::to_string(k) + "]";
            json params = requests[k];
            std::string target;
            if (params.is_object() && params.contains("targetVolume")) {
                const json& t = params["targetVolume"];
                if (!t.is_string()) Fail(where + ".targetVolume", "expects an object name, got " + Shown(t));
                target = t.get<std::string>();
                bool known = false;
                for (const SceneEntryDescription& e : file.scene) known = known || e.object == target;
                if (!known) Fail(where + ".targetVolume", "names \"" + target + "\", which is not in the scene");
                params.erase("targetVolume");
            }
            std::set<std::string> only;
            if (params.is_object() && params.contains("sceneObjects")) {
                const json& list = params["sceneObjects"];
                if (!list.is_array() || list.empty())
                    Fail(where + ".sceneObjects", "expects a non-empty array of object names, got " + Shown(list));
                for (const json& name : list) {
                    bool known = false;
                    for (const SceneEntryDescription& e : file.scene) known = known || (name.is_string() && e.object == name);
                    if (!known) Fail(where + ".sceneObjects", "names " + Shown(name) + ", which is not in the scene");
                    only.insert(name.get<std::string>());
                }
                params.erase("sceneObjects");
            }
            file.sceneObjects.push_back(std::move(only));
            file.requests.push_back(ConvertParamObject(params, where));
            CheckRequestValues(file.requests.back(), where);
            file.targetVolumes.push_back(target);
        }
        if (top.Has("output")) {
            const Fields out(top.Raw("output"), "output");
            out.OnlyKnown({"byteOrder", "values"});
            if (out.Has("byteOrder")) {
                const std::string order = out.String("byteOrder");
                if (order != "RGBA" && order != "BGRA") Fail("output.byteOrder", "expects \"RGBA\" or \"BGRA\", got \"" + order + "\"");
                file.byteOrder = order == "RGBA" ? ByteOrder::Rgba : ByteOrder::Bgra;
            }
            file.writeValues = out.Bool("values", true);
        }
    } catch (const std::invalid_argument& e) {
        throw InputError(path, e.what());
    }
    return file;
}

RequestFile ParseRequestFile(const std::string& path) {
    std::error_code ec;
    if (!fs::exists(path, ec)) throw InputError(path, "no such file");
    if (fs::is_directory(path, ec)) throw InputError(path, "is a directory, not a request file");
    std::ifstream in(path);
    if (!in) throw InputError(path, "cannot open the file");
    json document;
    try {
        document = json::parse(in);
    } catch (const json::exception& e) {
        // The library's message without its "[json.exception.…] " tag.
        std::string what = e.what();
        if (const size_t end = what.find("] "); what.rfind("[json.", 0) == 0 && end != std::string::npos)
            what = what.substr(end + 2);
        throw InputError(path, "not valid JSON: " + what);
    }
    const fs::path base = fs::path(path).parent_path();
    return ParseRequestDocument(document, path, base.empty() ? fs::path(".") : base);
}

Scene BuildScene(const RequestFile& file, LoadedObjects* kept) {
    Scene scene;
    LoadedObjects once;
    LoadedObjects& store = kept ? *kept : once;
    try {
        zrobjects::SectionView view;
        view.centre = file.image.camera.position;
        view.viewDirection = file.image.camera.viewDirection;
        view.up = file.image.camera.up;
        view.pixelSpacing = PixelSpacing(file.image);
        view.size = file.image.size;
        scene.image = zrobjects::MakeSectionImage(view);
        for (const auto& [key, value] : file.image.params) scene.image->SetObjParam(key, value);

        // Only objects that the scene list uses (directly or as a table) are
        // built. Tables are built per volume, in the volume's own values.
        std::set<std::string> used;
        for (const SceneEntryDescription& e : file.scene) {
            used.insert(e.object);
            for (const auto& [dirName, target] : e.tables) used.insert(target);
        }
        std::map<std::string, const ObjectSpec*> objectsByName;
        for (const ObjectSpec& o : file.objects) objectsByName[o.name] = &o;
        for (const ObjectSpec& o : file.objects) {
            if (!used.count(o.name)) continue;
            if (o.kind == ObjectSpec::Kind::Table) continue;
            const std::string where = "objects." + o.name;
            auto found = store.byName.find(o.name);
            if (found == store.byName.end() || found->second.source != o.source ||
                found->second.baseDirectory != file.baseDirectory) {
                LoadedObjects::Kept built{o.source, file.baseDirectory, nullptr, std::nullopt};
                if (o.kind == ObjectSpec::Kind::Volume) {
                    built.volume = BuildVolumeObject(o.source, where, file.baseDirectory);
                    built.object = built.volume->volume;
                } else {
                    built.object = BuildMeshObject(o.source, where, file.baseDirectory);
                }
                found = store.byName.insert_or_assign(o.name, std::move(built)).first;
            }
            const LoadedObjects::Kept& loaded = found->second;
            if (loaded.volume) {
                for (const std::string& w : loaded.volume->warnings) scene.warnings.push_back(where + ": " + w);
                scene.volumes[o.name] = *loaded.volume;
            }
            scene.objects[o.name] = loaded.object;
        }
        std::map<std::pair<std::string, int>, std::shared_ptr<zrobjects::ZrObject>> tables;
        auto tableFor = [&](const std::string& name, int offset) {
            auto& table = tables[{name, offset}];
            if (!table) table = BuildTableObject(objectsByName.at(name)->source, "objects." + name, file.baseDirectory, offset);
            // Under its name: the table as the first volume that uses it sees it.
            scene.objects.emplace(name, table);
            return table;
        };
        for (const SceneEntryDescription& described : file.scene) {
            auto object = std::static_pointer_cast<zrobjects::ZrVObject>(scene.objects.at(described.object));
            zrobjects::SceneEntry entry;
            entry.params = described.params;
            if (auto* volume = dynamic_cast<zrobjects::ZrVObjectVolume*>(object.get())) {
                const LoadedVolume& loaded = scene.volumes.at(described.object);
                AttachTables(described, loaded, tableFor, objectsByName, scene, entry.params, *volume);
            }
            for (const auto& [key, value] : described.objectParams) object->SetObjParam(key, value);
            entry.object = object.get();
            entry.enabled = described.enabled;
            entry.colour = described.colour;
            entry.objectToWorld = described.objectToWorld;
            entry.worldToObject = glm::mat4(glm::inverse(glm::dmat4(described.objectToWorld)));
            scene.entries.push_back(std::move(entry));
        }
    } catch (const InputError&) {
        throw;
    } catch (const std::invalid_argument& e) {
        throw InputError(file.path, e.what());
    } catch (const std::bad_alloc&) {
        throw InputError(file.path, "not enough memory to build the scene");
    }
    return scene;
}

ByteOrder ResolveByteOrder(const RequestFile& file) {
    if (file.byteOrder) return *file.byteOrder;
    const zrobjects::ParamMap& last = file.requests.back();
    auto source = last.find("_string_RenderingSourceType");
    const bool mesh = source != last.end() && std::any_cast<std::string>(source->second) == "SECTIONAL_MESH";
    if (!mesh) return ByteOrder::Rgba;
    auto rgba = last.find("_bool_IsRGBA");
    return rgba != last.end() && std::any_cast<bool>(rgba->second) ? ByteOrder::Rgba : ByteOrder::Bgra;
}

}  // namespace zrio
