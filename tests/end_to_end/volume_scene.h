// Small sectional-volume scenes for end-to-end requests through the loaded
// plug-in: a linear ramp volume (where trilinear sampling is exact), a grey
// table, and an axial or tilted section camera over it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/image_builder.h"
#include "host/plugin_loader.h"
#include "host/table_builder.h"
#include "host/volume_builder.h"
#include "host/zrobjects.h"

namespace e2e {

using namespace zrobjects;

inline PluginModule& Plugin() {
    static PluginModule plugin(ZR_PLUGIN_PATH);
    static const bool initialised = plugin.initModule();
    (void)initialised;
    return plugin;
}

// v(x, y, z) = 100 + 10 x + 3 y + 50 z on a 16 x 16 x 8 grid (by default).
inline double Ramp(double x, double y, double z) { return 100.0 + 10.0 * x + 3.0 * y + 50.0 * z; }

inline std::shared_ptr<ZrVObjectVolume> RampVolume(glm::dvec3 spacing = glm::dvec3(1.0),
                                                   glm::ivec3 dims = glm::ivec3(16, 16, 8)) {
    std::vector<unsigned short> voxels;
    for (int z = 0; z < dims.z; ++z)
        for (int y = 0; y < dims.y; ++y)
            for (int x = 0; x < dims.x; ++x) voxels.push_back(static_cast<unsigned short>(Ramp(x, y, z)));
    VolumeGeometry geometry;
    geometry.spacing = spacing;
    return MakeVolume<unsigned short>(voxels, dims, geometry);
}

struct Scene {
    std::vector<std::shared_ptr<ZrVObjectVolume>> volumes;
    std::shared_ptr<ZrObject> table = MakeTableObject({WindowTableEntries(400.0, 800.0)});
    std::shared_ptr<ZrIObject> image;
    ModuleRequest request;

    // Adds a volume with this scene's table as its "WINDOWING" table.
    ZrVObjectVolume& Add(std::shared_ptr<ZrVObjectVolume> volume) {
        volume->SetTableObject("WINDOWING", table);
        SceneEntry entry;
        entry.object = volume.get();
        request.scene.push_back(entry);
        volumes.push_back(std::move(volume));
        return *volumes.back();
    }

    FrameBuffer& Buffer(int usage, int index) { return *image->GetFrameBuffer(usage, index); }
    uint32_t Pixel(int usage, int index, int x, int y) {
        return static_cast<const uint32_t*>(Buffer(usage, index).pixels)[y * image->Width() + x];
    }
    uint16_t Value(int x, int y, int index = 0) {
        return static_cast<const uint16_t*>(Buffer(3, index).pixels)[y * image->Width() + x];
    }
    // Copies of a whole colour (usage 1) or value (usage 3) buffer.
    std::vector<uint32_t> Colours(int index = 0) {
        const auto* p = static_cast<const uint32_t*>(Buffer(1, index).pixels);
        return {p, p + image->Width() * image->Height()};
    }
    std::vector<uint16_t> Values() {
        const auto* p = static_cast<const uint16_t*>(Buffer(3, 0).pixels);
        return {p, p + image->Width() * image->Height()};
    }
    // Sets request parameters, replacing earlier values.
    Scene& With(const ParamMap& params) {
        for (const auto& [key, value] : params) request.params[key] = value;
        return *this;
    }
    bool Run() { return Plugin().doModule(&request); }
};

// Axial view at z = 3 over the middle of the ramp: pixel (c, r) at world
// (-0.25 + c * spacing, -0.25 + r * spacing, 3) for the default 32 x 32 image.
inline SectionView AxialView(int size = 32, double spacing = 0.5, double z = 3.0) {
    SectionView view;
    view.centre = {7.5, 7.5, z};
    view.viewDirection = {0, 0, 1};
    view.up = {0, -1, 0};
    view.pixelSpacing = {spacing, spacing};
    view.size = {size, size};
    return view;
}

inline Scene RampScene(const SectionView& view = AxialView(), const ParamMap& params = {}) {
    Scene scene;
    scene.Add(RampVolume());
    scene.image = MakeSectionImage(view);
    scene.request.params["_ZrIObject*_RenderOut"] = scene.image.get();
    scene.request.params["_bool_IsFirstRenderer"] = true;
    scene.With(params);
    return scene;
}

// World position of a pixel centre of the axial view.
inline glm::dvec3 AxialPixel(int c, int r, double spacing = 0.5, double z = 3.0) {
    return {7.5 + (c - 15.5) * spacing, 7.5 + (r - 15.5) * spacing, z};
}

inline bool AllZero(const FrameBuffer& buffer, size_t bytes) {
    const auto* p = static_cast<const uint8_t*>(buffer.pixels);
    for (size_t i = 0; i < bytes; ++i)
        if (p[i]) return false;
    return true;
}

}  // namespace e2e
