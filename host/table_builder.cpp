#include "table_builder.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

namespace zrobjects {

namespace {

uint8_t UnitToByte(double x) { return static_cast<uint8_t>(std::clamp(x, 0.0, 1.0) * 255.0 + 0.5); }

void CheckCount(int count) {
    if (count <= 0 || count > (1 << 24))
        throw std::invalid_argument("table entry count must be in 1..16777216, got " + std::to_string(count));
}

struct TableStorage {
    std::vector<std::vector<uint32_t>> rows;
    std::vector<uint32_t*> rowPointers;
};

}  // namespace

double EntryValue(int entry, int count) { return entry * 65535.0 / count; }

std::vector<uint32_t> WindowTableEntries(double centre, double width, int count) {
    CheckCount(count);
    if (!(width > 0.0) || !std::isfinite(width) || !std::isfinite(centre))
        throw std::invalid_argument("window width must be positive and finite");
    std::vector<uint32_t> entries(count);
    const double low = centre - 0.5 * width;
    for (int t = 0; t < count; ++t) {
        const uint8_t g = UnitToByte((EntryValue(t, count) - low) / width);
        entries[t] = PackEntry(g, g, g, 255);
    }
    return entries;
}

std::vector<uint32_t> ControlPointTableEntries(const std::vector<ControlPoint>& points, int count) {
    CheckCount(count);
    if (points.empty()) throw std::invalid_argument("a control-point table needs at least one point");
    for (size_t k = 1; k < points.size(); ++k)
        if (!(points[k].value >= points[k - 1].value))
            throw std::invalid_argument("control points must be sorted by value (point " + std::to_string(k) + ")");
    std::vector<uint32_t> entries(count);
    size_t upper = 0;
    for (int t = 0; t < count; ++t) {
        const double v = EntryValue(t, count);
        while (upper < points.size() && points[upper].value < v) ++upper;
        ControlPoint p;
        if (upper == 0) {
            p = points.front();
        } else if (upper == points.size()) {
            p = points.back();
        } else {
            const ControlPoint& a = points[upper - 1];
            const ControlPoint& b = points[upper];
            const double f = (v - a.value) / (b.value - a.value);
            p = {v, a.red + f * (b.red - a.red), a.green + f * (b.green - a.green), a.blue + f * (b.blue - a.blue),
                 a.opacity + f * (b.opacity - a.opacity)};
        }
        entries[t] = PackEntry(UnitToByte(p.red), UnitToByte(p.green), UnitToByte(p.blue), UnitToByte(p.opacity));
    }
    return entries;
}

MapTable MakeMapTable(const std::vector<std::vector<uint32_t>>& rows) {
    if (rows.empty()) throw std::invalid_argument("a table needs at least one row");
    const size_t length = rows.front().size();
    if (length == 0) throw std::invalid_argument("table rows must not be empty");
    for (size_t r = 1; r < rows.size(); ++r)
        if (rows[r].size() != length)
            throw std::invalid_argument("table row " + std::to_string(r) + " has " + std::to_string(rows[r].size()) +
                                        " entries, row 0 has " + std::to_string(length));
    if (length > (1u << 24)) throw std::invalid_argument("table rows are too long");

    auto storage = std::make_shared<TableStorage>();
    const size_t stored = std::max<size_t>(length + 1, 65536);
    storage->rows.reserve(rows.size());
    for (const auto& row : rows) {
        std::vector<uint32_t> padded(stored, row.back());
        std::copy(row.begin(), row.end(), padded.begin());
        storage->rows.push_back(std::move(padded));
    }
    for (auto& row : storage->rows) storage->rowPointers.push_back(row.data());
    // The mask-selected kernels index rows by an unchecked 8-bit label, so 256
    // row pointers must be readable; the extra ones repeat the last row.
    // array_lengths.y still counts the real rows.
    while (storage->rowPointers.size() < kReadableRowCount)
        storage->rowPointers.push_back(storage->rows.back().data());

    MapTable table;
    table.pp_data = storage->rowPointers.data();
    table.storage = storage;
    table.array_lengths = glm::ivec2(static_cast<int>(length), static_cast<int>(rows.size()));
    return table;
}

std::shared_ptr<ZrObject> MakeTableObject(const std::vector<std::vector<uint32_t>>& rows) {
    auto table = std::make_shared<ZrObject>(zrenums::EzrObjectType_Table);
    table->SetObjParam("_TableMap_OTF", MakeMapTable(rows));
    return table;
}

}  // namespace zrobjects
