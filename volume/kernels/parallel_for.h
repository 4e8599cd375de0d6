// The one helper that spreads the row (or column) loops of the volume kernels
// over threads. A kernel states what one iteration computes; this decides how
// the iterations are scheduled. Each iteration must write only its own pixels,
// so results never depend on the thread count.
#pragma once

#include <algorithm>

#include <omp.h>

namespace zrvolume {

template <class Body>
void ParallelFor(int begin, int end, const Body& body) {
    const int count = end - begin;
    if (count <= 0) return;
    if (count == 1) {
        body(begin);  // a single iteration runs on the calling thread
        return;
    }
    // Dynamic scheduling: oblique planes make rows of very different cost.
#pragma omp parallel for schedule(dynamic, 1)
    for (int i = begin; i < end; ++i) body(i);
}

// An image in vertical strips of `stripWidth` columns: body(row, from, to)
// draws columns from .. to - 1 of a row, every strip runs its rows top to
// bottom, and the strips are spread over the threads. Neighbouring rows of an
// oblique section read nearly the same voxels, so a narrow strip finds the
// previous row's cache lines still in the core's cache, where a whole row of a
// large image would have pushed them out.
template <class Body>
void ParallelForStrips(int width, int height, int stripWidth, const Body& body) {
    if (width <= 0 || height <= 0) return;
    const int strips = (width + stripWidth - 1) / stripWidth;
    ParallelFor(0, strips, [&](int strip) {
        const int from = strip * stripWidth;
        const int to = std::min(width, from + stripWidth);
        for (int y = 0; y < height; ++y) body(y, from, to);
    });
}

// The thin slices' spans: in strips of 64 columns on the vector path (a
// strip's row reads about 5 KB of voxel lines, which the next row mostly reads
// again from the first-level cache), whole rows on the per-pixel path.
template <class Span>
void ParallelSliceSpans(bool strips, int width, int height, const Span& span) {
    if (strips)
        ParallelForStrips(width, height, 64, span);
    else
        ParallelFor(0, height, [&](int y) { span(y, 0, width); });
}

// A strip width between `narrowest` and `widest` columns (multiples of 16, the
// widest lane group) that still gives every thread two strips of `width`
// columns where it can, so that strips of unequal cost even out.
inline int BalancedStripWidth(int width, int narrowest, int widest) {
    const int perThreadPair = width / (2 * std::max(1, omp_get_max_threads()));
    return std::clamp(perThreadPair / 16 * 16, narrowest, widest);
}

}  // namespace zrvolume
