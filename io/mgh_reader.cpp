// FreeSurfer's MGH volumes (.mgh, and .mgz gzip'd), as nibabel reads them: a
// big-endian header of 284 bytes (dimensions, voxel type, voxel sizes,
// direction cosines and the RAS position of the grid's centre), then the
// voxels, x fastest. The centre is that of voxel dims / 2 (not (dims - 1) / 2),
// FreeSurfer's own convention.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>

#include "byte_source.h"
#include "grid_placement.h"
#include "input_error.h"
#include "packed_frames.h"
#include "volume_readers.h"

namespace zrio {

namespace {

constexpr uint64_t kDataOffset = 284;

struct MghFile {
    PackedFrames packed;
    VolumeFileInfo info;
};

template <class T>
T BigEndian(const unsigned char* header, size_t offset) {
    T value;
    std::memcpy(&value, header + offset, sizeof(T));
    if (std::endian::native != std::endian::big) SwapBytes(&value, 1, sizeof(T));
    return value;
}

MghFile Describe(const std::string& path) {
    ByteSource source(path);
    unsigned char h[90] = {};
    source.ReadExactly(h, sizeof(h), "the MGH header");
    MghFile file;
    VolumeFileInfo& info = file.info;
    PackedFrames& packed = file.packed;
    packed.dataPath = path;
    packed.dataOffset = kDataOffset;
    packed.bigEndian = true;
    info.format = source.Compressed() ? "MGH (gzip'd, .mgz)" : "MGH";
    const int32_t version = BigEndian<int32_t>(h, 0);
    if (version != 1)
        throw InputError(path, "is not an MGH volume: its version field is " + std::to_string(version) + ", not 1");
    int64_t extent[4];
    for (int k = 0; k < 4; ++k) {
        extent[k] = BigEndian<int32_t>(h, 4 + 4 * k);
        if (extent[k] < 1 || extent[k] > 65536)
            throw InputError(path, "dimension " + std::to_string(k) + " is " + std::to_string(extent[k]) +
                                       "; each must hold 1 to 65536 voxels");
    }
    for (int axis = 0; axis < 3; ++axis) info.dims[axis] = static_cast<int>(extent[axis]);
    packed.frames = extent[3];
    info.frames = static_cast<int>(extent[3]);
    switch (const int32_t type = BigEndian<int32_t>(h, 20)) {
        case 0: packed.type = StoredType::UInt8; break;
        case 1: packed.type = StoredType::Int32; break;
        case 3: packed.type = StoredType::Float32; break;
        case 4: packed.type = StoredType::Int16; break;
        default:
            throw InputError(path, "stores voxel type " + std::to_string(type) +
                                       "; MGH volumes hold type 0 (uchar), 1 (int), 3 (float) or 4 (short)");
    }
    info.componentType = StoredTypeName(packed.type);

    // Without the "good RAS" flag the geometry is FreeSurfer's default:
    // 1 mm voxels in coronal order, centred on the origin.
    glm::dvec3 delta(1.0), centre(0.0);
    glm::dmat3 cosines(glm::dvec3(-1, 0, 0), glm::dvec3(0, 0, 1), glm::dvec3(0, -1, 0));
    if (BigEndian<int16_t>(h, 28) > 0) {
        for (int k = 0; k < 3; ++k) {
            delta[k] = BigEndian<float>(h, 30 + 4 * k);
            centre[k] = BigEndian<float>(h, 78 + 4 * k);
            // Stored row k is the direction of voxel axis k.
            for (int r = 0; r < 3; ++r) cosines[k][r] = BigEndian<float>(h, 42 + 12 * k + 4 * r);
        }
        info.placement = "direction cosines, voxel sizes and centre position";
    } else {
        info.placement = "FreeSurfer's default (no valid orientation in the header): 1 mm coronal, centred";
    }
    glm::dmat4 voxelToRas(1.0);
    for (int axis = 0; axis < 3; ++axis) voxelToRas[axis] = glm::dvec4(cosines[axis] * delta[axis], 0.0);
    glm::dvec3 offset = centre;
    for (int axis = 0; axis < 3; ++axis) offset -= glm::dvec3(voxelToRas[axis]) * (info.dims[axis] / 2.0);
    voxelToRas[3] = glm::dvec4(offset, 1.0);
    info.geometry = GeometryFromMatrix(RasToLps(voxelToRas), path, info.notes);

    const uint64_t needed = kDataOffset + static_cast<uint64_t>(info.dims.x) * info.dims.y * info.dims.z *
                                              static_cast<uint64_t>(packed.frames) * StoredTypeBytes(packed.type);
    if (!source.Compressed() && source.FileBytes() < needed)
        throw InputError(path, "is truncated: it holds " + std::to_string(source.FileBytes()) +
                                   " bytes, its header needs " + std::to_string(needed));
    return file;
}

}  // namespace

bool IsMghFile(const std::string& path) {
    std::string lower = path;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    for (const std::string extension : {".mgh", ".mgz", ".mgh.gz"})
        if (lower.size() >= extension.size() && lower.compare(lower.size() - extension.size(), extension.size(), extension) == 0)
            return true;
    return false;
}

VolumeFileInfo ReadMghInfo(const std::string& path, const VolumeChoice& choice) {
    MghFile file = Describe(path);
    return ChooseFrameInfo(file.packed, std::move(file.info), choice, path);
}

VoxelGrid ReadMghGrid(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info) {
    MghFile file = Describe(path);
    return ReadChosenFrame(file.packed, std::move(file.info), choice, path, info);
}

LoadedVolume ReadMghVolume(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info,
                           LoadProgress* progress) {
    MghFile file = Describe(path);
    return ReadChosenVolume(file.packed, std::move(file.info), choice, path, info, progress);
}

}  // namespace zrio
