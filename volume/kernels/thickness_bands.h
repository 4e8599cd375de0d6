// Inside/outside thickness view: the table-coloured slice with two bands marked
// along the edge of the visible region, a band of `insideThickness` pixels just
// inside the edge and one of `outsideThickness` pixels just outside it. It shows
// at a glance how far a structure reaches past a margin (a wall, a safety zone
// around an implant channel) in the current section.
//
// Steps:
// 1. The single-table slice of the volume is drawn into the target as for a
//    plain slice (same values, same value buffer).
// 2. A pixel is visible when it lies inside the volume (coverage byte 255) and
//    its colour is not black, i.e. the table gives it some opacity and colour.
// 3. The inside band is visible minus the visible region eroded by
//    `insideThickness`; the outside band is the region dilated by
//    `outsideThickness` minus visible (square structuring elements, through the
//    morphology library; without it initialised no band is drawn).
// 4. Inside-band pixels are mixed half and half with amber (255, 176, 0);
//    outside-band pixels become opaque sky blue (0, 144, 255) with coverage 255.
//    Colours are written red first (byte 0) as the tables' default channel order
//    writes them.
// A thickness of 0 (or less) draws no band of that kind. Clip-rejected pixels
// keep their old colour and can still fall inside a band.
#pragma once

#include "common/matrix_record.h"
#include "common/slice_clip.h"
#include "host/zr_image.h"
#include "host/zr_visual.h"
#include "volume/kernels/slice_plane.h"

namespace zrvolume {

struct ThicknessBandArgs {
    zrobjects::ZrVObjectVolume* volume = nullptr;
    zrcommon::Matrix16 planeToVoxel;
    zrobjects::ZrIObject* image = nullptr;
    SlicePlane plane;
    zrcommon::SliceClipState clip;
    int colourIndex = 1;   // usage-1 buffer drawn into
    int valueIndex = -1;   // usage-3 buffer, negative for none
    zrobjects::ZrObject* tableOwner = nullptr;  // holds "_TableMap_OTF"
    int insideThickness = 0;   // pixels
    int outsideThickness = 0;  // pixels
};

// False when the slice itself cannot be drawn (unsupported voxel type).
bool RenderThicknessBands(const ThicknessBandArgs& args);

inline constexpr uint32_t kInsideBandColour = 0x0000b0ffu;   // bytes 255, 176, 0
inline constexpr uint32_t kOutsideBandColour = 0xffff9000u;  // bytes 0, 144, 255, 255

}  // namespace zrvolume
