// Grey-level slice of a 32-bit float volume: one trilinear sample per pixel of
// the slice plane, mapped to a grey level g either through a window (centre,
// width; single precision) or, when a curve is given, through a piecewise-linear
// curve of (input, output) points in ascending input order (double precision),
// whose outputs are normalised by its first and last points. Every pixel is
// written as (g, g, g, coverage); outside the volume the sample counts as 0 and
// coverage is 0. No clip box or clip plane applies, and the voxel type is not
// checked: the caller passes a float volume.
//
// An empty curve throws std::out_of_range("invalid vector subscript") before any
// pixel is written.
#pragma once

#include <vector>

#include <glm/glm.hpp>

#include "common/matrix_record.h"
#include "host/zr_image.h"
#include "host/zr_visual.h"
#include "volume/kernels/slice_plane.h"

namespace zrvolume {

// `reserved` is ignored. colourIndex: usage-1 buffer. curve: null to use the
// window.
bool RenderFloatGreySlice(zrobjects::ZrVObjectVolume& volume, const zrcommon::Matrix16& planeToVoxel,
                          zrobjects::ZrIObject& image, const SlicePlane& plane, const void* reserved,
                          int colourIndex, const std::vector<glm::dvec2>* curve, float windowCentre,
                          float windowWidth);

// The worker the entry point forwards to; true once it has run.
bool RenderFloatGreySliceRows(zrobjects::ZrVObjectVolume& volume, const zrcommon::Matrix16& planeToVoxel,
                              zrobjects::ZrIObject& image, const SlicePlane& plane, int colourIndex,
                              const std::vector<glm::dvec2>* curve, float windowCentre, float windowWidth);

}  // namespace zrvolume
