// Builds the host objects a request file names: volumes (phantoms, image files,
// raw files), transfer tables (window, control points, packed entries, presets)
// and meshes (files and built-in shapes). Each builder reads the object's JSON
// description strictly; mistakes throw std::invalid_argument naming the field,
// and file problems throw InputError naming the file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/param_map.h"
#include "host/zr_visual.h"
#include "voxel_grid.h"

namespace zrio {

// `where` is the object's path in the document; relative file names are taken
// from `baseDirectory`.
LoadedVolume BuildVolumeObject(const nlohmann::json& source, const std::string& where,
                               const std::filesystem::path& baseDirectory);
// Tables are described in the values of the volume they colour: entry =
// value + `valueOffset` (the volume's offset, see voxel_grid.h). Packed entries
// are taken as they are.
std::shared_ptr<zrobjects::ZrObject> BuildTableObject(const nlohmann::json& source, const std::string& where,
                                                      const std::filesystem::path& baseDirectory, int valueOffset);
std::shared_ptr<zrobjects::ZrVObjectPrimitive> BuildMeshObject(const nlohmann::json& source, const std::string& where,
                                                               const std::filesystem::path& baseDirectory);

// The packed rows of a table description (without building the object).
std::vector<std::vector<uint32_t>> TableRows(const nlohmann::json& source, const std::string& where,
                                             const std::filesystem::path& baseDirectory, int valueOffset);

// How a float volume is windowed by a table description: a window or window
// preset gives "_double_WindowingCenter" and "_double_WindowingWidth", control
// points give the "_vlist_DOUBLE2_ITF" curve of (value, grey). Other
// descriptions throw std::invalid_argument naming `where`.
zrobjects::ParamMap FloatWindowParams(const nlohmann::json& source, const std::string& where);

// Window presets in Hounsfield units, for CT: the tables' "preset" names that
// are plain windows, with their centre and width.
struct WindowPreset {
    const char* name;
    double centre, width;
};
const std::vector<WindowPreset>& HuWindowPresets();

// Names of the table presets and of the built-in shapes, for messages and docs.
const std::vector<std::string>& TablePresetNames();

// Colour of each head label (index = label), red, green, blue in 0..1.
glm::dvec3 LabelColour(int label);

}  // namespace zrio
