// The stepping line both renderers draw with (mesh cut lines, iso-contour
// lines): both ends snap to pixels by truncating x + 0.5; the line takes
// steps = max(|dx|, |dy|) of the snapped differences, each adding (dx, dy) /
// steps to the exact (unsnapped) start point, and so covers steps + 1 pixels.
//
// Every walk is bounded by the image, so that no segment costs more than a few
// image widths of work whatever its ends: a segment with a non-finite end is
// not drawn at all, and one reaching further than twice the image's width plus
// height is first cut (in double precision) to the image widened by two pixels
// on every side. Pixels outside that widened image are never inside the image,
// so a cut segment draws the same line; only the rounding of its steps may move
// a pixel by one.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include <glm/glm.hpp>

#include "common/float_convert.h"
#include "common/segment_clip.h"

namespace zrcommon {

// Calls plot(x, y, position, first) for every pixel (x, y) of the line from
// `start` to `end` that lies inside the width x height image: first for the
// snapped start pixel (position = the start point), then for each step
// (position = the stepped point, x and y its snapped pixel).
template <class Plot>
void WalkSteppingLine(glm::vec2 start, glm::vec2 end, int width, int height, Plot&& plot) {
    if (!std::isfinite(start.x) || !std::isfinite(start.y) || !std::isfinite(end.x) || !std::isfinite(end.y))
        return;
    const double reach = 2.0 * (static_cast<double>(width) + static_cast<double>(height));
    if (!(std::fabs(double(end.x) - start.x) <= reach && std::fabs(double(end.y) - start.y) <= reach) &&
        !ClipToRectangle(start, end, glm::dvec2(-2.0), glm::dvec2(width + 1.0, height + 1.0)))
        return;

    const auto inside = [&](int64_t x, int64_t y) { return x >= 0 && y >= 0 && x < width && y < height; };
    // Differences in 64 bits: ends far outside the image must not overflow.
    const int64_t ix0 = TruncateToInt32(start.x + 0.5f), iy0 = TruncateToInt32(start.y + 0.5f);
    const int64_t dx = TruncateToInt32(end.x + 0.5f) - ix0, dy = TruncateToInt32(end.y + 0.5f) - iy0;
    const int64_t steps = std::max(std::llabs(dx), std::llabs(dy));
    if (inside(ix0, iy0)) plot(static_cast<int>(ix0), static_cast<int>(iy0), start, true);
    if (steps == 0) return;

    const float step = 1.0f / static_cast<float>(steps);
    const float stepX = static_cast<float>(dx) * step, stepY = static_cast<float>(dy) * step;
    glm::vec2 at = start;
    for (int64_t i = 1; i <= steps; ++i) {
        at.x += stepX;
        at.y += stepY;
        const int64_t px = TruncateToInt32(at.x + 0.5f), py = TruncateToInt32(at.y + 0.5f);
        if (inside(px, py)) plot(static_cast<int>(px), static_cast<int>(py), at, false);
    }
}

}  // namespace zrcommon
