#include "demo.h"

#include <cstdio>
#include <filesystem>

#include "host/phantoms.h"
#include "io/input_error.h"

namespace zrslice {

using zrio::InputError;
using zrio::PluginSession;
using zrio::RenderOutput;
using zrio::RequestFile;
using zrio::RgbaImage;

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

// ---- request building blocks ----

json Camera(const glm::dvec3& position, const glm::dvec3& view, const glm::dvec3& up, double extent) {
    return {{"position", {position.x, position.y, position.z}},
            {"viewDirection", {view.x, view.y, view.z}},
            {"up", {up.x, up.y, up.z}},
            {"viewExtent", extent}};
}

// Axial view from the feet: anterior at the top, the patient's left on the
// right of the image (radiological convention).
json Axial(double z) { return Camera({0.0, 0.0, z}, {0.0, 0.0, 1.0}, {0.0, -1.0, 0.0}, 240.0); }
// Coronal view from the front: superior at the top.
json Coronal(double y) { return Camera({0.0, y, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}, 240.0); }

json Image(int size, json camera) { return {{"size", {size, size}}, {"camera", std::move(camera)}}; }

json Head() { return {{"type", "volume"}, {"phantom", "head"}}; }
json Preset(const char* name) { return {{"type", "table"}, {"preset", name}}; }

json VolumeEntry(const char* object, json tables, json params = json::object(), json objectParams = json::object()) {
    json entry = {{"object", object}, {"tables", std::move(tables)}};
    if (!params.empty()) entry["params"] = std::move(params);
    if (!objectParams.empty()) entry["objectParams"] = std::move(objectParams);
    return entry;
}

json MeshEntry(const char* object, const glm::dvec3& colour) {
    return {{"object", object}, {"colour", {colour.r, colour.g, colour.b}}};
}

json VolumeRequest(json extra = json::object()) {
    json request = {{"_string_RenderingSourceType", "SECTIONAL_VOLUME"}, {"_bool_IsFirstRenderer", true},
                    {"_bool_IsFinalRenderer", true}};
    request.update(extra);
    return request;
}

json Document(const std::string& description, json image, json objects, json scene, json requests) {
    return {{"description", description}, {"image", std::move(image)}, {"objects", std::move(objects)},
            {"scene", std::move(scene)},   {"requests", std::move(requests)}};
}

// A head slice with a table preset, as the base of most pictures.
json HeadSlice(const std::string& description, int size, json camera, const char* preset, json request) {
    return Document(description, Image(size, std::move(camera)), {{"head", Head()}, {"window", Preset(preset)}},
                    json::array({VolumeEntry("head", {{"WINDOWING", "window"}})}),
                    json::array({VolumeRequest(std::move(request))}));
}

// A head slice followed by a mesh request drawn over it (the renderer chain).
json SliceThenMeshes(const std::string& description, int size, json meshObjects, json meshEntries, json meshRequest) {
    json objects = {{"head", Head()}, {"window", Preset("softTissue")}};
    objects.update(meshObjects);
    json scene = json::array({VolumeEntry("head", {{"WINDOWING", "window"}})});
    for (auto& e : meshEntries) scene.push_back(e);
    json first = VolumeRequest({{"_bool_IsFinalRenderer", false}});
    json second = {{"_string_RenderingSourceType", "SECTIONAL_MESH"}, {"_bool_IsFirstRenderer", false},
                   {"_bool_IsFinalRenderer", true}, {"_bool_IsRGBA", true}};
    second.update(meshRequest);
    return Document(description, Image(size, Axial(20.0)), std::move(objects), std::move(scene),
                    json::array({std::move(first), std::move(second)}));
}

json CurveLists(const zrobjects::CentreLine& line) {
    json points = json::array(), ups = json::array(), tangents = json::array();
    for (size_t k = 0; k < line.points.size(); ++k) {
        points.push_back({line.points[k].x, line.points[k].y, line.points[k].z});
        ups.push_back({line.upVectors[k].x, line.upVectors[k].y, line.upVectors[k].z});
        tangents.push_back({line.tangents[k].x, line.tangents[k].y, line.tangents[k].z});
    }
    return {{"_vlist_FLOAT3_CurveInterpolations", points},
            {"_vlist_FLOAT3_CurveUpVectors", ups},
            {"_vlist_FLOAT3_CurveTangentVectors", tangents}};
}

// A curved reformation along the built-in arch (its length as the plane width,
// 160 mm high) on a size x size / 2 image. The whole curve, or in fast quality
// mode its lower left quarter, panned and zoomed, with the head surface's
// cut line drawn over it by the mesh renderer.
json CurvedArch(const std::string& description, int size, bool fastWithMesh) {
    const zrobjects::CentreLine line = zrobjects::MakeArchCentreLine(64, 0.0);
    double length = 0.0;
    for (size_t k = 1; k < line.points.size(); ++k) length += glm::length(line.points[k] - line.points[k - 1]);
    json curve = {{"_bool_IsNonlinear", true},
                  {"_float_ExPlaneWidth", length},
                  {"_float_ExPlaneHeight", 160.0},
                  {"_float_CurveThicknessPositionRange", 1.0},
                  {"_float_ThicknessRatio", 0.0}};
    curve.update(CurveLists(line));
    json request = VolumeRequest(curve);
    json camera = {{"position", {0.0, 0.0, 0.0}},
                   {"viewDirection", {0.0, 0.0, 1.0}},
                   {"up", {0.0, -1.0, 0.0}},
                   {"viewExtent", {length, 160.0}}};
    json objects = {{"head", Head()}, {"window", Preset("softTissue")}};
    json scene = json::array({VolumeEntry("head", {{"WINDOWING", "window"}})});
    json requests = json::array();
    if (fastWithMesh) {
        camera["position"] = {-0.25 * length, 40.0, 0.0};  // the lower left quarter
        camera["viewExtent"] = {0.5 * length, 80.0};
        request.update({{"_bool_IsFastQualityMode", true},
                        {"_int_LengthFastModeMax", size / 4},
                        {"_bool_IsFinalRenderer", false}});
        objects["skin"] = {{"type", "mesh"}, {"builtin", "headSurface"}, {"segments", 96}};
        scene.push_back(MeshEntry("skin", {1.0, 0.9, 0.1}));
        json mesh = {{"_string_RenderingSourceType", "SECTIONAL_MESH"}, {"_bool_IsFirstRenderer", false},
                     {"_bool_IsFinalRenderer", true}, {"_bool_IsRGBA", true}, {"_int_LineThickness", 2}};
        mesh.update(curve);
        requests.push_back(std::move(request));
        requests.push_back(std::move(mesh));
    } else {
        requests.push_back(std::move(request));
    }
    json image = {{"size", {size, size / 2}}, {"camera", std::move(camera)}};
    return Document(description, std::move(image), std::move(objects), std::move(scene), std::move(requests));
}

// ---- contact-sheet captions: a 3 x 5 pixel font ----

const char* Glyph(char c) {
    // Each glyph is five rows of three cells, top row first.
    static const char* const letters[26] = {".#.#.#####.##.#", "##.#.###.#.###.", ".###..#..#...##", "##.#.##.##.###.", "####..##.#..###", "####..##.#..#..", ".###..#.##.#.##", "#.##.#####.##.#", "###.#..#..#.###", "..#..#..##.#.#.", "#.##.###.#.##.#", "#..#..#..#..###", "#.########.##.#", "##.#.##.##.##.#", ".#.#.##.##.#.#.", "##.#.###.#..#..", ".#.#.##.###..##", "##.#.###.#.##.#", ".###...#...###.", "###.#..#..#..#.", "#.##.##.##.####", "#.##.##.##.#.#.", "#.##.########.#", "#.##.#.#.#.##.#", "#.##.#.#..#..#.", "###..#.#.#..###"};
    static const char* const digits[10] = {"####.##.##.####", ".#.##..#..#.###", "##...#.#.#..###", "##...#.#...###.", "#.##.####..#..#", "####..##...###.", ".###..####.####", "###..#.#..#..#.", "####.#####.####", "####.####..###."};
    if (c >= 'A' && c <= 'Z') return letters[c - 'A'];
    if (c >= 'a' && c <= 'z') return letters[c - 'a'];
    if (c >= '0' && c <= '9') return digits[c - '0'];
    if (c == '-') return "......###......";
    return "...............";
}

void DrawCaption(RgbaImage& sheet, int x0, int y0, const std::string& text, int scale, int maxWidth) {
    const size_t fits = static_cast<size_t>(std::max(0, maxWidth / (4 * scale)));
    for (size_t n = 0; n < std::min(text.size(), fits); ++n) {
        const char* glyph = Glyph(text[n]);
        const size_t cells = std::char_traits<char>::length(glyph);
        for (size_t cell = 0; cell < cells && cell < 15; ++cell) {
            if (glyph[cell] != '#') continue;
            const int gx = static_cast<int>(cell % 3), gy = static_cast<int>(cell / 3);
            for (int dy = 0; dy < scale; ++dy)
                for (int dx = 0; dx < scale; ++dx) {
                    const int x = x0 + static_cast<int>(n) * 4 * scale + gx * scale + dx, y = y0 + gy * scale + dy;
                    if (x < 0 || y < 0 || x >= sheet.width || y >= sheet.height) continue;
                    uint8_t* p = &sheet.pixels[(static_cast<size_t>(y) * sheet.width + x) * 4];
                    p[0] = p[1] = p[2] = 230;
                    p[3] = 255;
                }
        }
    }
}

}  // namespace

std::string RequestFileText(const json& document) {
    // Indented like any JSON, but arrays that hold only numbers (or arrays of
    // numbers) stay on one line, so vectors and matrices read as written.
    const std::string text = document.dump(2);
    std::string out;
    out.reserve(text.size());
    for (size_t k = 0; k < text.size(); ++k) {
        if (text[k] == '[') {
            int depth = 0;
            size_t end = k;
            bool plain = true;
            for (; end < text.size(); ++end) {
                const char c = text[end];
                if (c == '[') ++depth;
                if (c == ']' && --depth == 0) break;
                if (c == '{' || c == '"') plain = false;
            }
            if (plain && end < text.size()) {
                bool space = false;
                for (size_t j = k; j <= end; ++j) {
                    const char c = text[j];
                    if (c == ' ' || c == '\n') {
                        space = true;
                        continue;
                    }
                    if (space && out.back() == ',') out += ' ';
                    space = false;
                    out += c;
                }
                k = end;
                continue;
            }
        }
        out += text[k];
    }
    return out + "\n";
}

std::vector<DemoItem> DemoItems(int size) {
    std::vector<DemoItem> items;
    auto add = [&](const std::string& name, json document) {
        const std::string description = document["description"].get<std::string>();
        items.push_back({name, description, std::move(document)});
    };

    add("01-axial", HeadSlice("Axial slice of the head phantom through the ventricles and the lesion, soft-tissue "
                              "window, with the 16-bit sample values kept.",
                              size, Axial(20.0), "softTissue", {{"_bool_StoreSampleValueToCustomBuffer", true}}));
    add("02-oblique", HeadSlice("Oblique slice tilted about two axes, soft-tissue window.", size,
                                Camera({0.0, 0.0, 10.0}, {0.35, 0.45, 0.82}, {0.0, -1.0, 0.0}, 240.0), "softTissue",
                                json::object()));
    add("03-slab-maximum", HeadSlice("Maximum over a 40 mm axial slab, bone window: the skull ring and the skull "
                                     "base stand out.",
                                     size, Axial(-30.0), "bone",
                                     {{"_int_VolumeRayCastType", 10}, {"_float_PlaneThickness", 40.0}}));
    add("04-slab-minimum", HeadSlice("Minimum over a 20 mm axial slab through the sinus, soft-tissue window: air "
                                     "and fluid win.",
                                     size, Axial(-20.0), "softTissue",
                                     {{"_int_VolumeRayCastType", 11}, {"_float_PlaneThickness", 20.0}}));
    add("05-slab-average", HeadSlice("Average over a 30 mm axial slab, soft-tissue window.", size, Axial(20.0),
                                     "softTissue", {{"_int_VolumeRayCastType", 12}, {"_float_PlaneThickness", 30.0}}));
    {
        json doc = Document(
            "Shaded slab: front-to-back compositing with gradient shading over a 120 mm coronal slab through a "
            "bone colour table.",
            Image(size, Coronal(0.0)), {{"head", Head()}, {"window", Preset("bone")}, {"otf", Preset("boneColour")}},
            json::array({VolumeEntry("head", {{"WINDOWING", "window"}, {"OTF", "otf"}}, json::object(),
                                     {{"_float2_GraidentMagMinMax", {0.0, 1000.0}}})}),
            json::array({VolumeRequest({{"_int_VolumeRayCastType", 1}, {"_float_PlaneThickness", 120.0}})}));
        add("06-shaded-slab", std::move(doc));
    }
    add("07-curved", CurvedArch("Curved reformation along a built-in arch-shaped centre line through the face "
                                "and both sides of the head, unrolled.",
                                size, false));
    add("08-mask-tables",
        Document("Mask-selected tables: the label volume picks one table per tissue (scalp, skull, brain, "
                 "ventricles, lesion tinted over the grey window).",
                 Image(size, Axial(20.0)),
                 {{"head", Head()}, {"labels", {{"type", "volume"}, {"phantom", "labels"}}},
                  {"tables", Preset("maskLabels")}},
                 json::array({VolumeEntry("head", {{"WINDOWING", "tables"}, {"MASKVOLUME", "labels"}},
                                          {{"_bool_MultiOTF", true}, {"_int_NumOTFs", 5}})}),
                 json::array({VolumeRequest()})));
    {
        // Mode 101 tints the pixels already in the target with the label
        // colours of the volume it visits. It needs a plane thicker than a
        // voxel (thinner planes fall back to a plain slice), and a thick plane
        // would turn the head into a slab; the head is therefore drawn through
        // the mask-selected family, which samples one plane whatever the
        // thickness, with every table row the same grey window so that the
        // mask changes nothing. The label volume then tints it, and its own
        // slab pass draws nothing for mode 101.
        json greyRows = json::array();
        for (int k = 0; k < zrobjects::kLabelCount; ++k) greyRows.push_back({{"preset", "softTissue"}});
        json objects = {{"head", Head()},
                        {"labels", {{"type", "volume"}, {"phantom", "labels"}}},
                        {"greyRows", {{"type", "table"}, {"rows", greyRows}}},
                        {"labelColours", Preset("labels")}};
        json scene = json::array({VolumeEntry("head", {{"WINDOWING", "greyRows"}, {"MASKVOLUME", "labels"}},
                                              {{"_bool_MultiOTF", true}, {"_int_NumOTFs", 5}}),
                                  VolumeEntry("labels", {{"WINDOWING", "labelColours"}})});
        add("09-label-overlay", Document("Label overlay: the segmentation's label colours tint the soft-tissue "
                                         "slice drawn before it (render mode 101 over a 2 mm plane).",
                                         Image(size, Axial(20.0)), std::move(objects), std::move(scene),
                                         json::array({VolumeRequest({{"_int_VolumeRayCastType", 101},
                                                                     {"_float_PlaneThickness", 2.0}})})));
    }
    {
        json objects = {{"dose", {{"type", "volume"}, {"phantom", "dose"}}}, {"window", Preset("softTissue")}};
        add("10-float-window",
            Document("Float dose volume through a grey window (centre 30, width 60).", Image(size, Axial(25.0)),
                     objects,
                     json::array({VolumeEntry("dose", {{"WINDOWING", "window"}},
                                              {{"_double_WindowingCenter", 30.0}, {"_double_WindowingWidth", 60.0}})}),
                     json::array({VolumeRequest()})));
        add("11-float-curve",
            Document("Float dose volume through a piecewise-linear grey curve that lifts low doses.",
                     Image(size, Axial(25.0)), objects,
                     json::array({VolumeEntry("dose", {{"WINDOWING", "window"}},
                                              {{"_vlist_DOUBLE2_ITF", {{0.5, 0.0}, {5.0, 60.0}, {30.0, 85.0}, {60.0, 100.0}}}})}),
                     json::array({VolumeRequest()})));
    }
    {
        json doc = HeadSlice("Iso-lines over an axial slice: the outer line (1500, yellow, mostly covered by the "
                             "later lines), the inner line (1044, cyan: skin and ventricles), the middle value "
                             "(1272, magenta) and the iso line (1094, red: lesion and inner skull).",
                             size, Axial(20.0), "softTissue",
                             {{"_bool_DrawIsoBoundary", true},
                              {"_int_Density0", 1500},
                              {"_double4_ColorOuter", {1.0, 1.0, 0.0, 1.0}},
                              {"_int_Density1", 1044},
                              {"_double4_ColorInner", {0.0, 1.0, 1.0, 1.0}},
                              {"_int_IsoValueBoundary", 1094},
                              {"_double4_ColorIso", {1.0, 0.0, 0.0, 1.0}}});
        doc["requests"][0]["targetVolume"] = "head";
        add("12-iso-lines", std::move(doc));
    }
    add("13-mesh-cut",
        SliceThenMeshes("Mesh cut over a slice through the renderer chain: the head surface (yellow), a sphere "
                        "around the lesion (red) and a torus (green) cut by the slice plane.",
                        size,
                        {{"skin", {{"type", "mesh"}, {"builtin", "headSurface"}, {"segments", 96}}},
                         {"ball", {{"type", "mesh"}, {"builtin", "sphere"}, {"centre", {25.0, 20.0, 25.0}}, {"radius", 14.0}}},
                         {"ring", {{"type", "mesh"}, {"builtin", "torus"}, {"centre", {-20.0, -30.0, 23.0}},
                                   {"axis", {1.0, 0.0, 0.0}}, {"majorRadius", 22.0}, {"minorRadius", 6.0}}}},
                        json::array({MeshEntry("skin", {1.0, 0.9, 0.1}), MeshEntry("ball", {1.0, 0.15, 0.1}),
                                     MeshEntry("ring", {0.2, 1.0, 0.3})}),
                        {{"_int_LineThickness", 2}}));
    add("14-point-set",
        SliceThenMeshes("Point set: fiducial-like points on the skin surface drawn over a slice.", size,
                        {{"points", {{"type", "mesh"}, {"builtin", "pointSet"}, {"count", 150}}}},
                        json::array({MeshEntry("points", {0.2, 0.8, 1.0})}),
                        {{"_double_SphereRadius", 2.0}, {"_double_ZoominRadius", 3.0}}));
    add("15-fast-mode", HeadSlice("Fast quality mode: the slice is rendered at a reduced size (at most 64 pixels) "
                                  "and scaled up.",
                                  size, Axial(20.0), "softTissue",
                                  {{"_bool_IsFastQualityMode", true}, {"_int_LengthFastModeMax", 64}}));
    add("16-fast-curved", CurvedArch("Fast quality curved reformation, panned and zoomed onto the lower left quarter "
                                     "of the arch (reduced to a quarter of its size), with the head surface's cut line (yellow) "
                                     "drawn over it by the mesh renderer.",
                                     size, true));
    {
        json doc = HeadSlice("Fast quality mode with iso-lines: the slice is reduced to a quarter of its size and "
                             "scaled up, the lines (1044 cyan, 1094 red) are drawn at full resolution.",
                             size, Axial(20.0), "softTissue",
                             {{"_bool_IsFastQualityMode", true},
                              {"_int_LengthFastModeMax", size / 4},
                              {"_bool_DrawIsoBoundary", true},
                              {"_int_Density1", 1044},
                              {"_double4_ColorInner", {0.0, 1.0, 1.0, 1.0}},
                              {"_int_IsoValueBoundary", 1094},
                              {"_double4_ColorIso", {1.0, 0.0, 0.0, 1.0}}});
        doc["requests"][0]["targetVolume"] = "head";
        add("17-fast-iso-lines", std::move(doc));
    }
    return items;
}

RgbaImage ContactSheet(const std::vector<RgbaImage>& pictures, const std::vector<std::string>& captions, int columns) {
    int cellW = 1, cellH = 1;
    for (const RgbaImage& p : pictures) {
        cellW = std::max(cellW, p.width);
        cellH = std::max(cellH, p.height);
    }
    constexpr int kGap = 8, kScale = 2, kCaption = 5 * kScale + 6;
    const int count = static_cast<int>(pictures.size());
    const int rows = std::max(1, (count + columns - 1) / columns);
    RgbaImage sheet;
    sheet.width = kGap + columns * (cellW + kGap);
    sheet.height = kGap + rows * (cellH + kCaption + kGap);
    sheet.pixels.resize(static_cast<size_t>(sheet.width) * sheet.height * 4);
    for (size_t p = 0; p < sheet.pixels.size(); p += 4) {
        sheet.pixels[p] = sheet.pixels[p + 1] = sheet.pixels[p + 2] = 40;
        sheet.pixels[p + 3] = 255;
    }
    for (int n = 0; n < count; ++n) {
        const RgbaImage& picture = pictures[n];
        const int x0 = kGap + (n % columns) * (cellW + kGap), y0 = kGap + (n / columns) * (cellH + kCaption + kGap);
        // Pictures are premultiplied by their table's opacity, so they go over
        // black; the coverage byte is not an opacity and is not used here.
        for (int y = 0; y < picture.height; ++y)
            for (int x = 0; x < picture.width; ++x) {
                const uint8_t* s = &picture.pixels[(static_cast<size_t>(y) * picture.width + x) * 4];
                uint8_t* d = &sheet.pixels[(static_cast<size_t>(y0 + y) * sheet.width + x0 + x) * 4];
                d[0] = s[0];
                d[1] = s[1];
                d[2] = s[2];
                d[3] = 255;
            }
        if (n < static_cast<int>(captions.size())) DrawCaption(sheet, x0, y0 + cellH + 4, captions[n], kScale, cellW);
    }
    return sheet;
}

void RunDemo(const std::string& folder, PluginSession& plugin, int size, bool quiet) {
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec) throw InputError(folder, "cannot create the output folder: " + ec.message());
    const std::vector<DemoItem> items = DemoItems(size);
    std::vector<RgbaImage> pictures;
    std::vector<std::string> captions;
    std::string index = "# zrslice demo gallery\n\nEach picture was rendered from the request file beside it; replay "
                        "one with `zrslice render <name>.json -o <name>.png`.\n\n";
    for (size_t n = 0; n < items.size(); ++n) {
        const DemoItem& item = items[n];
        const std::string requestPath = (fs::path(folder) / (item.name + ".json")).string();
        if (!quiet) std::fprintf(stderr, "zrslice: [%zu/%zu] %s\n", n + 1, items.size(), item.name.c_str());
        const RequestFile file = zrio::ParseRequestDocument(item.document, requestPath, fs::path(folder));
        RenderOutput output = zrio::RunRequestFile(file, plugin);
        zrio::WriteTextFile(requestPath, RequestFileText(item.document));
        zrio::WriteRenderOutput(output, zrio::OutputPathsFor((fs::path(folder) / (item.name + ".png")).string()));
        pictures.push_back(std::move(output.picture));
        captions.push_back(item.name);
        index += "- `" + item.name + ".png`: " + item.description + "\n";
    }
    zrio::WriteRenderOutput({ContactSheet(pictures, captions, 5), std::nullopt, nlohmann::json::object(), {}},
                      {(fs::path(folder) / "contact-sheet.png").string(), "", ""});
    zrio::WriteTextFile((fs::path(folder) / "index.md").string(), index);
}

}  // namespace zrslice
