#include "volume_builder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>

#include "platform/os_services.h"

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
std::shared_ptr<ZrVObjectVolume> MakeVolumeByRows(glm::ivec3 dims, const VolumeGeometry& geometry,
                                                  const std::function<void(int z, int y, T* row)>& fillRow) {
    if (dims.x <= 0 || dims.y <= 0 || dims.z <= 0)
        throw std::invalid_argument("volume dimensions must be positive, got " + DimsText(dims));
    const glm::ivec3 m = geometry.margins;
    if (m.x < 0 || m.y < 0 || m.z < 0) throw std::invalid_argument("volume margins must not be negative");
    const long long count = static_cast<long long>(dims.x) * dims.y * dims.z;
    if (count > kMaxVoxels) throw std::invalid_argument("volume of " + DimsText(dims) + " voxels is too large");
    for (int axis = 0; axis < 3; ++axis)
        if (!(geometry.spacing[axis] > 0.0) || !std::isfinite(geometry.spacing[axis]))
            throw std::invalid_argument("volume spacing must be positive and finite");

    auto volume = std::make_shared<ZrVObjectVolume>();
    VolumeData& data = *volume->GetVolumeData();
    data.voxelType = MakeDataType<T>();
    data.voxelPitch = geometry.spacing;
    data.dims = dims;
    data.margins = m;

    const size_t pitch = static_cast<size_t>(dims.x) + 2 * m.x;
    const size_t rows = static_cast<size_t>(dims.y) + 2 * m.y;
    const int slices = dims.z + 2 * m.z;
    const size_t sliceElements = pitch * rows;
    const size_t bytes = sliceElements * slices * sizeof(T) + 64;
    // Every stored element is written below; only the 64 bytes of slack past
    // the last slice need clearing.
    data.storage = std::shared_ptr<std::byte[]>(new std::byte[bytes]);
    platform::AdviseHugePages(data.storage.get(), bytes);
    std::memset(data.storage.get() + sliceElements * slices * sizeof(T), 0, 64);
    T* base = reinterpret_cast<T*>(data.storage.get());
    data.slices.resize(slices);
    for (int s = 0; s < slices; ++s) data.slices[s] = base + sliceElements * s;

    // The grid's rows in place, each row's margins repeating its end voxels;
    // then the margin rows and slices repeating the faces.
    for (int z = 0; z < dims.z; ++z) {
        T* slice = base + sliceElements * (z + m.z);
        for (int y = 0; y < dims.y; ++y) {
            T* row = slice + (y + m.y) * pitch;
            fillRow(z, y, row + m.x);
            std::fill(row, row + m.x, row[m.x]);
            std::fill(row + m.x + dims.x, row + pitch, row[m.x + dims.x - 1]);
        }
        for (int r = 0; r < m.y; ++r) {
            std::copy_n(slice + m.y * pitch, pitch, slice + r * pitch);
            std::copy_n(slice + (m.y + dims.y - 1) * pitch, pitch, slice + (m.y + dims.y + r) * pitch);
        }
    }
    for (int s = 0; s < m.z; ++s) {
        std::copy_n(base + sliceElements * m.z, sliceElements, base + sliceElements * s);
        std::copy_n(base + sliceElements * (m.z + dims.z - 1), sliceElements, base + sliceElements * (m.z + dims.z + s));
    }

    AaBbMinMax box;
    box.pos_min = glm::dvec3(-0.5);
    box.pos_max = glm::dvec3(dims) - 0.5;
    volume->SetPlacement(VolumeObjectToReference(geometry), box);
    return volume;
}

template <class T>
std::shared_ptr<ZrVObjectVolume> MakeVolume(std::span<const T> voxels, glm::ivec3 dims,
                                            const VolumeGeometry& geometry) {
    const long long count = static_cast<long long>(std::max(dims.x, 0)) * std::max(dims.y, 0) * std::max(dims.z, 0);
    if (count > 0 && static_cast<long long>(voxels.size()) != count)
        throw std::invalid_argument("volume of " + DimsText(dims) + " needs " + std::to_string(count) +
                                    " voxels, got " + std::to_string(voxels.size()));
    return MakeVolumeByRows<T>(dims, geometry, [&](int z, int y, T* row) {
        std::copy_n(voxels.data() + (static_cast<size_t>(z) * dims.y + y) * dims.x, dims.x, row);
    });
}

#define ZR_INSTANTIATE_MAKE_VOLUME(T)                                                                             \
    template std::shared_ptr<ZrVObjectVolume> MakeVolume<T>(std::span<const T>, glm::ivec3, const VolumeGeometry&); \
    template std::shared_ptr<ZrVObjectVolume> MakeVolumeByRows<T>(glm::ivec3, const VolumeGeometry&,              \
                                                                  const std::function<void(int, int, T*)>&);
ZR_INSTANTIATE_MAKE_VOLUME(char)
ZR_INSTANTIATE_MAKE_VOLUME(unsigned char)
ZR_INSTANTIATE_MAKE_VOLUME(short)
ZR_INSTANTIATE_MAKE_VOLUME(unsigned short)
ZR_INSTANTIATE_MAKE_VOLUME(int)
ZR_INSTANTIATE_MAKE_VOLUME(unsigned int)
ZR_INSTANTIATE_MAKE_VOLUME(float)
#undef ZR_INSTANTIATE_MAKE_VOLUME

}  // namespace zrobjects
