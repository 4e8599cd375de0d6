// Iso-value contour lines of a volume on the slice plane (marching squares).
//
// A grid with a step of exactly one voxel along each plane direction is laid
// from the plane's first corner; each cell whose first corner lies inside the
// volume samples its four corners trilinearly (truncated to integers) and emits
// zero, one or two segments by the fixed marching-squares rules. Saddle cells
// always cut off the corners below the iso value separately. For 8-bit volumes
// the iso value is narrowed to 8 bits (sign-extended for signed voxels, so 300
// acts as 44 and 200 as -56 on a signed volume); for signed 16-bit volumes it is
// read as signed.
//
// The segments are projected to screen pixels with the voxel-to-world matrix and
// the image camera's world-to-screen transform. With `outList` each segment
// appends x0, y0, x1, y1 (nothing is cleared, nothing drawn); without it each
// segment is drawn as a one-pixel line of `colour` into the usage-1 buffer
// `frameBufferIndex`, the plane's width serving as the row pitch.
//
// Single-threaded. Voxel types other than signed and unsigned 8- and 16-bit
// produce nothing and report success.
#pragma once

#include <cstdint>
#include <vector>

#include <glm/glm.hpp>

#include "common/matrix_record.h"
#include "host/zr_image.h"
#include "host/zr_visual.h"
#include "volume/kernels/slice_plane.h"

namespace zrvolume {

bool DrawIsoContourLines(zrobjects::ZrVObjectVolume& volume, const zrcommon::Matrix16& planeToVoxel,
                         const zrcommon::Matrix16& voxelToWorld, zrobjects::ZrIObject& image, const SlicePlane& plane,
                         int frameBufferIndex, uint16_t isoValue, uint32_t colour, std::vector<double>* outList);

// The worker for voxel type T (char, unsigned char, short, unsigned short);
// always true.
template <class T>
bool ExtractIsoContour(zrobjects::ZrVObjectVolume& volume, const zrcommon::Matrix16& planeToVoxel,
                       const zrcommon::Matrix16& voxelToWorld, zrobjects::ZrIObject& image, const SlicePlane& plane,
                       int frameBufferIndex, uint16_t isoValue, uint32_t colour, std::vector<double>* outList);

// A one-pixel stepping line from p0 to p1 (screen pixels, common/stepping_line.h)
// in a buffer of `width` x `height` 32-bit pixels, row pitch `width`. The colour
// word is stored as it is; pixels outside the buffer are skipped, and the walk is
// bounded by the buffer.
void DrawLineDDA(glm::vec2 p0, glm::vec2 p1, uint32_t colour, uint32_t* pixels, int width, int height);

}  // namespace zrvolume
