// Label overlay slice: tints an already rendered slice image with the colours of
// a label volume. At each pixel the label is the weighted majority of the eight
// neighbour voxels (trilinear weights; ties go to the smaller label in the voxel
// type's order; a winner needs more than half the weight, otherwise label 0).
// The label indexes row 0 of the table with the scaled lookup; where the entry's
// opacity is non-zero the existing pixel is blended towards the entry colour with
// the fixed weights 205/255 and 50/255 (the old pixel's bytes 0 and 2 trade
// places in the blend) and its coverage byte becomes 255. Zero-opacity labels,
// pixels outside the volume and clipped pixels are left untouched.
//
// Serves signed and unsigned 8- and 16-bit label voxels; any other type returns
// false without drawing. A "_TableMap_OTF" of another type throws
// std::bad_any_cast before any pixel is drawn.
#pragma once

#include "common/matrix_record.h"
#include "common/slice_clip.h"
#include "host/zr_image.h"
#include "host/zr_visual.h"
#include "volume/kernels/slice_plane.h"

namespace zrvolume {

// colourIndex: the usage-1 buffer that is read and blended in place.
bool RenderLabelOverlaySlice(zrobjects::ZrVObjectVolume& labelVolume, const zrcommon::Matrix16& planeToVoxel,
                             zrobjects::ZrIObject& image, const SlicePlane& plane, const zrcommon::SliceClipState& clip,
                             int colourIndex, zrobjects::ZrObject& otfOwner);

// The worker for label type T (char, unsigned char, short, unsigned short);
// true once it has run.
template <class T>
bool RenderLabelOverlaySliceRows(zrobjects::ZrVObjectVolume& labelVolume, const zrcommon::Matrix16& planeToVoxel,
                                 zrobjects::ZrIObject& image, const SlicePlane& plane, const zrcommon::SliceClipState& clip,
                                 int colourIndex, zrobjects::ZrObject& otfOwner);

}  // namespace zrvolume
