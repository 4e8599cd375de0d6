// Single-table slice: one trilinear sample of the volume per pixel of the slice
// plane, coloured through row 0 of the owner's transfer table with the scaled
// lookup. The sample is truncated toward zero (no + 0.5) before the lookup and
// before it is stored in the optional 16-bit value buffer. Pixels removed by the
// clip box or clip plane keep both buffers' old values; pixels outside the volume
// are written with value 0 and coverage byte 0.
//
// Serves signed and unsigned 8- and 16-bit voxels; any other voxel type returns
// false without drawing. A "_TableMap_OTF" of another type throws
// std::bad_any_cast before any pixel is drawn.
#pragma once

#include "common/matrix_record.h"
#include "common/slice_clip.h"
#include "host/zr_image.h"
#include "host/zr_visual.h"
#include "volume/kernels/slice_plane.h"

namespace zrvolume {

// colourIndex: usage-1 buffer; valueIndex: usage-3 buffer, negative for none.
bool RenderOtfSlice(zrobjects::ZrVObjectVolume& volume, const zrcommon::Matrix16& planeToVoxel, zrobjects::ZrIObject& image,
                    const SlicePlane& plane, const zrcommon::SliceClipState& clip, int colourIndex, int valueIndex,
                    zrobjects::ZrObject& otfOwner);

// The worker for voxel type T (char, unsigned char, short, unsigned short);
// true once it has run.
template <class T>
bool RenderOtfSliceRows(zrobjects::ZrVObjectVolume& volume, const zrcommon::Matrix16& planeToVoxel,
                        zrobjects::ZrIObject& image, const SlicePlane& plane, const zrcommon::SliceClipState& clip,
                        int colourIndex, int valueIndex, zrobjects::ZrObject& otfOwner);

}  // namespace zrvolume
