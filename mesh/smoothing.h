// The antialiasing pass of the mesh slicer: every pixel of the destination is
// the kernel-weighted sum of the source pixels around it (coordinates clamped
// to the image), per byte, limited to 255, written only where the alpha sum is
// positive. Rows are shared out over threads one at a time.
#pragma once

#include <cstdint>

#include "mesh/smoothing_kernel.h"

namespace zrmesh {

// Clears `destination` (width x height pixels) and smooths `source` into it.
// The four channel sums start at zero for each thread and are then carried from
// pixel to pixel, never reset: pixels after a line pixel in a thread's order
// keep part of its weight. The result therefore depends on which rows each
// thread takes; on one thread it is the raster-order result.
void SmoothImage(const uint32_t* source, uint32_t* destination, int width, int height,
                 const SmoothingKernel& kernel);

}  // namespace zrmesh
