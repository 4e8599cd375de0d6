#include "info.h"

#include <cstdio>
#include <filesystem>

#include "host/zr_types.h"
#include "load_progress.h"
#include "mesh_files.h"
#include "volume_files.h"

namespace zrio {

namespace {

std::string Format(const char* format, double a, double b, double c) {
    char text[160];
    // + 0.0 turns a negative zero (a flipped axis) into a plain 0.
    std::snprintf(text, sizeof(text), format, a + 0.0, b + 0.0, c + 0.0);
    return text;
}

// Size, grid placement in LPS, the rule that placed it and the notes.
std::string DescribePlacement(const VolumeFileInfo& info) {
    const auto& g = info.geometry;
    std::string text = "  size:      " + std::to_string(info.dims.x) + " x " + std::to_string(info.dims.y) + " x " +
                       std::to_string(info.dims.z) + " voxels\n";
    text += Format("  spacing:   %.6g %.6g %.6g mm\n", g.spacing.x, g.spacing.y, g.spacing.z);
    text += Format("  origin:    %.6g %.6g %.6g mm", g.origin.x, g.origin.y, g.origin.z) +
            " (world LPS: x to the patient's left, y posterior, z superior)\n";
    for (int row = 0; row < 3; ++row)
        text += Format(row == 0 ? "  direction: %.6g %.6g %.6g\n" : "             %.6g %.6g %.6g\n", g.direction[0][row],
                       g.direction[1][row], g.direction[2][row]);
    if (!info.placement.empty()) text += "  placed by: " + info.placement + "\n";
    for (const std::string& note : info.notes) text += "  note:      " + note + "\n";
    return text;
}

}  // namespace

std::string DescribeFile(const std::string& path, const VolumeChoice& choice) {
    std::string text = path + "\n";
    if (IsMeshFileName(path)) {
        LoadProgress progress(path);
        const MeshFileInfo info = ReadMeshFileInfo(path, &progress);
        text += "  kind:      mesh\n";
        text += "  meshes:    " + std::to_string(info.meshes) + "\n";
        text += "  vertices:  " + std::to_string(info.vertices) + "\n";
        text += "  triangles: " + std::to_string(info.triangles) + (info.triangles ? "" : " (point set)") + "\n";
        text += std::string("  normals:   ") + (info.hasNormals ? "yes" : "no") + "\n";
        text += Format("  bounds:    %.3f %.3f %.3f", info.boundsMin.x, info.boundsMin.y, info.boundsMin.z) +
                Format(" .. %.3f %.3f %.3f\n", info.boundsMax.x, info.boundsMax.y, info.boundsMax.z);
        return text;
    }
    if (choice.series.empty() && !choice.frame) {
        const VolumeFileInfo header = ReadVolumeFileInfo(path, choice);
        if (!header.choices.empty()) {
            // Several volumes and none chosen: what the headers say, and the list.
            text += "  kind:      volume (" + header.format + ")\n";
            if (header.dims.x > 0) {
                text += DescribePlacement(header);
            } else {
                for (const std::string& note : header.notes) text += "  note:      " + note + "\n";
            }
            // A file of packed frames lists them on one line ("12 time points: ...").
            text += "  holds:     " +
                    (header.choices.size() > 1 ? std::to_string(header.choices.size()) + " volumes" : "several volumes") +
                    "; pick one with \"series\" (or \"frame\") in the request's volume object, or "
                    "zrslice info --series (--frame):\n";
            for (const std::string& line : header.choices) text += "             " + line + "\n";
            return text;
        }
    }
    const VolumeFile file = [&] {
        LoadProgress progress(path);
        return ReadVolumeFile(path, choice, std::nullopt, &progress);
    }();
    const VolumeFileInfo& info = file.info;
    const VolumeValues& values = file.loaded.values;
    const glm::dvec2 percentiles = MeasurePercentiles(*file.loaded.volume, values.offset);
    const std::string units = values.units.empty() ? "" : " " + values.units;
    text += "  kind:      volume (" + info.format + ")\n";
    text += "  voxels:    " + info.componentType +
            (info.components == 1 ? std::string() : " x " + std::to_string(info.components) + " components");
    if (info.slope != 1.0 || info.intercept != 0.0)
        text += Format(", scaled: value = stored x %.6g + %.6g", info.slope, info.intercept, 0.0);
    text += "\n";
    text += Format("  values:    %.6g .. %.6g", values.min, values.max, 0.0) + units +
            Format(" (1st to 99th percentile %.6g .. %.6g)\n", percentiles[0], percentiles[1], 0.0);
    const zrobjects::data_type& stored = file.loaded.volume->GetVolumeData()->voxelType;
    if (values.isFloat)
        text += "  module:    float32 voxels, windowed in the values above\n";
    else if (stored == zrobjects::MakeDataType<unsigned short>() || stored == zrobjects::MakeDataType<unsigned char>())
        text += std::string("  module:    ") + (stored.size == 1 ? "uint8" : "uint16") + " voxels holding value + " +
                std::to_string(values.offset) + "; tables are written in the values above\n";
    else
        text += "  module:    signed voxels as forced; tables index their 16-bit words\n";
    if (info.window) text += Format("  window:    centre %.6g, width %.6g (the file's own)\n", info.window->x, info.window->y, 0.0);
    text += DescribePlacement(info);
    for (const std::string& warning : file.loaded.warnings) text += "  warning:   " + warning + "\n";
    text += "  use:       {\"type\": \"volume\", \"file\": \"" + path +
            "\"} in a request file's objects (docs/request-format.md)\n";
    return text;
}

}  // namespace zrio
