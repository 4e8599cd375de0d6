// Cuts a screen segment to an axis-aligned rectangle on x and y (Liang-Barsky),
// any further coordinate (the depth) following linearly. The arithmetic is in
// double precision, so that ends far outside the rectangle neither overflow nor
// lose the part inside; an end already inside is kept exactly.
#pragma once

#include <glm/glm.hpp>

namespace zrcommon {

// False when nothing of the segment lies in [lo, hi] (edges included).
template <int N, glm::qualifier Q>
bool ClipToRectangle(glm::vec<N, float, Q>& start, glm::vec<N, float, Q>& end, glm::dvec2 lo, glm::dvec2 hi) {
    using Point = glm::vec<N, double, Q>;
    const Point from(start), delta = Point(end) - from;
    double t0 = 0.0, t1 = 1.0;
    const double p[4] = {-delta.x, delta.x, -delta.y, delta.y};
    const double q[4] = {from.x - lo.x, hi.x - from.x, from.y - lo.y, hi.y - from.y};
    for (int k = 0; k < 4; ++k) {
        if (p[k] == 0.0) {
            if (q[k] < 0.0) return false;
            continue;
        }
        const double t = q[k] / p[k];
        if (p[k] < 0.0) {
            if (t > t0) t0 = t;
        } else if (t < t1) {
            t1 = t;
        }
    }
    if (!(t0 <= t1)) return false;
    if (t1 < 1.0) end = glm::vec<N, float, Q>(from + t1 * delta);
    if (t0 > 0.0) start = glm::vec<N, float, Q>(from + t0 * delta);
    return true;
}

}  // namespace zrcommon
