#include "line_drawing.h"

#include <algorithm>
#include <cstdlib>

#include "volume/kernels/float_convert.h"

namespace zrmesh {

using zrvolume::TruncateToInt32;

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

inline bool InsideImage(int64_t x, int64_t y, int width, int height) {
    return x >= 0 && y >= 0 && x < width && y < height;
}

}  // namespace

void DrawSegment(const glm::vec3& start, const glm::vec3& end, uint32_t centreColour, uint32_t* target,
                 int width, int height, int thickness, uint32_t wideColour, const MeshClipState& clip) {
    const bool widen = thickness > 1;
    // Snap by truncating x + 0.5 (so -0.7 lands on column 0). Differences in 64
    // bits: ends far outside the image must not overflow.
    const int64_t ix0 = TruncateToInt32(start.x + 0.5f), iy0 = TruncateToInt32(start.y + 0.5f);
    const int64_t ix1 = TruncateToInt32(end.x + 0.5f), iy1 = TruncateToInt32(end.y + 0.5f);
    const int64_t dx = ix1 - ix0, dy = iy1 - iy0;
    const int64_t steps = std::max(std::llabs(dx), std::llabs(dy));

    if (InsideImage(ix0, iy0, width, height) &&
        AcceptPixel(clip, glm::vec3(static_cast<float>(ix0), static_cast<float>(iy0), start.z))) {
        const int x = static_cast<int>(ix0), y = static_cast<int>(iy0);
        target[static_cast<size_t>(y) * width + x] = centreColour;
        if (widen) Widen(x, y, wideColour, target, width, height, thickness);
    }
    if (steps == 0) return;

    const float step = 1.0f / static_cast<float>(steps);
    const float stepX = static_cast<float>(dx) * step, stepY = static_cast<float>(dy) * step;
    float x = start.x, y = start.y;
    for (int64_t i = 1; i <= steps; ++i) {
        x += stepX;
        y += stepY;
        const int64_t px = TruncateToInt32(x + 0.5f), py = TruncateToInt32(y + 0.5f);
        if (!InsideImage(px, py, width, height)) continue;
        // Depth is deliberately not interpolated along the line: every pixel
        // after the first is clip-tested at depth 0.
        if (!AcceptPixel(clip, glm::vec3(x, y, 0.0f))) continue;
        target[static_cast<size_t>(py) * width + px] = centreColour;
        if (widen) Widen(static_cast<int>(px), static_cast<int>(py), wideColour, target, width, height, thickness);
    }
}

}  // namespace zrmesh
