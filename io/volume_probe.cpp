#include "volume_probe.h"

#include <cmath>
#include <cstdint>

namespace zrio {
namespace {

bool Inside(const glm::dvec3& p, const glm::ivec3& dims) {
    for (int a = 0; a < 3; ++a)
        if (!(p[a] > -0.5 && p[a] < dims[a] - 0.5)) return false;
    return true;
}

// The stored word (or float) of voxel i, j, k.
double StoredAt(const zrobjects::VolumeData& data, int i, int j, int k) {
    const size_t element = static_cast<size_t>(i + data.margins.x) +
                           static_cast<size_t>(j + data.margins.y) * static_cast<size_t>(data.RowPitch());
    const void* slice = data.slices[static_cast<size_t>(k + data.margins.z)];
    if (data.voxelType == zrobjects::MakeDataType<unsigned short>())
        return static_cast<const uint16_t*>(slice)[element];
    if (data.voxelType == zrobjects::MakeDataType<short>()) return static_cast<const int16_t*>(slice)[element];
    if (data.voxelType == zrobjects::MakeDataType<unsigned char>())
        return static_cast<const uint8_t*>(slice)[element];
    if (data.voxelType == zrobjects::MakeDataType<char>()) return static_cast<const int8_t*>(slice)[element];
    return static_cast<const float*>(slice)[element];
}

}  // namespace

glm::dvec3 WorldToVoxel(const zrobjects::ZrVObjectVolume& volume, const glm::mat4& worldToObject,
                        const glm::dvec3& world) {
    const glm::dmat4 m = glm::dmat4(volume.GetMatrixRS2OSf()) * glm::dmat4(worldToObject);
    return glm::dvec3(m * glm::dvec4(world, 1.0));
}

glm::dvec3 VoxelToWorld(const zrobjects::ZrVObjectVolume& volume, const glm::mat4& objectToWorld,
                        const glm::dvec3& voxel) {
    const glm::dmat4 m = glm::dmat4(objectToWorld) * glm::dmat4(volume.GetMatrixOS2RSf());
    return glm::dvec3(m * glm::dvec4(voxel, 1.0));
}

std::optional<VoxelProbe> ProbeVoxel(const LoadedVolume& volume, const glm::dvec3& voxel) {
    const zrobjects::VolumeData& data = *volume.volume->GetVolumeData();
    if (!Inside(voxel, data.dims)) return std::nullopt;
    VoxelProbe probe;
    for (int a = 0; a < 3; ++a)
        probe.index[a] = std::min(static_cast<int>(std::floor(voxel[a] + 0.5)), data.dims[a] - 1);
    const double stored = StoredAt(data, probe.index.x, probe.index.y, probe.index.z);
    probe.value = volume.values.isFloat ? stored : stored - volume.values.offset;
    return probe;
}

std::optional<double> SampleStored(const zrobjects::ZrVObjectVolume& volume, const glm::dvec3& voxel) {
    const zrobjects::VolumeData& data = *volume.GetVolumeData();
    if (!Inside(voxel, data.dims)) return std::nullopt;
    int lo[3], hi[3];
    double w[3];
    for (int a = 0; a < 3; ++a) {
        const double f = std::floor(voxel[a]);
        lo[a] = std::clamp(static_cast<int>(f), 0, data.dims[a] - 1);
        hi[a] = std::clamp(static_cast<int>(f) + 1, 0, data.dims[a] - 1);
        w[a] = voxel[a] - f;
    }
    double sum = 0.0;
    for (int corner = 0; corner < 8; ++corner) {
        const bool bx = corner & 1, by = corner & 2, bz = corner & 4;
        const double weight = (bx ? w[0] : 1.0 - w[0]) * (by ? w[1] : 1.0 - w[1]) * (bz ? w[2] : 1.0 - w[2]);
        sum += weight * StoredAt(data, bx ? hi[0] : lo[0], by ? hi[1] : lo[1], bz ? hi[2] : lo[2]);
    }
    return sum;
}

}  // namespace zrio
