#include "packed_volume.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <optional>
#include <span>
#include <type_traits>
#include <vector>

namespace zrio {

namespace {

// A volume of stored words and the range of the values they came from.
template <class T>
struct Read {
    std::shared_ptr<zrobjects::ZrVObjectVolume> volume;
    T lo = std::numeric_limits<T>::max(), hi = std::numeric_limits<T>::lowest();
};

// The voxels of `T` read one slice at a time (one read each) and written into
// the rows of a new volume of `Word` (the stored bits, sign-extended), with
// their range.
template <class T, class Word>
Read<T> ReadWidened(ByteSource& source, bool bigEndian, const VoxelGrid& shape, LoadProgress* progress) {
    const glm::ivec3 dims = shape.dims;
    const size_t perSlice = static_cast<size_t>(dims.x) * dims.y;
    const uint64_t start = source.Position(), total = perSlice * sizeof(T) * static_cast<uint64_t>(dims.z);
    const bool swap = sizeof(T) > 1 && bigEndian != (std::endian::native == std::endian::big);
    std::vector<T> slice(perSlice);
    Read<T> read;
    read.volume = zrobjects::MakeVolumeByRows<Word>(dims, shape.geometry, [&](int z, int y, Word* row) {
        if (y == 0) {
            source.ReadExactly(slice.data(), perSlice * sizeof(T), "the voxel data", start, total);
            if (swap) SwapBytes(slice.data(), perSlice, sizeof(T));
            if (progress) progress->Step("reading", static_cast<double>(z + 1) / dims.z);
        }
        const T* in = slice.data() + static_cast<size_t>(y) * dims.x;
        T lo = read.lo, hi = read.hi;
        for (int x = 0; x < dims.x; ++x) {
            lo = std::min(lo, in[x]);
            hi = std::max(hi, in[x]);
        }
        read.lo = lo, read.hi = hi;
        for (int x = 0; x < dims.x; ++x) row[x] = static_cast<Word>(in[x]);
    });
    return read;
}

// Every stored word of `volume`, margins included (they repeat the faces, so
// they take the same values as the voxels they copy).
std::span<uint16_t> AllWords(zrobjects::ZrVObjectVolume& volume) {
    const zrobjects::VolumeData& data = *volume.GetVolumeData();
    const size_t count = static_cast<size_t>(data.RowPitch()) * (data.dims.y + 2 * data.margins.y) *
                         (data.dims.z + 2 * data.margins.z);
    return {reinterpret_cast<uint16_t*>(data.storage.get()), count};
}

// The real value of a word holding the stored bits of a `T`.
template <class T>
double RealOf(uint16_t word, double slope, double intercept) {
    const double stored = std::is_signed_v<T> ? static_cast<int16_t>(word) : word;
    return stored * slope + intercept;
}

template <class T>
LoadedVolume ReadSmallIntegers(ByteSource& source, bool bigEndian, const VoxelGrid& shape, LoadProgress* progress) {
    const double slope = shape.slope, intercept = shape.intercept;
    LoadedVolume loaded;
    if constexpr (std::is_same_v<T, uint8_t>) {
        if (slope == 1.0 && intercept == 0.0) {
            // Bytes stay bytes.
            const Read<T> read = ReadWidened<T, uint8_t>(source, bigEndian, shape, progress);
            loaded.volume = read.volume;
            loaded.values.min = read.lo, loaded.values.max = read.hi;
            return loaded;
        }
    }
    const Read<T> read = ReadWidened<T, uint16_t>(source, bigEndian, shape, progress);
    // Scaling by a finite slope and intercept keeps the order of the values
    // (reverses it for a negative slope), so the stored range gives the real one.
    const double a = static_cast<double>(read.lo) * slope + intercept;
    const double b = static_cast<double>(read.hi) * slope + intercept;
    const double lo = std::min(a, b), hi = std::max(a, b);
    std::optional<int> offset;
    if (slope == std::floor(slope) && intercept == std::floor(intercept))
        for (int candidate : {0, 1024, 32768})
            if (lo + candidate >= 0.0 && hi + candidate <= 65535.0) {
                offset = candidate;
                break;
            }
    const std::span<uint16_t> words = AllWords(*read.volume);
    if (offset && slope == 1.0 && intercept == 0.0) {
        // value + offset, which fits, is the stored bits + offset modulo 2^16.
        if (*offset != 0)
            for (uint16_t& word : words) word = static_cast<uint16_t>(word + *offset);
        loaded.volume = read.volume;
    } else if (offset) {
        for (uint16_t& word : words)
            word = static_cast<uint16_t>(RealOf<T>(word, slope, intercept) + *offset);
        loaded.volume = read.volume;
    } else {
        // A scaling that is not integral or a range too wide: float values.
        const zrobjects::VolumeData& data = *read.volume->GetVolumeData();
        loaded.volume = zrobjects::MakeVolumeByRows<float>(shape.dims, shape.geometry, [&](int z, int y, float* row) {
            const uint16_t* in = static_cast<const uint16_t*>(data.slices[z + data.margins.z]) +
                                 static_cast<size_t>(y + data.margins.y) * data.RowPitch() + data.margins.x;
            for (int x = 0; x < shape.dims.x; ++x) row[x] = static_cast<float>(RealOf<T>(in[x], slope, intercept));
        });
        loaded.values = MeasureValues(*loaded.volume, 0);
        return loaded;
    }
    loaded.values.offset = *offset;
    loaded.values.min = lo, loaded.values.max = hi;
    return loaded;
}

}  // namespace

LoadedVolume ReadPackedVolume(ByteSource& source, StoredType type, bool bigEndian, VoxelGrid shape,
                              LoadProgress* progress) {
    if (!std::isfinite(shape.slope) || !std::isfinite(shape.intercept))
        throw std::invalid_argument("value scaling is not finite");
    LoadedVolume loaded;
    switch (type) {
        case StoredType::Int8: loaded = ReadSmallIntegers<int8_t>(source, bigEndian, shape, progress); break;
        case StoredType::UInt8: loaded = ReadSmallIntegers<uint8_t>(source, bigEndian, shape, progress); break;
        case StoredType::Int16: loaded = ReadSmallIntegers<int16_t>(source, bigEndian, shape, progress); break;
        case StoredType::UInt16: loaded = ReadSmallIntegers<uint16_t>(source, bigEndian, shape, progress); break;
        default: {
            if (progress) progress->Step("reading");
            const uint64_t count = static_cast<uint64_t>(shape.dims.x) * shape.dims.y * shape.dims.z;
            ReadStoredVoxels(source, type, count, bigEndian, shape);
            return ToModuleVolume(std::move(shape));
        }
    }
    loaded.values.units = shape.units;
    loaded.window = shape.window;
    return loaded;
}

}  // namespace zrio
