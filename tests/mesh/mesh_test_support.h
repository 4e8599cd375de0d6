// Small scenes for the mesh slicer tests: an axial camera looking along +z
// through the origin, meshes built with the reference host, and pixel reads.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include <glm/glm.hpp>

#include "host/image_builder.h"
#include "host/mesh_builder.h"
#include "host/plugin_interface.h"
#include "host/zr_image.h"

namespace meshtest {

// 64 x 48 pixels, 0.5 mm apart, centred on the origin, looking along +z with the
// image's top towards -y: screen x = 2 * world x + 31.5, y = 2 * world y + 23.5.
inline std::shared_ptr<zrobjects::ZrIObject> AxialImage(int width = 64, int height = 48) {
    zrobjects::SectionView view;
    view.centre = glm::dvec3(0.0);
    view.viewDirection = glm::dvec3(0.0, 0.0, 1.0);
    view.up = glm::dvec3(0.0, -1.0, 0.0);
    view.pixelSpacing = glm::dvec2(0.5);
    view.size = glm::ivec2(width, height);
    return zrobjects::MakeSectionImage(view);
}

inline glm::vec2 AxialScreen(const glm::vec2& world, int width = 64, int height = 48) {
    return glm::vec2(2.0f * world.x + 0.5f * (width - 1), 2.0f * world.y + 0.5f * (height - 1));
}

// A wall: the rectangle x = `x`, |y| <= halfLength, |z| <= 5 as two triangles.
// The view plane z = 0 cuts it along a line from (x, -halfLength) to (x, halfLength).
inline zrobjects::MeshArrays Wall(float x, float halfLength) {
    zrobjects::MeshArrays arrays;
    arrays.positions = {x, -halfLength, -5.0f, x, halfLength, -5.0f, x, halfLength, 5.0f, x, -halfLength, 5.0f};
    arrays.indices = {0, 1, 2, 0, 2, 3};
    return arrays;
}

struct Scene {
    std::shared_ptr<zrobjects::ZrIObject> image;
    std::vector<std::shared_ptr<zrobjects::ZrVObjectPrimitive>> meshes;
    zrobjects::ModuleRequest request;

    Scene() : image(AxialImage()) {
        request.params["_ZrIObject*_RenderOut"] = image.get();
        request.params["_string_RenderingSourceType"] = std::string("SECTIONAL_MESH");
    }

    zrobjects::SceneEntry& Add(const zrobjects::MeshArrays& arrays, glm::vec3 colour = glm::vec3(1.0f)) {
        meshes.push_back(zrobjects::MakeMeshPrimitive(arrays));
        zrobjects::SceneEntry entry;
        entry.object = meshes.back().get();
        entry.colour = colour;
        request.scene.push_back(entry);
        return request.scene.back();
    }

    uint32_t* Buffer(int usage, int index) {
        zrobjects::FrameBuffer* buffer = image->GetFrameBuffer(usage, index);
        return buffer ? static_cast<uint32_t*>(buffer->pixels) : nullptr;
    }
    // Render-out 0 made by an earlier renderer: named "shown", every byte `fill`.
    void Shown(uint8_t fill) {
        image->InsertFrameBuffer(zrobjects::MakeDataType<zrobjects::color4>(), 1, "shown");
        std::memset(Buffer(1, 0), fill, static_cast<size_t>(image->Width()) * image->Height() * 4);
    }
    uint32_t Pixel(int index, int x, int y) { return Buffer(1, index)[y * image->Width() + x]; }
    float Depth(int x, int y) {
        return static_cast<float*>(image->GetFrameBuffer(2, 0)->pixels)[y * image->Width() + x];
    }
};

inline int CountSet(const uint32_t* pixels, int count) {
    int set = 0;
    for (int i = 0; i < count; ++i) set += pixels[i] != 0;
    return set;
}

}  // namespace meshtest
