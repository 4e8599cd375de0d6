// Transfer-table access and the value-to-colour lookup shared by the kernels.
//
// Entries pack c0 in bits 0-7, c1 in 8-15, c2 in 16-23 and the opacity in
// 24-31. An output pixel holds the colour premultiplied by the entry's opacity
// in bytes 0-2 and a coverage byte 3 (255 inside the volume, 0 outside). With a
// family's channel-order switch off, byte 0 comes from c2 and byte 2 from c0; on,
// the other way round.
#pragma once

#include <cstdint>

#include "host/zr_object.h"

namespace zrvolume {

// Row pointers and counts captured once per kernel call.
struct OtfTable {
    const uint32_t* const* rows = nullptr;
    int rowCount = 0;
    float length = 0.0f;  // entries per row as float, the L of the scaled lookup
};

// Reads the owner's "_TableMap_OTF" parameter. A value of any other type, or a
// missing one, throws std::bad_any_cast.
OtfTable ReadOtfTable(zrobjects::ZrObject& owner);

// The kernel families that carry their own channel-order switch.
enum class ChannelOrderFamily { MaskedOtfSlice, OtfSlice, LabelOverlay, CurvedReformation, SlabProjection, Count };

// The family's switch: off unless a caller sets it. The kernels only read it.
bool& ChannelOrderSwitch(ChannelOrderFamily family);

constexpr float kInverse65535 = 1.5259022e-5f;
constexpr float kInverse255 = 0.003921569f;

inline uint32_t EntryOpacity(uint32_t entry) { return entry >> 24; }
inline uint32_t EntryChannel(uint32_t entry, int channel) { return (entry >> (8 * channel)) & 0xffu; }

// The scaled index of a 16-bit value: f * L, then * 1/65535, then + 0.5,
// truncated and deliberately not clamped (65535 gives L).
inline uint32_t ScaledOtfIndex(uint16_t value, float length) {
    const float f = static_cast<float>(value);
    return static_cast<uint32_t>(static_cast<int32_t>(f * length * kInverse65535 + 0.5f));
}

// An entry premultiplied by its own opacity, with the coverage byte.
inline uint32_t PremultipliedPixel(uint32_t entry, bool channelSwitch, bool inside) {
    const float a = static_cast<float>(EntryOpacity(entry)) * kInverse255;
    const float c0 = static_cast<float>(EntryChannel(entry, 0));
    const float c1 = static_cast<float>(EntryChannel(entry, 1));
    const float c2 = static_cast<float>(EntryChannel(entry, 2));
    const float first = channelSwitch ? c0 : c2;
    const float third = channelSwitch ? c2 : c0;
    const uint32_t b0 = static_cast<uint32_t>(static_cast<int32_t>(first * a));
    const uint32_t b1 = static_cast<uint32_t>(static_cast<int32_t>(c1 * a));
    const uint32_t b2 = static_cast<uint32_t>(static_cast<int32_t>(third * a));
    return b0 | (b1 << 8) | (b2 << 16) | (inside ? 0xff000000u : 0u);
}

}  // namespace zrvolume
