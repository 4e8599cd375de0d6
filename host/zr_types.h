// Records shared between the host object library and the render module: element
// type descriptors, frame buffers, voxel grids, mesh data, lookup tables and the
// enumerations the module passes by number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <typeinfo>
#include <vector>

#include <glm/glm.hpp>

namespace zrenums {

enum EzrFrameBufferUsage : int {
    EzrFrameBufferUsage_RenderOut = 1,   // color4 render-out buffers: 0 shown, 1 and 2 working
    EzrFrameBufferUsage_Depth = 2,       // first-hit screen depth, one float per pixel
    EzrFrameBufferUsage_Custom = 3,      // element type chosen by the renderer
};

enum EzrObjectType : int {
    EzrObjectType_Unknown = 0,
    EzrObjectType_Image = 1,
    EzrObjectType_Volume = 2,
    EzrObjectType_Primitive = 3,
    EzrObjectType_Camera = 4,
    EzrObjectType_Table = 5,
};

enum EzrCoordSpace : int {
    EzrCoordSpace_Object = 0,
    EzrCoordSpace_Reference = 1,
    EzrCoordSpace_Screen = 2,
    EzrCoordSpace_World = 3,
};

enum EzrPrimitiveTopology : int {
    EzrPrimitiveTopology_Lines = 1,
    EzrPrimitiveTopology_Triangles = 2,
    EzrPrimitiveTopology_Points = 3,
};

}  // namespace zrenums

namespace zrobjects {

// One RGBA pixel of the render-out buffers; the channel order in memory is set
// by whoever writes it (RGBA or BGRA).
struct color4 {
    uint8_t r, g, b, a;
};
static_assert(sizeof(color4) == 4);

// Element type of a frame buffer or a voxel grid, identified by the runtime
// type descriptor so that both sides of the library boundary agree.
struct data_type {
    std::string name;
    uint64_t hash = 0;
    uint32_t size = 0;

    bool operator==(const data_type& other) const {
        return name == other.name && hash == other.hash && size == other.size;
    }
};

template <class T>
data_type MakeDataType() {
    return data_type{typeid(T).name(), static_cast<uint64_t>(typeid(T).hash_code()),
                     static_cast<uint32_t>(sizeof(T))};
}

// Axis-aligned box, minimum and maximum corners.
struct AaBbMinMax {
    glm::dvec3 pos_min{0.0};
    glm::dvec3 pos_max{0.0};
};

// One pixel array of an image object. The module reads the first two fields
// (width as row pitch, pixel pointer) by position, so they stay first.
struct FrameBuffer {
    int32_t width = 0;
    void* pixels = nullptr;
    int32_t height = 0;
    data_type elementType;
    std::string descriptor;
    std::shared_ptr<std::byte[]> storage;  // owns `pixels`; padded past the last row
};

// Transfer table: `rows` row pointers of packed 32-bit entries (c0 bits 0-7,
// c1 8-15, c2 16-23, opacity 24-31). array_lengths.x counts the entries of a
// row, .y the rows. Each row holds max(x + 1, 65536) readable entries, the tail
// repeating the last counted one, so the unclamped lookups of the kernels stay
// inside the allocation.
struct MapTable {
    uint32_t** pp_data = nullptr;
    std::shared_ptr<void> storage;  // owns the rows and the row-pointer array
    glm::ivec2 array_lengths{0, 0};
};

// Voxel grid of a volume: dense slices with margins on every axis. Voxel
// (x, y, z) is element (x + mx) + (y + my) * (dx + 2 mx) of slice z + mz.
struct VolumeData {
    data_type voxelType;
    glm::dvec3 voxelPitch{1.0};
    glm::ivec3 dims{0};
    glm::ivec3 margins{0};
    std::vector<void*> slices;  // dz + 2 mz pointers
    std::shared_ptr<std::byte[]> storage;

    int RowPitch() const { return dims.x + 2 * margins.x; }
};

// One named vertex attribute: `components` floats per vertex.
struct VertexAttribute {
    int components = 0;
    std::vector<float> values;
};

// Mesh data as the mesh renderer reads it.
struct PrimitiveData {
    std::map<std::string, VertexAttribute> attributes;  // "POSITION", "NORMAL", "TEXCOORD0"
    int32_t topology = zrenums::EzrPrimitiveTopology_Triangles;
    int32_t primitiveCount = 0;
    int32_t verticesPerPrimitive = 3;
    std::vector<uint32_t> indices;
    AaBbMinMax boundingBox;

    const VertexAttribute* FindAttribute(const std::string& name) const {
        auto it = attributes.find(name);
        return it == attributes.end() ? nullptr : &it->second;
    }
};

}  // namespace zrobjects
