// Rasterises screen-space cut segments into a 32-bit colour target: a simple
// stepping line, widened to a thickness, with the object's clip plane and clip
// box applied to the line's own pixels. Never touches the depth buffer.
#pragma once

#include <cstdint>

#include <glm/glm.hpp>

#include "common/slice_clip.h"

namespace zrmesh {

// Clip state of one object in screen space: plane point and unit normal in
// screen coordinates, and the screen-to-box matrix.
using MeshClipState = zrcommon::SliceClipState;

// One colour pixel packed as it lies in memory: channels (int)(c * 255.0)
// truncated, in R, G, B order when `rgba` is set and B, G, R otherwise, then
// alpha 255.
uint32_t PackColour(const glm::vec3& colour, bool rgba);

// True when the clip tests that are on keep the screen point (x, y, z).
inline bool AcceptPixel(const MeshClipState& clip, const glm::vec3& point) {
    return !zrcommon::Clipped(clip, point);
}

// Draws the segment from `start` to `end` (x, y in pixels, z the projected depth)
// into `target` (width x height pixels, row-major). Both ends snap to pixels by
// truncating x + 0.5; the line takes max(|dx|, |dy|) steps from the exact start
// point and so covers steps + 1 pixels. The first pixel is clip-tested at the
// start point's depth, every later one at depth 0. Accepted pixels inside the
// image get `centreColour`; with thickness > 1 each is widened by pixels of
// `wideColour` at offsets +1, -1, +2, -2, ... along y, x and the diagonal,
// clamped into the image and not clip-tested. The walk is the shared stepping
// line (common/stepping_line.h): bounded by the image, nothing for a
// non-finite end.
void DrawSegment(const glm::vec3& start, const glm::vec3& end, uint32_t centreColour, uint32_t* target,
                 int width, int height, int thickness, uint32_t wideColour, const MeshClipState& clip);

}  // namespace zrmesh
