// The direction rule of the curved frames, shared by the curved volume kernels
// and the curved mesh cut: v / |v| when |v| exceeds 2.220446e-16 (below that
// a direction counts as zero), else the zero vector. The length is summed x, y,
// z in that order, so both renderers get the same bits.
#pragma once

#include <cmath>

#include <glm/glm.hpp>

namespace zrcommon {

inline constexpr float kZeroLength = 2.220446e-16f;

inline glm::vec3 UnitOrZero(const glm::vec3& v) {
    const float length = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
    return length > kZeroLength ? v / length : glm::vec3(0.0f);
}

}  // namespace zrcommon
