// Builds transfer tables: packed entries from a window or from control points,
// and table objects that carry them as a MapTable under "_TableMap_OTF".
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "zr_object.h"

namespace zrobjects {

// Packs one entry with red in bits 16-23, green 8-15, blue 0-7 and opacity
// 24-31: the kernels' default channel order then writes R, G, B to bytes 0-2.
constexpr uint32_t PackEntry(uint8_t red, uint8_t green, uint8_t blue, uint8_t opacity) {
    return static_cast<uint32_t>(blue) | (static_cast<uint32_t>(green) << 8) |
           (static_cast<uint32_t>(red) << 16) | (static_cast<uint32_t>(opacity) << 24);
}

// Entries per row that make every lookup family read entry t for value t.
constexpr int kFullTableLength = 65536;

// The value an entry stands for under the scaled lookup: entry t of a table of
// `count` entries covers value t * 65535 / count.
double EntryValue(int entry, int count);

// Grey ramp from black at centre - width/2 to white at centre + width/2,
// opaque everywhere.
std::vector<uint32_t> WindowTableEntries(double centre, double width, int count = kFullTableLength);

struct ControlPoint {
    double value;
    double red, green, blue, opacity;  // 0..1
};

// Piecewise-linear interpolation between control points sorted by value;
// constant beyond the first and the last.
std::vector<uint32_t> ControlPointTableEntries(const std::vector<ControlPoint>& points,
                                               int count = kFullTableLength);

// Row pointers a MapTable always holds: every 8-bit label names a readable row.
constexpr size_t kReadableRowCount = 256;

// A MapTable holding `rows` (all of the same length L > 0). Each row is stored
// with max(L + 1, 65536) entries, the tail repeating entry L - 1; the row-pointer
// array holds max(rows, kReadableRowCount) pointers, the extra ones naming the
// last row.
MapTable MakeMapTable(const std::vector<std::vector<uint32_t>>& rows);

// A table object whose "_TableMap_OTF" parameter holds MakeMapTable(rows).
std::shared_ptr<ZrObject> MakeTableObject(const std::vector<std::vector<uint32_t>>& rows);

}  // namespace zrobjects
