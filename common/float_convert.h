// Float-to-integer truncation with the x86 conversion's result for values that
// do not fit (not-a-number or out of range give INT32_MIN, whose low 16 bits are
// 0). Some kernels rely on that result on purpose; plain casts would leave it
// undefined.
#pragma once

#include <cstdint>

namespace zrcommon {

inline int32_t TruncateToInt32(float x) {
    if (!(x > -2147483904.0f && x < 2147483648.0f)) return INT32_MIN;
    return static_cast<int32_t>(x);
}

inline int32_t TruncateToInt32(double x) {
    if (!(x > -2147483649.0 && x < 2147483648.0)) return INT32_MIN;
    return static_cast<int32_t>(x);
}

}  // namespace zrcommon
