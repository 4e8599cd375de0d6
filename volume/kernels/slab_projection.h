// Planar slab projection: every pixel of a flat image marches a fixed number of
// equally spaced layers through the volume along one step vector and reduces the
// samples to one value: maximum (code 10), minimum (11), average of the positive
// samples (12), or shaded compositing (0 and 1, scheme in slab_compositing.h).
// All geometry arrives in voxel coordinates; rows run in parallel and the result
// does not depend on the thread count.
//
// Per pixel (row r, column c of a W x H image): t = r / (H - 1), s = c / (W - 1),
// start = bilinear mix of the four corners. For each layer: when the point is
// clipped (box or plane) the layer is skipped and, deliberately, the point is not
// advanced, so every later layer tests the same point again and is skipped too.
// Otherwise the sample is the trilinear sample when the point is inside the
// volume (and the coverage byte becomes 255), else 0; it enters the reduction and
// the point advances by the layer step.
//
// Reductions (kept exactly, oddities included):
// - maximum: starts at 0, every unclipped layer counts (0 outside); value =
//   trunc(max + 0.5);
// - minimum: starts at 3.4028235e38, every unclipped layer counts (0 outside,
//   pulling the minimum to 0); value = trunc(min + 0.5), so a pixel whose layers
//   were all clipped overflows the conversion and ends with value 0;
// - average: only samples > 0 count; value = trunc(sum / count) without + 0.5; no
//   positive sample gives not-a-number and value 0.
// The value's low 16 bits go to the value buffer and index the table row
// directly, without scaling by its entry count (the host pads rows to 65536
// entries). The pixel is that entry premultiplied by its opacity, with the
// coverage byte 3 and this family's channel-order switch.
// With H = 1 (or W = 1) the row (column) position is not-a-number, so no point
// lies inside the volume.
#pragma once

#include <glm/glm.hpp>

#include "common/matrix_record.h"
#include "common/slice_clip.h"
#include "host/zr_image.h"
#include "host/zr_visual.h"
#include "volume/kernels/slice_plane.h"

namespace zrvolume {

// Where the layers of a slab lie, in voxel coordinates.
struct SlabGeometry {
    // Start points of the first layer at the image corners.
    glm::vec3 topLeft{0.0f};
    glm::vec3 bottomLeft{0.0f};
    glm::vec3 topRight{0.0f};
    glm::vec3 bottomRight{0.0f};
    glm::vec3 layerStep{0.0f};  // added after each layer
    int layerCount = 0;         // layers per pixel
};

// The slab of `thickness` millimetres centred on `plane`: layers `voxelPitchMin`
// millimetres apart along the unit `viewDirection` (world space), count =
// max(1, round(thickness / voxelPitchMin)), layer m at offset
// (m - (count - 1) / 2) * voxelPitchMin from the plane (20 mm at pitch 0.4: 50
// layers at -9.8 ... +9.8 mm). The corners are the plane's four world corners
// (first and last pixel of the first row, first and last pixel of the last row)
// moved to the first layer and mapped by `planeToVoxel`; the step is the voxel
// image of one layer spacing (`planeToVoxel` is taken as affine). A non-positive
// or non-finite pitch gives one layer on the plane; a zero direction gives a
// zero step.
SlabGeometry MakeSlabGeometry(const SlicePlane& plane, const zrcommon::Matrix16& planeToVoxel,
                              const glm::vec3& viewDirection, float thickness, float voxelPitchMin);

struct SlabProjectionArgs {
    // The volume (integer voxels of 8 or 16 bits; other types return false). Its
    // "_float2_GraidentMagMinMax" is read by the compositing member only.
    zrobjects::ZrVObjectVolume* volume = nullptr;
    // Holds "_TableMap_OTF" (the volume's "WINDOWING" or "OTF" table object);
    // missing or mistyped throws std::bad_any_cast. Row 0 is used.
    zrobjects::ZrObject* tableOwner = nullptr;
    // Target: colour buffer (usage 1, `colourIndex`) and, when `valueIndex` >= 0
    // and it exists, the 16-bit value buffer (usage 3, `valueIndex`); pixel index
    // row * pitch + column with the colour buffer's pitch. `width` x `height`
    // pixels are drawn (the plane geometry's size); larger than the colour buffer
    // returns false.
    zrobjects::ZrIObject* image = nullptr;
    int colourIndex = 1;
    int valueIndex = -1;
    int width = 0;
    int height = 0;

    SlabGeometry geometry;
    zrcommon::SliceClipState clip;  // voxel coordinates

    // 0 or 1: shaded compositing (the light direction is the layer step,
    // normalised); 10 maximum, 11 minimum, 12 average; anything else returns
    // false.
    int projectionCode = 10;
    glm::vec4 phongCoeffs{0.2f, 1.0f, 0.5f, 5.0f};  // compositing only
    bool gradientMagnitude = false;                 // compositing only (code 1)
};

// True when a member ran; false for an unknown code, a missing volume, table
// owner, image or colour buffer, an oversized image, or an unsupported voxel type.
bool RenderSlabProjection(const SlabProjectionArgs& args);

}  // namespace zrvolume
