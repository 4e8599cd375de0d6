// The one place that maps a volume's element type to a kernel instantiation.
// Integer families try signed 8-bit (char), unsigned 8-bit, signed 16-bit and
// unsigned 16-bit in that order, comparing the element-type name with the
// runtime type name; the choice is made once per call, never per pixel.
#pragma once

#include <string>
#include <typeinfo>

#include "host/zr_types.h"

namespace zrvolume {

enum class VoxelKind { Int8, UInt8, Int16, UInt16, Float32, Unsupported };

inline VoxelKind ClassifyVoxelType(const zrobjects::data_type& type) {
    const std::string& name = type.name;
    if (name == typeid(char).name()) return VoxelKind::Int8;
    if (name == typeid(unsigned char).name()) return VoxelKind::UInt8;
    if (name == typeid(short).name()) return VoxelKind::Int16;
    if (name == typeid(unsigned short).name()) return VoxelKind::UInt16;
    if (name == typeid(float).name()) return VoxelKind::Float32;
    return VoxelKind::Unsupported;
}

template <class T>
struct VoxelTag {
    using type = T;
};

// Calls body(VoxelTag<T>{}) for the four integer voxel types; `fallback` for
// any other type.
template <class R, class Body>
R VisitIntegerVoxelType(const zrobjects::data_type& type, R fallback, Body&& body) {
    switch (ClassifyVoxelType(type)) {
        case VoxelKind::Int8: return body(VoxelTag<char>{});
        case VoxelKind::UInt8: return body(VoxelTag<unsigned char>{});
        case VoxelKind::Int16: return body(VoxelTag<short>{});
        case VoxelKind::UInt16: return body(VoxelTag<unsigned short>{});
        default: return fallback;
    }
}

}  // namespace zrvolume
