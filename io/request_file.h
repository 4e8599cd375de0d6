// Request files: one JSON document that names the image (size, camera, own
// parameters), the objects (volumes, tables, meshes), the scene list and the
// requests to run in order on the one image. ParseRequestFile checks the whole
// document before anything is built; BuildScene then loads files and phantoms.
// Every mistake is an InputError naming the file and the field, key or value.
// docs/request-format.md describes the format.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <glm/glm.hpp>
#include <nlohmann/json.hpp>

#include "host/plugin_interface.h"
#include "host/zr_image.h"
#include "voxel_grid.h"

namespace zrio {

struct CameraSpec {
    glm::dvec3 position{0.0};
    glm::dvec3 viewDirection{0.0, 0.0, 1.0};
    glm::dvec3 up{0.0, -1.0, 0.0};
    glm::dvec2 viewExtent{256.0};  // mm covered by the image's width and height
};

struct ImageSpec {
    glm::ivec2 size{256, 256};
    CameraSpec camera;
    zrobjects::ParamMap params;  // the image object's own parameters
};

// Objects are kept as their JSON description until BuildScene loads them.
struct ObjectSpec {
    enum class Kind { Volume, Table, Mesh };
    std::string name;
    Kind kind = Kind::Volume;
    nlohmann::json source;  // the object's JSON, checked by ParseRequestFile
};

struct SceneEntryDescription {
    std::string object;
    bool enabled = true;
    glm::vec3 colour{1.0f};
    glm::mat4 objectToWorld{1.0f};
    std::map<std::string, std::string> tables;  // directory name -> object name
    zrobjects::ParamMap objectParams;           // set on the object itself
    zrobjects::ParamMap params;                 // the scene entry's own
};

enum class ByteOrder { Rgba, Bgra };

struct RequestFile {
    std::string path;  // as given, for messages
    std::filesystem::path baseDirectory;  // relative file names are taken from here
    ImageSpec image;
    std::vector<ObjectSpec> objects;
    std::vector<SceneEntryDescription> scene;
    std::vector<zrobjects::ParamMap> requests;
    // Per request, the object named by its "targetVolume" directive (empty when
    // none): the host writes that object's id as "_int_TargetVolumeObjectID",
    // since ids exist only once the scene is built.
    std::vector<std::string> targetVolumes;
    // Per request, the objects named by its "sceneObjects" directive: only
    // their scene entries are enabled for that request (empty: all entries).
    std::vector<std::set<std::string>> sceneObjects;
    // Byte order of render-out 0; unset: taken from the last request (a mesh
    // request without "_bool_IsRGBA" true writes BGRA, everything else RGBA).
    std::optional<ByteOrder> byteOrder;
    bool writeValues = true;  // write the 16-bit value buffer when there is one
};

// Parses and checks a request document. `path` names it in messages and sets
// the base directory of relative file names.
RequestFile ParseRequestDocument(const nlohmann::json& document, const std::string& path,
                                 const std::filesystem::path& baseDirectory);
RequestFile ParseRequestFile(const std::string& path);

// Pixel spacing (mm between pixel centres) of an image: view extent / size.
glm::dvec2 PixelSpacing(const ImageSpec& image);

// The built scene: the image, every named object, and the scene list that each
// request is given. Owns every object the scene list points to.
struct Scene {
    std::shared_ptr<zrobjects::ZrIObject> image;
    std::map<std::string, std::shared_ptr<zrobjects::ZrObject>> objects;
    std::map<std::string, LoadedVolume> volumes;  // each volume object with its values
    std::vector<zrobjects::SceneEntry> entries;
    // What the user should hear about the scene, "objects.<name>: ...".
    std::vector<std::string> warnings;
};

// Volumes and meshes a program keeps loaded between scenes (a viewer, a Python
// session): an object is reused when its description and base directory are
// the same as when it was built, so moving the camera or changing a table does
// not read the file again. Tables and the image are always built anew.
struct LoadedObjects {
    struct Kept {
        nlohmann::json source;
        std::filesystem::path baseDirectory;
        std::shared_ptr<zrobjects::ZrObject> object;
        std::optional<LoadedVolume> volume;  // set for volumes
    };
    std::map<std::string, Kept> byName;
};

// `kept`, when given, supplies and receives the loaded volumes and meshes.
Scene BuildScene(const RequestFile& file, LoadedObjects* kept = nullptr);

// The request's byte order as resolved (see RequestFile::byteOrder).
ByteOrder ResolveByteOrder(const RequestFile& file);

}  // namespace zrio
