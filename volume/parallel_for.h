// The one helper that spreads a row (or column) loop of the volume kernels over
// threads. A kernel states what one iteration computes; this decides how the
// iterations are scheduled. Each iteration must write only its own pixels, so
// results never depend on the thread count.
#pragma once

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

}  // namespace zrvolume
