// Mask-selected table slice: one trilinear sample of the main volume per pixel of
// the slice plane; an 8-bit mask volume, read at the same eight neighbours,
// picks the table row. When the labelled neighbours carry more than half the
// trilinear weight, the label is the first non-zero one from the far corner
// (z1, y1, x1) back to (z0, y0, x0); otherwise it is 0. Label 0 colours the
// pixel with row 0 premultiplied by its opacity; a label composites row `label`
// over row 0. The table is indexed by the rounded sample itself (not scaled by
// the row length) and without clamping; the rounded sample also goes to the
// optional 16-bit value buffer.
//
// The mask volume is addressed with the main volume's dimensions, margins and
// pitch: the two must share their layout. Clipped pixels keep both buffers' old
// values; pixels outside the volume are written with value 0 and coverage 0.
//
// Serves signed and unsigned 8- and 16-bit main voxels; any other type returns
// false without drawing. A maxLabel above the table's row count prints a warning
// and the render goes on.
#pragma once

#include "common/matrix_record.h"
#include "common/slice_clip.h"
#include "host/zr_image.h"
#include "host/zr_visual.h"
#include "volume/kernels/slice_plane.h"

namespace zrvolume {

// colourIndex: usage-1 buffer; valueIndex: usage-3 buffer, negative for none.
bool RenderMaskedOtfSlice(zrobjects::ZrVObjectVolume& volume, const zrcommon::Matrix16& planeToVoxel,
                          zrobjects::ZrVObjectVolume& maskVolume, zrobjects::ZrIObject& image,
                          const SlicePlane& plane, const zrcommon::SliceClipState& clip, int colourIndex, int valueIndex,
                          int maxLabel, zrobjects::ZrObject& otfOwner);

// The worker for main voxel type T (char, unsigned char, short, unsigned
// short); the mask is always unsigned 8-bit. True once it has run.
template <class T>
bool RenderMaskedOtfSliceRows(zrobjects::ZrVObjectVolume& volume, const zrcommon::Matrix16& planeToVoxel,
                              zrobjects::ZrVObjectVolume& maskVolume, zrobjects::ZrIObject& image,
                              const SlicePlane& plane, const zrcommon::SliceClipState& clip, int colourIndex, int valueIndex,
                              int maxLabel, zrobjects::ZrObject& otfOwner);

}  // namespace zrvolume
