// How the enlarging and merging kernels take a 32-bit pixel apart and put it
// together: byte b as a float, and a float truncated back into a byte (the x86
// conversion's result for values out of range, then only the low eight bits,
// as a byte store keeps them).
#pragma once

#include <cstdint>

#include "common/float_convert.h"

namespace zrvolume {

inline float Byte(uint32_t pixel, int b) { return static_cast<float>((pixel >> (8 * b)) & 0xffu); }

inline uint32_t TruncatedByte(float v) { return static_cast<uint32_t>(zrcommon::TruncateToInt32(v)) & 0xffu; }

}  // namespace zrvolume
