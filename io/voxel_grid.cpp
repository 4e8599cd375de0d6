#include "voxel_grid.h"

#include <algorithm>
#include <cstdio>
#include <cmath>
#include <limits>
#include <span>
#include <stdexcept>
#include <type_traits>

namespace zrio {

namespace {

// Calls `visit(row)` with every row of the grid of `data` (dims.x values of T).
template <class T, class Visit>
void ForEachRow(const zrobjects::VolumeData& data, Visit visit) {
    for (int z = 0; z < data.dims.z; ++z)
        for (int y = 0; y < data.dims.y; ++y)
            visit(static_cast<const T*>(data.slices[z + data.margins.z]) +
                  static_cast<size_t>(y + data.margins.y) * data.RowPitch() + data.margins.x);
}

// The range of the real values (word - offset) of an 8- or 16-bit volume.
template <class T>
void MeasureIntegers(const zrobjects::VolumeData& data, int offset, VolumeValues& values) {
    T lo = std::numeric_limits<T>::max(), hi = std::numeric_limits<T>::lowest();
    ForEachRow<T>(data, [&](const T* row) {
        for (int x = 0; x < data.dims.x; ++x) {
            lo = std::min(lo, row[x]);
            hi = std::max(hi, row[x]);
        }
    });
    values.min = static_cast<double>(lo) - offset;
    values.max = static_cast<double>(hi) - offset;
}

// The 1st and 99th percentiles of the real values (word - offset) of an 8- or
// 16-bit volume, from its histogram, in the order of T.
template <class T>
glm::dvec2 IntegerPercentiles(const zrobjects::VolumeData& data, int offset) {
    using Unsigned = std::make_unsigned_t<T>;
    // Signed words are counted at word + 2^(bits - 1), which keeps their order.
    constexpr unsigned bias = std::is_signed_v<T> ? 1u << (8 * sizeof(T) - 1) : 0u;
    std::vector<uint64_t> histogram(size_t{1} << (8 * sizeof(T)), 0);
    ForEachRow<T>(data, [&](const T* row) {
        for (int x = 0; x < data.dims.x; ++x) ++histogram[static_cast<Unsigned>(row[x]) ^ bias];
    });
    const uint64_t total = static_cast<uint64_t>(data.dims.x) * data.dims.y * data.dims.z;
    const uint64_t lowRank = total / 100, highRank = total - 1 - total / 100;
    uint64_t seen = 0;
    glm::dvec2 percentiles(0.0);
    bool low = false;
    for (size_t word = 0; word < histogram.size(); ++word) {
        seen += histogram[word];
        const double real = static_cast<double>(word) - bias - offset;
        if (!low && seen > lowRank) percentiles[0] = real, low = true;
        if (seen > highRank) {
            percentiles[1] = real;
            break;
        }
    }
    return percentiles;
}

void MeasureFloats(const zrobjects::VolumeData& data, VolumeValues& values) {
    float lo = std::numeric_limits<float>::infinity(), hi = -lo;
    ForEachRow<float>(data, [&](const float* row) {
        for (int x = 0; x < data.dims.x; ++x)
            if (std::isfinite(row[x])) lo = std::min(lo, row[x]), hi = std::max(hi, row[x]);
    });
    if (lo > hi) return;  // nothing finite
    values.min = lo;
    values.max = hi;
}

// Up to a million evenly strided finite samples give the percentiles.
glm::dvec2 FloatPercentiles(const zrobjects::VolumeData& data) {
    const uint64_t total = static_cast<uint64_t>(data.dims.x) * data.dims.y * data.dims.z;
    const uint64_t stride = std::max<uint64_t>(1, total / 1000000);
    std::vector<float> sample;
    sample.reserve(static_cast<size_t>(total / stride + 1));
    uint64_t index = 0;
    ForEachRow<float>(data, [&](const float* row) {
        for (int x = 0; x < data.dims.x; ++x, ++index)
            if (std::isfinite(row[x]) && index % stride == 0) sample.push_back(row[x]);
    });
    if (sample.empty()) return glm::dvec2(0.0);
    const size_t lowRank = sample.size() / 100, highRank = sample.size() - 1 - sample.size() / 100;
    std::nth_element(sample.begin(), sample.begin() + lowRank, sample.end());
    const double low = sample[lowRank];
    std::nth_element(sample.begin(), sample.begin() + highRank, sample.end());
    return {low, sample[highRank]};
}

template <class T>
std::shared_ptr<zrobjects::ZrVObjectVolume> Build(const std::vector<T>& voxels, const VoxelGrid& grid) {
    return zrobjects::MakeVolume<T>(std::span<const T>(voxels), grid.dims, grid.geometry);
}

// A volume of T holding the real value of every voxel converted by
// `convert`, written row by row into the volume's storage.
template <class T, class Convert>
std::shared_ptr<zrobjects::ZrVObjectVolume> BuildConverted(const VoxelGrid& grid, Convert convert) {
    return std::visit(
        [&](const auto& stored) {
            return zrobjects::MakeVolumeByRows<T>(grid.dims, grid.geometry, [&](int z, int y, T* row) {
                const auto* source = stored.data() + (static_cast<size_t>(z) * grid.dims.y + y) * grid.dims.x;
                for (int x = 0; x < grid.dims.x; ++x)
                    row[x] = convert(static_cast<double>(source[x]) * grid.slope + grid.intercept);
            });
        },
        grid.voxels);
}

template <class T>
T Clamped(double real) {
    if (std::isnan(real)) return T{0};
    const double lo = static_cast<double>(std::numeric_limits<T>::lowest());
    const double hi = static_cast<double>(std::numeric_limits<T>::max());
    return static_cast<T>(std::clamp(real, lo, hi));
}

}  // namespace

VoxelKind ParseVoxelKind(const std::string& text) {
    if (text == "int8") return VoxelKind::Int8;
    if (text == "uint8") return VoxelKind::UInt8;
    if (text == "int16") return VoxelKind::Int16;
    if (text == "uint16") return VoxelKind::UInt16;
    if (text == "float32" || text == "float") return VoxelKind::Float32;
    throw std::invalid_argument("unknown voxel type \"" + text + "\" (int8, uint8, int16, uint16 or float32)");
}

const char* VoxelKindName(VoxelKind kind) {
    switch (kind) {
        case VoxelKind::Int8: return "int8";
        case VoxelKind::UInt8: return "uint8";
        case VoxelKind::Int16: return "int16";
        case VoxelKind::UInt16: return "uint16";
        case VoxelKind::Float32: return "float32";
    }
    return "?";
}

size_t VoxelKindBytes(VoxelKind kind) {
    switch (kind) {
        case VoxelKind::Int8:
        case VoxelKind::UInt8: return 1;
        case VoxelKind::Int16:
        case VoxelKind::UInt16: return 2;
        case VoxelKind::Float32: return 4;
    }
    return 1;
}

VolumeValues MeasureValues(const zrobjects::ZrVObjectVolume& volume, int offset) {
    const zrobjects::VolumeData& data = *volume.GetVolumeData();
    VolumeValues values;
    values.offset = offset;
    if (data.voxelType == zrobjects::MakeDataType<float>()) {
        values.offset = 0;
        values.isFloat = true;
        MeasureFloats(data, values);
    } else if (data.voxelType == zrobjects::MakeDataType<unsigned short>()) {
        MeasureIntegers<uint16_t>(data, offset, values);
    } else if (data.voxelType == zrobjects::MakeDataType<unsigned char>()) {
        MeasureIntegers<uint8_t>(data, offset, values);
    } else if (data.voxelType == zrobjects::MakeDataType<short>()) {
        // Forced signed types: the stored word is the value itself.
        MeasureIntegers<int16_t>(data, 0, values);
    } else if (data.voxelType == zrobjects::MakeDataType<char>()) {
        MeasureIntegers<int8_t>(data, 0, values);
    }
    return values;
}

glm::dvec2 MeasurePercentiles(const zrobjects::ZrVObjectVolume& volume, int offset) {
    const zrobjects::VolumeData& data = *volume.GetVolumeData();
    if (data.voxelType == zrobjects::MakeDataType<float>()) return FloatPercentiles(data);
    if (data.voxelType == zrobjects::MakeDataType<unsigned short>()) return IntegerPercentiles<uint16_t>(data, offset);
    if (data.voxelType == zrobjects::MakeDataType<unsigned char>()) return IntegerPercentiles<uint8_t>(data, offset);
    if (data.voxelType == zrobjects::MakeDataType<short>()) return IntegerPercentiles<int16_t>(data, 0);
    if (data.voxelType == zrobjects::MakeDataType<char>()) return IntegerPercentiles<int8_t>(data, 0);
    return glm::dvec2(0.0);
}

std::shared_ptr<zrobjects::ZrVObjectVolume> AsLabelVolume(const LoadedVolume& loaded) {
    const zrobjects::VolumeData& data = *loaded.volume->GetVolumeData();
    if (data.voxelType == zrobjects::MakeDataType<unsigned char>()) return loaded.volume;
    char range[96];
    std::snprintf(range, sizeof(range), "%g .. %g", loaded.values.min, loaded.values.max);
    if (loaded.values.isFloat || data.voxelType != zrobjects::MakeDataType<unsigned short>() ||
        loaded.values.min < 0.0 || loaded.values.max > 255.0)
        throw std::invalid_argument(std::string("a mask holds whole labels 0 .. 255; this volume's values run ") + range);
    std::vector<uint8_t> labels;
    labels.reserve(static_cast<size_t>(data.dims.x) * data.dims.y * data.dims.z);
    for (int z = 0; z < data.dims.z; ++z)
        for (int y = 0; y < data.dims.y; ++y) {
            const auto* row = static_cast<const uint16_t*>(data.slices[z + data.margins.z]) +
                              static_cast<size_t>(y + data.margins.y) * data.RowPitch() + data.margins.x;
            for (int x = 0; x < data.dims.x; ++x) labels.push_back(static_cast<uint8_t>(row[x] - loaded.values.offset));
        }
    zrobjects::VolumeGeometry geometry;
    geometry.spacing = data.voxelPitch;
    geometry.margins = data.margins;
    auto mask = zrobjects::MakeVolume<uint8_t>(std::span<const uint8_t>(labels), data.dims, geometry);
    zrobjects::AaBbMinMax box;
    loaded.volume->GetOrthoBoundingBox(box);
    mask->SetPlacement(loaded.volume->GetMatrixOS2RSf(), box);
    return mask;
}

LoadedVolume ToModuleVolume(VoxelGrid grid, std::optional<VoxelKind> as) {
    const size_t count = std::visit([](const auto& v) { return v.size(); }, grid.voxels);
    const size_t expected = static_cast<size_t>(std::max(grid.dims.x, 0)) * std::max(grid.dims.y, 0) *
                            std::max(grid.dims.z, 0);
    if (count == 0 || count != expected)
        throw std::invalid_argument("voxel grid holds " + std::to_string(count) + " voxels, its size needs " +
                                    std::to_string(expected));
    if (!std::isfinite(grid.slope) || !std::isfinite(grid.intercept))
        throw std::invalid_argument("value scaling is not finite");

    LoadedVolume loaded;
    int offset = 0;
    if (as) {
        switch (*as) {
            case VoxelKind::Int8: loaded.volume = BuildConverted<char>(grid, Clamped<signed char>); break;
            case VoxelKind::UInt8: loaded.volume = BuildConverted<unsigned char>(grid, Clamped<unsigned char>); break;
            case VoxelKind::Int16: loaded.volume = BuildConverted<short>(grid, Clamped<short>); break;
            case VoxelKind::UInt16:
                loaded.volume = BuildConverted<unsigned short>(grid, Clamped<unsigned short>);
                break;
            case VoxelKind::Float32:
                loaded.volume = BuildConverted<float>(grid, [](double v) { return static_cast<float>(v); });
                break;
        }
        if (*as == VoxelKind::Int8 || *as == VoxelKind::Int16)
            loaded.warnings.push_back(std::string("voxelType \"") + VoxelKindName(*as) +
                                      "\" hands the module signed voxels: tables are looked up by the 16-bit word, so "
                                      "negative values read past the table's end, and slab maximum, minimum and "
                                      "average take the words as unsigned (negative values count as the largest); "
                                      "leave voxelType out to have the values offset into the unsigned range");
    } else {
        const bool integral = std::visit(
            [](const auto& v) { return std::is_integral_v<typename std::decay_t<decltype(v)>::value_type>; },
            grid.voxels);
        // The scaled range of an integer file follows from its stored range.
        double lo = std::numeric_limits<double>::infinity(), hi = -lo;
        bool whole = integral && grid.slope == std::floor(grid.slope) && grid.intercept == std::floor(grid.intercept);
        std::visit(
            [&](const auto& v) {
                for (const auto x : v) {
                    const double real = static_cast<double>(x) * grid.slope + grid.intercept;
                    if (real < lo) lo = real;
                    if (real > hi) hi = real;
                }
            },
            grid.voxels);
        const bool plainBytes = std::holds_alternative<std::vector<uint8_t>>(grid.voxels) && grid.slope == 1.0 &&
                                grid.intercept == 0.0;
        std::optional<int> chosen;
        if (whole)
            for (int candidate : {0, 1024, 32768})
                if (lo + candidate >= 0.0 && hi + candidate <= 65535.0) {
                    chosen = candidate;
                    break;
                }
        if (plainBytes) {
            loaded.volume = Build(std::get<std::vector<uint8_t>>(grid.voxels), grid);
        } else if (chosen) {
            offset = *chosen;
            loaded.volume =
                BuildConverted<unsigned short>(grid, [offset](double v) { return static_cast<unsigned short>(v + offset); });
        } else {
            if (std::holds_alternative<std::vector<float>>(grid.voxels) && grid.slope == 1.0 && grid.intercept == 0.0)
                loaded.volume = Build(std::get<std::vector<float>>(grid.voxels), grid);
            else
                loaded.volume = BuildConverted<float>(grid, [](double v) { return static_cast<float>(v); });
        }
    }
    loaded.values = MeasureValues(*loaded.volume, offset);
    loaded.values.units = grid.units;
    loaded.window = grid.window;
    return loaded;
}

}  // namespace zrio
