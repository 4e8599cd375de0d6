#include "voxel_grid.h"

#include <algorithm>
#include <cstdio>
#include <cmath>
#include <limits>
#include <span>
#include <stdexcept>

namespace zrio {

namespace {

// The first and last real values and the 1st and 99th percentiles of the
// stored words of a 16-bit (or 8-bit) volume, from its histogram.
template <class T>
void MeasureIntegers(const zrobjects::VolumeData& data, int offset, VolumeValues& values) {
    std::vector<uint64_t> histogram(size_t{1} << (8 * sizeof(T)), 0);
    for (int z = 0; z < data.dims.z; ++z)
        for (int y = 0; y < data.dims.y; ++y) {
            const T* row = static_cast<const T*>(data.slices[z + data.margins.z]) +
                           static_cast<size_t>(y + data.margins.y) * data.RowPitch() + data.margins.x;
            for (int x = 0; x < data.dims.x; ++x) ++histogram[static_cast<size_t>(row[x])];
        }
    const uint64_t total = static_cast<uint64_t>(data.dims.x) * data.dims.y * data.dims.z;
    const uint64_t lowRank = total / 100, highRank = total - 1 - total / 100;
    uint64_t seen = 0;
    bool first = true, low = false, high = false;
    for (size_t word = 0; word < histogram.size(); ++word) {
        if (!histogram[word]) continue;
        const double real = static_cast<double>(word) - offset;
        if (first) values.min = real, first = false;
        values.max = real;
        seen += histogram[word];
        if (!low && seen > lowRank) values.low = real, low = true;
        if (!high && seen > highRank) values.high = real, high = true;
    }
}

void MeasureFloats(const zrobjects::VolumeData& data, VolumeValues& values) {
    // Up to a million evenly strided samples give the percentiles; the range
    // comes from every voxel.
    const uint64_t total = static_cast<uint64_t>(data.dims.x) * data.dims.y * data.dims.z;
    const uint64_t stride = std::max<uint64_t>(1, total / 1000000);
    std::vector<float> sample;
    sample.reserve(static_cast<size_t>(total / stride + 1));
    float lo = std::numeric_limits<float>::infinity(), hi = -lo;
    uint64_t index = 0;
    for (int z = 0; z < data.dims.z; ++z)
        for (int y = 0; y < data.dims.y; ++y) {
            const float* row = static_cast<const float*>(data.slices[z + data.margins.z]) +
                               static_cast<size_t>(y + data.margins.y) * data.RowPitch() + data.margins.x;
            for (int x = 0; x < data.dims.x; ++x, ++index) {
                const float v = row[x];
                if (!std::isfinite(v)) continue;
                lo = std::min(lo, v);
                hi = std::max(hi, v);
                if (index % stride == 0) sample.push_back(v);
            }
        }
    if (sample.empty()) return;
    values.min = lo;
    values.max = hi;
    const size_t lowRank = sample.size() / 100, highRank = sample.size() - 1 - sample.size() / 100;
    std::nth_element(sample.begin(), sample.begin() + lowRank, sample.end());
    values.low = sample[lowRank];
    std::nth_element(sample.begin(), sample.begin() + highRank, sample.end());
    values.high = sample[highRank];
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
        MeasureIntegers<uint16_t>(data, 0, values);
        for (double* v : {&values.min, &values.max, &values.low, &values.high})
            *v = static_cast<int16_t>(static_cast<uint16_t>(*v));
        if (values.min > values.max) std::swap(values.min, values.max);
    } else if (data.voxelType == zrobjects::MakeDataType<char>()) {
        MeasureIntegers<uint8_t>(data, 0, values);
        for (double* v : {&values.min, &values.max, &values.low, &values.high})
            *v = static_cast<int8_t>(static_cast<uint8_t>(*v));
        if (values.min > values.max) std::swap(values.min, values.max);
    }
    return values;
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
