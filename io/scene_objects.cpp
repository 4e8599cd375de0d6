#include "scene_objects.h"

#include <algorithm>
#include <bit>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>

#include "host/mesh_builder.h"
#include "host/phantoms.h"
#include "host/table_builder.h"
#include "input_error.h"
#include "json_fields.h"
#include "load_progress.h"
#include "mesh_files.h"
#include "volume_files.h"

namespace zrio {

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

[[noreturn]] void Fail(const std::string& where, const std::string& what) {
    throw std::invalid_argument(where + ": " + what);
}

std::string Resolve(const fs::path& base, const std::string& name) {
    const fs::path p(name);
    return (p.is_absolute() ? p : base / p).lexically_normal().string();
}

// ---- volumes ----

zrobjects::PhantomGrid GridOf(const Fields& f) {
    zrobjects::PhantomGrid grid;
    if (f.Has("dims")) {
        const json& d = f.Raw("dims");
        if (!d.is_array() || d.size() != 3) Fail(f.PathOf("dims"), "expects an array of 3 integers, got " + Shown(d));
        for (int k = 0; k < 3; ++k)
            grid.dims[k] = IntAt(d[k], f.PathOf("dims") + "[" + std::to_string(k) + "]", 1, 2048);
    }
    if (f.Has("spacing")) grid.spacing = f.Vec3("spacing");
    for (int k = 0; k < 3; ++k)
        if (!(grid.spacing[k] > 0.0)) Fail(f.PathOf("spacing"), "spacing must be positive");
    return grid;
}

zrobjects::VolumeGeometry RawGeometry(const Fields& f) {
    zrobjects::VolumeGeometry g;
    g.spacing = f.Vec3("spacing", glm::dvec3(1.0));
    for (int k = 0; k < 3; ++k)
        if (!(g.spacing[k] > 0.0)) Fail(f.PathOf("spacing"), "spacing must be positive");
    g.origin = f.Vec3("origin", glm::dvec3(0.0));
    if (f.Has("direction")) {
        const json& d = f.Raw("direction");
        if (!d.is_array() || d.size() != 3) Fail(f.PathOf("direction"), "expects 3 rows of 3 numbers");
        for (int row = 0; row < 3; ++row) {
            const glm::dvec3 r = VecAt<3>(d[row], f.PathOf("direction") + "[" + std::to_string(row) + "]");
            for (int col = 0; col < 3; ++col) g.direction[col][row] = r[col];
        }
        if (IsSingular(g.direction)) Fail(f.PathOf("direction"), "direction matrix is singular");
    }
    return g;
}

// ---- tables ----

uint32_t PackedEntry(const json& value, const std::string& where) {
    if (value.is_string()) {
        const std::string text = value.get<std::string>();
        size_t used = 0;
        unsigned long long x = 0;
        try {
            x = std::stoull(text, &used, 0);
        } catch (const std::exception&) {
            used = 0;
        }
        if (used != text.size() || text.empty() || x > 0xFFFFFFFFull)
            Fail(where, "expects a 32-bit entry such as \"0xFF102030\", got \"" + text + "\"");
        return static_cast<uint32_t>(x);
    }
    if (!value.is_number_unsigned() || value.get<uint64_t>() > 0xFFFFFFFFull)
        Fail(where, "expects a 32-bit entry (0..4294967295 or a hex string), got " + Shown(value));
    return static_cast<uint32_t>(value.get<uint64_t>());
}

std::vector<uint32_t> ReadEntryFile(const std::string& path) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) throw InputError(path, "no such file");
    const uint64_t bytes = fs::file_size(path, ec);
    if (ec) throw InputError(path, "cannot read the file size");
    if (bytes == 0 || bytes % 4 != 0)
        throw InputError(path, "table file holds " + std::to_string(bytes) + " bytes, not a whole number of 4-byte entries");
    if (bytes > (uint64_t{1} << 30)) throw InputError(path, "table file is too large");
    std::vector<uint32_t> entries(bytes / 4);
    std::ifstream in(path, std::ios::binary);
    in.read(reinterpret_cast<char*>(entries.data()), static_cast<std::streamsize>(bytes));
    if (!in) throw InputError(path, "read failed");
    // The file is little-endian; swap on a big-endian machine.
    if constexpr (std::endian::native == std::endian::big)
        for (uint32_t& e : entries) e = __builtin_bswap32(e);
    return entries;
}

uint8_t UnitByte(double x) { return static_cast<uint8_t>(std::clamp(x, 0.0, 1.0) * 255.0 + 0.5); }

std::vector<uint32_t> LabelEntries() {
    // Entry k is label k's colour; label 0 and every value past the labels are
    // transparent. The full length makes the scaled lookups read entry k for
    // label value k.
    std::vector<uint32_t> entries(zrobjects::kFullTableLength, 0u);
    for (int label = 1; label < zrobjects::kLabelCount; ++label) {
        const glm::dvec3 c = LabelColour(label);
        entries[label] = zrobjects::PackEntry(UnitByte(c.r), UnitByte(c.g), UnitByte(c.b), 255);
    }
    return entries;
}

constexpr WindowPreset kHuWindows[] = {
    {"brain", 40.0, 80.0},   {"softTissue", 40.0, 400.0}, {"bone", 400.0, 1800.0},
    {"lung", -600.0, 1500.0}, {"ctAngio", 300.0, 600.0},  {"subdural", 75.0, 215.0},
};

std::vector<std::vector<uint32_t>> PresetRows(const std::string& name, const std::string& where, double offset) {
    using zrobjects::ControlPoint;
    for (const WindowPreset& preset : kHuWindows)
        if (name == preset.name) return {zrobjects::WindowTableEntries(preset.centre + offset, preset.width)};
    if (name == "boneColour")
        return {zrobjects::ControlPointTableEntries({{126.0 + offset, 0.0, 0.0, 0.0, 0.0},
                                                     {376.0 + offset, 0.85, 0.55, 0.4, 0.35},
                                                     {876.0 + offset, 1.0, 0.97, 0.88, 1.0}})};
    if (name == "labels") return {LabelEntries()};
    if (name == "maskLabels") {
        // Row 0 is the plain soft-tissue window; row k tints label k's voxels
        // with its colour at half opacity over that window.
        std::vector<std::vector<uint32_t>> rows = {zrobjects::WindowTableEntries(40.0 + offset, 400.0)};
        for (int label = 1; label < zrobjects::kLabelCount; ++label) {
            const glm::dvec3 c = LabelColour(label);
            rows.emplace_back(zrobjects::kFullTableLength, zrobjects::PackEntry(UnitByte(c.r), UnitByte(c.g), UnitByte(c.b), 128));
        }
        return rows;
    }
    std::string list;
    for (const auto& n : TablePresetNames()) list += (list.empty() ? "" : ", ") + n;
    Fail(where, "unknown table preset \"" + name + "\" (" + list + ")");
}

int CountOf(const Fields& f) { return f.Int("count", zrobjects::kFullTableLength, 1, 1 << 24); }

// One table row from a description with exactly one source.
std::vector<std::vector<uint32_t>> RowsOf(const json& source, const std::string& where, const fs::path& base, bool nested,
                                          double offset) {
    const Fields f(source, where);
    if (nested)
        f.OnlyKnown({"window", "controlPoints", "count", "entries", "entriesFile", "rowLength", "preset"});
    else
        f.OnlyKnown({"type", "window", "controlPoints", "count", "entries", "entriesFile", "rowLength", "preset", "rows"});
    int sources = 0;
    for (const char* s : {"window", "controlPoints", "entries", "entriesFile", "preset", "rows"}) sources += f.Has(s);
    if (sources != 1)
        Fail(where, "a table needs exactly one of window, controlPoints, entries, entriesFile, preset" +
                        std::string(nested ? "" : ", rows"));
    try {
        if (f.Has("window")) {
            const Fields w(f.Raw("window"), f.PathOf("window"));
            w.OnlyKnown({"centre", "width"});
            const double width = w.Number("width");
            if (!(width > 0.0)) Fail(w.PathOf("width"), "window width must be positive");
            return {zrobjects::WindowTableEntries(w.Number("centre") + offset, width, CountOf(f))};
        }
        if (f.Has("controlPoints")) {
            const json& list = f.Raw("controlPoints");
            const std::string at = f.PathOf("controlPoints");
            if (!list.is_array() || list.empty()) Fail(at, "expects a non-empty array of [value, r, g, b, a]");
            std::vector<zrobjects::ControlPoint> points;
            for (size_t k = 0; k < list.size(); ++k) {
                const std::string pat = at + "[" + std::to_string(k) + "]";
                if (!list[k].is_array() || list[k].size() != 5) Fail(pat, "expects [value, r, g, b, a], got " + Shown(list[k]));
                double v[5];
                for (int c = 0; c < 5; ++c) v[c] = NumberAt(list[k][c], pat + "[" + std::to_string(c) + "]");
                for (int c = 1; c < 5; ++c)
                    if (v[c] < 0.0 || v[c] > 1.0) Fail(pat, "colour and opacity must be in 0..1");
                if (!points.empty() && v[0] + offset < points.back().value) Fail(pat, "control points must be sorted by value");
                points.push_back({v[0] + offset, v[1], v[2], v[3], v[4]});
            }
            return {zrobjects::ControlPointTableEntries(points, CountOf(f))};
        }
        if (f.Has("preset")) return PresetRows(f.String("preset"), f.PathOf("preset"), offset);
        std::vector<uint32_t> entries;
        if (f.Has("entries")) {
            const json& list = f.Raw("entries");
            if (!list.is_array() || list.empty()) Fail(f.PathOf("entries"), "expects a non-empty array of packed entries");
            for (size_t k = 0; k < list.size(); ++k)
                entries.push_back(PackedEntry(list[k], f.PathOf("entries") + "[" + std::to_string(k) + "]"));
        } else if (f.Has("entriesFile")) {
            entries = ReadEntryFile(Resolve(base, f.String("entriesFile")));
        }
        if (!entries.empty()) {
            const int rowLength = f.Int("rowLength", static_cast<int>(std::min<size_t>(entries.size(), 1 << 24)), 1, 1 << 24);
            if (entries.size() % rowLength != 0)
                Fail(f.PathOf("rowLength"), std::to_string(entries.size()) + " entries do not make rows of " +
                                                std::to_string(rowLength));
            std::vector<std::vector<uint32_t>> rows;
            for (size_t start = 0; start < entries.size(); start += rowLength)
                rows.emplace_back(entries.begin() + start, entries.begin() + start + rowLength);
            return rows;
        }
    } catch (const InputError&) {
        throw;
    } catch (const std::invalid_argument& e) {
        const std::string what = e.what();
        // Messages from the host's builders do not know where they came from.
        if (what.rfind(where, 0) == 0) throw;
        Fail(where, what);
    }
    // "rows": each element is a single-row description.
    const json& rowList = f.Raw("rows");
    if (!rowList.is_array() || rowList.empty()) Fail(f.PathOf("rows"), "expects a non-empty array of row descriptions");
    std::vector<std::vector<uint32_t>> rows;
    for (size_t k = 0; k < rowList.size(); ++k) {
        auto part = RowsOf(rowList[k], f.PathOf("rows") + "[" + std::to_string(k) + "]", base, true, offset);
        for (auto& r : part) rows.push_back(std::move(r));
    }
    return rows;
}

}  // namespace

const std::vector<WindowPreset>& HuWindowPresets() {
    static const std::vector<WindowPreset> presets(std::begin(kHuWindows), std::end(kHuWindows));
    return presets;
}

const std::vector<std::string>& TablePresetNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> list;
        for (const WindowPreset& preset : kHuWindows) list.push_back(preset.name);
        for (const char* other : {"boneColour", "labels", "maskLabels"}) list.push_back(other);
        return list;
    }();
    return names;
}

glm::dvec3 LabelColour(int label) {
    static const glm::dvec3 colours[zrobjects::kLabelCount] = {
        {0.0, 0.0, 0.0}, {0.95, 0.75, 0.6}, {1.0, 1.0, 0.8}, {0.95, 0.45, 0.55}, {0.25, 0.55, 1.0}, {1.0, 0.2, 0.05}};
    return label >= 0 && label < zrobjects::kLabelCount ? colours[label] : glm::dvec3(0.0);
}

std::vector<std::vector<uint32_t>> TableRows(const json& source, const std::string& where, const fs::path& base,
                                             int valueOffset) {
    auto rows = RowsOf(source, where, base, false, valueOffset);
    for (size_t r = 1; r < rows.size(); ++r)
        if (rows[r].size() != rows[0].size())
            Fail(where, "table row " + std::to_string(r) + " has " + std::to_string(rows[r].size()) +
                            " entries, row 0 has " + std::to_string(rows[0].size()));
    return rows;
}

zrobjects::ParamMap FloatWindowParams(const json& source, const std::string& where) {
    const Fields f(source, where);
    zrobjects::ParamMap params;
    auto window = [&](double centre, double width) {
        params["_double_WindowingCenter"] = centre;
        params["_double_WindowingWidth"] = width;
        return params;
    };
    if (f.Has("window")) {
        const Fields w(f.Raw("window"), f.PathOf("window"));
        const double width = w.Number("width");
        if (!(width > 0.0)) Fail(w.PathOf("width"), "window width must be positive");
        return window(w.Number("centre"), width);
    }
    if (f.Has("preset")) {
        const std::string name = f.String("preset");
        for (const WindowPreset& preset : kHuWindows)
            if (name == preset.name) return window(preset.centre, preset.width);
    }
    if (f.Has("controlPoints")) {
        // The float kernel maps a value through the curve and spreads the
        // curve's outputs from its first to its last point over black to white,
        // so the grey of each point is its colour's mean and the curve must end
        // brighter than it starts.
        std::vector<glm::dvec2> curve;
        for (const json& point : f.Raw("controlPoints")) {
            const double grey = (point[1].get<double>() + point[2].get<double>() + point[3].get<double>()) / 3.0;
            curve.emplace_back(point[0].get<double>(), grey);
        }
        if (curve.size() < 2 || !(curve.back().y > curve.front().y))
            Fail(f.PathOf("controlPoints"),
                 "for a float volume the control points must end brighter than they start (at least two points)");
        for (size_t k = 1; k < curve.size(); ++k)
            if (!(curve[k].x > curve[k - 1].x))
                Fail(f.PathOf("controlPoints"), "for a float volume the control point values must increase strictly");
        params["_vlist_DOUBLE2_ITF"] = curve;
        return params;
    }
    Fail(where, "a float volume is windowed by a window, control points or a window preset (" +
                    [] {
                        std::string list;
                        for (const WindowPreset& preset : kHuWindows) list += (list.empty() ? "" : ", ") + std::string(preset.name);
                        return list;
                    }() +
                    ")");
}

std::shared_ptr<zrobjects::ZrObject> BuildTableObject(const json& source, const std::string& where, const fs::path& base,
                                                      int valueOffset) {
    return zrobjects::MakeTableObject(TableRows(source, where, base, valueOffset));
}

LoadedVolume BuildVolumeObject(const json& source, const std::string& where, const fs::path& base) {
    const Fields f(source, where);
    f.OnlyKnown({"type", "phantom", "file", "raw", "dims", "spacing", "origin", "direction", "voxelType", "headerBytes",
                 "byteOrder", "series", "frame"});
    const int sources = f.Has("phantom") + f.Has("file") + f.Has("raw");
    if (sources != 1) Fail(where, "a volume needs exactly one of phantom, file, raw");
    if (f.Has("phantom")) {
        const std::string name = f.String("phantom");
        const zrobjects::PhantomGrid grid = GridOf(f);
        LoadedVolume loaded;
        if (name == "head") {
            // CT-like: Hounsfield units stored with the offset 1024.
            loaded.volume = zrobjects::MakeHeadPhantom(grid);
            loaded.values = MeasureValues(*loaded.volume, 1024);
            loaded.values.units = "HU";
        } else if (name == "labels") {
            loaded.volume = zrobjects::MakeLabelPhantom(grid);
            loaded.values = MeasureValues(*loaded.volume, 0);
        } else if (name == "dose") {
            loaded.volume = zrobjects::MakeDosePhantom(grid);
            loaded.values = MeasureValues(*loaded.volume, 0);
            loaded.values.units = "Gy";
        } else {
            Fail(f.PathOf("phantom"), "unknown phantom \"" + name + "\" (head, labels, dose)");
        }
        return loaded;
    }
    if (f.Has("file")) {
        // A file's voxel type is the one the module is handed (its values
        // converted); a raw file's is how its voxels are stored.
        std::optional<VoxelKind> kind;
        if (f.Has("voxelType")) {
            try {
                kind = ParseVoxelKind(f.String("voxelType"));
            } catch (const std::invalid_argument& e) {
                Fail(f.PathOf("voxelType"), e.what());
            }
        }
        VolumeChoice choice;
        if (f.Has("series")) {
            const json& series = f.Raw("series");
            if (series.is_string())
                choice.series = series.get<std::string>();
            else if (series.is_number_integer())
                choice.series = std::to_string(series.get<int64_t>());
            else
                Fail(f.PathOf("series"), "expects a series UID (text) or number, got " + Shown(series));
        }
        if (f.Has("frame")) choice.frame = f.Int("frame", 0, 0, 1 << 30);
        const std::string path = Resolve(base, f.String("file"));
        LoadProgress progress(path);
        return ReadVolumeFile(path, choice, kind, &progress).loaded;
    }
    for (const char* key : {"series", "frame"})
        if (f.Has(key)) Fail(f.PathOf(key), "only a volume read from a file has series and frames");

    RawVolumeHeader header;
    const json& d = f.Raw("dims");
    if (!d.is_array() || d.size() != 3) Fail(f.PathOf("dims"), "expects an array of 3 integers, got " + Shown(d));
    for (int k = 0; k < 3; ++k)
        header.dims[k] = IntAt(d[k], f.PathOf("dims") + "[" + std::to_string(k) + "]", -2147483647, 2147483647);
    if (!f.Has("voxelType")) Fail(where, "a raw volume needs \"voxelType\"");
    try {
        header.type = ParseStoredType(f.String("voxelType"));
    } catch (const std::invalid_argument& e) {
        Fail(f.PathOf("voxelType"), e.what());
    }
    header.headerBytes = static_cast<uint64_t>(f.Int("headerBytes", 0, 0, 2147483647));
    const std::string order = f.String("byteOrder", "little");
    if (order != "little" && order != "big") Fail(f.PathOf("byteOrder"), "expects \"little\" or \"big\", got \"" + order + "\"");
    header.bigEndian = order == "big";
    header.geometry = RawGeometry(f);
    const std::string path = Resolve(base, f.String("raw"));
    LoadProgress progress(path);
    return ReadRawVolume(path, header, &progress);
}

std::shared_ptr<zrobjects::ZrVObjectPrimitive> BuildMeshObject(const json& source, const std::string& where,
                                                               const fs::path& base) {
    const Fields f(source, where);
    f.OnlyKnown({"type", "file", "builtin", "centre", "radius", "axis", "majorRadius", "minorRadius", "segments",
                 "count"});
    if (f.Has("file") == f.Has("builtin")) Fail(where, "a mesh needs exactly one of file, builtin");
    zrobjects::MeshArrays arrays;
    if (f.Has("file")) {
        const std::string path = Resolve(base, f.String("file"));
        LoadProgress progress(path);
        arrays = ReadMeshFile(path, &progress);
        progress.Step("building the hierarchy");
        try {
            return MakeMeshObject(std::move(arrays));
        } catch (const std::invalid_argument& e) {
            throw InputError(path, e.what());
        }
    }
    const std::string shape = f.String("builtin");
    const int segments = f.Int("segments", 48, 3, 4096);
    try {
        if (shape == "sphere") {
            arrays = zrobjects::MakeSphereArrays(f.Number("radius", 40.0), std::max(2, segments / 2), segments,
                                                  f.Vec3("centre", glm::dvec3(0.0)));
        } else if (shape == "torus") {
            arrays = zrobjects::MakeTorusMesh(f.Vec3("centre", glm::dvec3(0.0)), f.Vec3("axis", {0.0, 0.0, 1.0}),
                                              f.Number("majorRadius", 50.0), f.Number("minorRadius", 12.0), segments);
        } else if (shape == "headSurface") {
            arrays = zrobjects::MakeEllipsoidMesh(glm::dvec3(0.0), zrobjects::kHeadSkinSemiAxes, segments);
        } else if (shape == "pointSet") {
            arrays = zrobjects::MakeSkinPointSet(f.Int("count", 200, 1, 1000000));
        } else {
            Fail(f.PathOf("builtin"), "unknown built-in mesh \"" + shape + "\" (sphere, torus, headSurface, pointSet)");
        }
    } catch (const std::invalid_argument& e) {
        const std::string what = e.what();
        if (what.rfind(where, 0) == 0) throw;
        Fail(where, what);
    }
    return MakeMeshObject(std::move(arrays));
}

}  // namespace zrio
