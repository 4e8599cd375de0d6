#include "line_drawing.h"

#include <algorithm>

#include "common/float_convert.h"
#include "common/stepping_line.h"

namespace zrmesh {

using zrcommon::TruncateToInt32;

uint32_t PackColour(const glm::vec3& colour, bool rgba) {
    // Truncation, not rounding: 0.5 becomes 127.
    const auto channel = [](float c) {
        return static_cast<uint32_t>(static_cast<uint8_t>(TruncateToInt32(static_cast<double>(c) * 255.0)));
    };
    const uint32_t r = channel(colour.r), g = channel(colour.g), b = channel(colour.b);
    const uint32_t first = rgba ? r : b, third = rgba ? b : r;
    return first | (g << 8) | (third << 16) | (255u << 24);
}

namespace {

// Paints the widening pixels around (x, y). Offsets run +1, -1, +2, -2, ...;
// they are clamped into the image rather than skipped, so a thick line near a
// border paints the border row or column.
inline void Widen(int x, int y, uint32_t colour, uint32_t* target, int width, int height, int thickness) {
    for (int k = 0; k < thickness; ++k) {
        const int magnitude = k / 2 + 1;
        const int o = (k % 2 == 0) ? magnitude : -magnitude;
        const int wy = std::clamp(y + o, 0, height - 1);
        const int wx = std::clamp(x + o, 0, width - 1);
        target[static_cast<size_t>(wy) * width + x] = colour;
        target[static_cast<size_t>(y) * width + wx] = colour;
        target[static_cast<size_t>(wy) * width + wx] = colour;
    }
}

}  // namespace

void DrawSegment(const glm::vec3& start, const glm::vec3& end, uint32_t centreColour, uint32_t* target,
                 int width, int height, int thickness, uint32_t wideColour, const MeshClipState& clip) {
    const bool widen = thickness > 1;
    zrcommon::WalkSteppingLine(
        glm::vec2(start), glm::vec2(end), width, height, [&](int x, int y, glm::vec2 at, bool first) {
            // The first pixel is clip-tested at its snapped position and the
            // start point's depth; depth is deliberately not interpolated along
            // the line, so every later pixel is tested at depth 0.
            const glm::vec3 tested = first ? glm::vec3(static_cast<float>(x), static_cast<float>(y), start.z)
                                           : glm::vec3(at, 0.0f);
            if (!AcceptPixel(clip, tested)) return;
            target[static_cast<size_t>(y) * width + x] = centreColour;
            if (widen) Widen(x, y, wideColour, target, width, height, thickness);
        });
}

}  // namespace zrmesh
