#include "volume_builder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>

namespace zrobjects {

namespace {

constexpr long long kMaxVoxels = 1LL << 32;

std::string DimsText(glm::ivec3 d) {
    return std::to_string(d.x) + " x " + std::to_string(d.y) + " x " + std::to_string(d.z);
}

}  // namespace

glm::mat4 VolumeObjectToReference(const VolumeGeometry& geometry) {
    glm::dmat4 m(1.0);
    for (int axis = 0; axis < 3; ++axis)
        for (int row = 0; row < 3; ++row) m[axis][row] = geometry.direction[axis][row] * geometry.spacing[axis];
    m[3] = glm::dvec4(geometry.origin, 1.0);
    return glm::mat4(m);
}

template <class T>
std::shared_ptr<ZrVObjectVolume> MakeVolume(std::span<const T> voxels, glm::ivec3 dims,
                                            const VolumeGeometry& geometry) {
    if (dims.x <= 0 || dims.y <= 0 || dims.z <= 0)
        throw std::invalid_argument("volume dimensions must be positive, got " + DimsText(dims));
    const glm::ivec3 m = geometry.margins;
    if (m.x < 0 || m.y < 0 || m.z < 0) throw std::invalid_argument("volume margins must not be negative");
    const long long count = static_cast<long long>(dims.x) * dims.y * dims.z;
    if (count > kMaxVoxels) throw std::invalid_argument("volume of " + DimsText(dims) + " voxels is too large");
    if (static_cast<long long>(voxels.size()) != count)
        throw std::invalid_argument("volume of " + DimsText(dims) + " needs " + std::to_string(count) +
                                    " voxels, got " + std::to_string(voxels.size()));
    for (int axis = 0; axis < 3; ++axis)
        if (!(geometry.spacing[axis] > 0.0) || !std::isfinite(geometry.spacing[axis]))
            throw std::invalid_argument("volume spacing must be positive and finite");

    auto volume = std::make_shared<ZrVObjectVolume>();
    VolumeData& data = *volume->GetVolumeData();
    data.voxelType = MakeDataType<T>();
    data.voxelPitch = geometry.spacing;
    data.dims = dims;
    data.margins = m;

    const int pitch = dims.x + 2 * m.x;
    const int rows = dims.y + 2 * m.y;
    const int slices = dims.z + 2 * m.z;
    const size_t sliceElements = static_cast<size_t>(pitch) * rows;
    const size_t bytes = sliceElements * slices * sizeof(T) + 64;
    data.storage = std::shared_ptr<std::byte[]>(new std::byte[bytes]);
    std::memset(data.storage.get(), 0, bytes);
    T* base = reinterpret_cast<T*>(data.storage.get());
    data.slices.resize(slices);
    for (int s = 0; s < slices; ++s) data.slices[s] = base + sliceElements * s;

    // Fill every stored voxel from the nearest grid voxel, so the margins repeat the faces.
    for (int s = 0; s < slices; ++s) {
        const int z = std::clamp(s - m.z, 0, dims.z - 1);
        T* slice = base + sliceElements * s;
        for (int r = 0; r < rows; ++r) {
            const int y = std::clamp(r - m.y, 0, dims.y - 1);
            const T* source = voxels.data() + (static_cast<size_t>(z) * dims.y + y) * dims.x;
            T* row = slice + static_cast<size_t>(r) * pitch;
            for (int c = 0; c < pitch; ++c) row[c] = source[std::clamp(c - m.x, 0, dims.x - 1)];
        }
    }

    AaBbMinMax box;
    box.pos_min = glm::dvec3(-0.5);
    box.pos_max = glm::dvec3(dims) - 0.5;
    volume->SetPlacement(VolumeObjectToReference(geometry), box);
    return volume;
}

#define ZR_INSTANTIATE_MAKE_VOLUME(T) \
    template std::shared_ptr<ZrVObjectVolume> MakeVolume<T>(std::span<const T>, glm::ivec3, const VolumeGeometry&);
ZR_INSTANTIATE_MAKE_VOLUME(char)
ZR_INSTANTIATE_MAKE_VOLUME(unsigned char)
ZR_INSTANTIATE_MAKE_VOLUME(short)
ZR_INSTANTIATE_MAKE_VOLUME(unsigned short)
ZR_INSTANTIATE_MAKE_VOLUME(int)
ZR_INSTANTIATE_MAKE_VOLUME(unsigned int)
ZR_INSTANTIATE_MAKE_VOLUME(float)
#undef ZR_INSTANTIATE_MAKE_VOLUME

}  // namespace zrobjects
