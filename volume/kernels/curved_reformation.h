// Curved planar reformation: a volume unrolled along a centre line.
//
// Image column i is a position along the centre line and image row j a lateral
// offset along the column's unit up vector, the top rows on the +up side. Where
// the columns and rows fall follows the camera: the unrolled curve is a
// `planeWidth` x `planeHeight` millimetre rectangle laid on the image plane
// (common/curved_view.h), so a curved view pans and zooms like a flat one.
// Columns are evenly spaced in curve-sample units (they follow the sample
// spacing, not the arc length). The depth axis Wd = up x tangent (normalised,
// negated by `rightSide`) carries the section surface's depth offset and the
// slab layers.
//
// Per pixel one of five reductions runs, picked by the projection code and the
// thickness: a single trilinear sample on the surface (codes 0/1 with thickness
// exactly 0), shaded compositing of the slab (codes 0/1, thickness > 0; scheme in
// slab_compositing.h), maximum (10), minimum (11) or average (12) over the slab.
// The sample goes through the table row 0 of "_TableMap_OTF" with the scaled
// lookup; the pixel is the premultiplied colour with a coverage byte 3 (255 when
// a point of the pixel lay inside the volume). Columns run in parallel; the
// result does not depend on the thread count.
//
// Deliberate behaviour of the body, kept on purpose:
// - a column whose curve position u is not in [0, N - 1) is left untouched, and
//   a row whose lateral coordinate falls outside [0, E] is left untouched (with
//   W = 1 or H = 1 the divisions by W - 1 / H - 1 give not-a-number, so such an
//   image stays unwritten);
// - single plane: a clipped point leaves its pixel untouched; slab kernels: a
//   clipped layer is not counted, the pixel is still written;
// - maximum starts at 0, minimum at 3.4028235e38, and a layer outside the volume
//   contributes 0 to both (pulling the minimum to 0); a minimum with no counted
//   layer (or a negative last-layer index) gives 0; the average counts layers
//   outside the volume as 0 and is truncated, not rounded; the other reductions
//   round by + 0.5. The value buffer receives that integer's low 16 bits.
#pragma once

#include <cstdint>

#include <glm/glm.hpp>

#include "common/matrix_record.h"
#include "common/slice_clip.h"
#include "host/zr_image.h"
#include "host/zr_visual.h"

namespace zrvolume {

// Everything the driver supplies for one curved reformation.
struct CurvedReformationArgs {
    // The volume to draw (integer voxels of 8 or 16 bits; any other voxel type
    // draws nothing and returns false). Its own parameter
    // "_float2_GraidentMagMinMax" is read by the compositing member only.
    zrobjects::ZrVObjectVolume* volume = nullptr;
    // The object whose "_TableMap_OTF" parameter holds the colour table (the
    // volume's "WINDOWING" or "OTF" table object); missing or mistyped throws
    // std::bad_any_cast. Row 0 is used, scaled by its entry count L.
    zrobjects::ZrObject* tableOwner = nullptr;

    // Target image: colour buffer (usage 1, `colourIndex`) and, when
    // `valueIndex` >= 0 and such a buffer exists, the 16-bit value buffer (usage
    // 3, `valueIndex`). The pixel index is row * pitch + column with the pitch of
    // the colour buffer. `width` x `height` pixels are drawn (normally the plane
    // geometry's size); a size larger than the colour buffer returns false.
    zrobjects::ZrIObject* image = nullptr;
    int colourIndex = 1;
    int valueIndex = -1;
    int width = 0;
    int height = 0;
    // The image-plane corners in world millimetres (first and last pixel of the
    // first row, then of the last row): the plane geometry's corners.
    glm::vec3 planeCorners[4] = {};

    // Centre line in world millimetres: `curveCount` samples of points, up
    // vectors (towards the top of the image; need not be unit length) and
    // tangents (direction of increasing sample index). Pass the request's
    // "_vlist_FLOAT3_CurveInterpolations", "_vlist_FLOAT3_CurveUpVectors" and
    // "_vlist_FLOAT3_CurveTangentVectors" with the smallest of their sizes. A
    // null array or fewer than two samples draws nothing (the call still returns
    // true for a valid code).
    const glm::vec3* curvePoints = nullptr;
    const glm::vec3* upVectors = nullptr;
    const glm::vec3* tangents = nullptr;
    int curveCount = 0;

    // World millimetres to voxel coordinates (voxel (i, j, k) centred at
    // (i, j, k)), applied with a perspective divide: the volume's
    // reference-to-object matrix times the scene entry's inverse world matrix,
    // as a record built with ToMatrixRecord.
    zrcommon::Matrix16 worldToVoxel;

    // "_float_ExPlaneWidth": the length in millimetres that the centre line
    // takes on the image plane, from its first sample to its last.
    float planeWidth = 1.0f;
    // "_float_ExPlaneHeight": the lateral extent in millimetres, centred on the
    // curve; rows beyond it are left untouched.
    float planeHeight = 1.0f;
    // Depth offset of the section surface from the centre line, in millimetres
    // along Wd (signed). The renderer passes its half thickness
    // "_float_ThicknessRatio" * "_float_CurveThicknessPositionRange" * 0.5; 0
    // puts the surface on the centre line.
    float halfThickness = 0.0f;
    // "_bool_IsRightSide": negates the depth axis Wd (mirrors the depth offset
    // and the layer order).
    bool rightSide = false;

    // Projection code: 0 or 1 (single plane / shaded compositing), 10 maximum, 11
    // minimum, 12 average; anything else returns false.
    int projectionCode = 0;
    // Slab thickness T in millimetres along Wd, from T / 2 in front of the
    // surface. Codes 0/1: exactly 0 draws the single plane, > 0 composites, < 0
    // returns false.
    float thickness = 0.0f;
    // Spacing of the slab layers in millimetres (the renderer passes the
    // volume's smallest voxel pitch). The slab has max(1, round(T / layerStep))
    // layers (as many as a planar slab of the same thickness), `layerStep`
    // apart, the first T / 2 in front of the surface (T = 20, step 0.4: 50
    // layers at -10 ... +9.6 mm). A non-positive or non-finite step gives one
    // layer.
    float layerStep = 1.0f;

    // Compositing member only: (ambient, diffuse, specular, exponent); the
    // renderer's "_float4_PhongCoeffs" (or its mode-1 override).
    glm::vec4 phongCoeffs{0.2f, 1.0f, 0.5f, 5.0f};
    // Compositing member only: weight each layer's opacity by its gradient
    // magnitude (the renderer sets it for projection code 1).
    bool gradientMagnitude = false;
    // Compositing member only: the light/view direction in world space (the
    // camera's view direction), mapped into voxel space and normalised once per
    // call. A zero vector selects the depth axis at the middle curve sample.
    glm::vec3 viewDirection{0.0f};

    // Clip box and clip plane in voxel coordinates (applied per point).
    zrcommon::SliceClipState clip;
};

// The kernel's geometry in curve space (world millimetres), derived from the
// arguments once per call. Exposed so that tests and special callers can place
// the columns and rows directly.
struct CurvedSectionGeometry {
    // Curve positions (in curve-sample units) of the first and the last column.
    float firstColumnPosition = 0.0f;  // u0
    float lastColumnPosition = 0.0f;   // u1
    // Lateral coordinates of the top (first row) and bottom (last row) of the
    // first and the last column.
    float firstColumnTop = 0.0f;     // l0
    float firstColumnBottom = 0.0f;  // h0
    float lastColumnTop = 0.0f;      // l1
    float lastColumnBottom = 0.0f;   // h1
    float depthScale = 0.0f;     // a: the surface is B = P + a Wd
    float lateralScale = 1.0f;   // b: lateral step S = b * unit up
    float lateralExtent = 0.0f;  // E: rows with lateral coordinate outside [0, E] are skipped
    float lateralCentre = 0.0f;  // C: lateral coordinate of the centre line
    // Slab layers m = 0..lastLayer at B - (slabSpan / 2) Wd + m * layerStep Wd.
    float slabSpan = 0.0f;
    int lastLayer = 0;  // K
    float layerStep = 0.0f;
    // Compositing light direction, voxel space (normalised by the set-up).
    glm::vec3 lightDirection{0.0f};
};

// The geometry the arguments describe: the column positions and the top and
// bottom lateral coordinates of the curved view (MapCurvedView of the plane
// corners); lateral coordinates in millimetres with C = planeHeight / 2, b = 1
// and E = planeHeight; a = halfThickness; K = layers - 1 and slabSpan = T, so
// the first layer lies T / 2 in front of the surface.
CurvedSectionGeometry MakeCurvedSectionGeometry(const CurvedReformationArgs& args);

// Draws with an explicit geometry. Returns false for an unknown projection code,
// a negative thickness with code 0 or 1, a missing volume, table owner, image or
// colour buffer, a size larger than the colour buffer, or a voxel type other
// than the four integer types; true otherwise.
bool RenderCurvedSection(const CurvedReformationArgs& args, const CurvedSectionGeometry& geometry);

// RenderCurvedSection(args, MakeCurvedSectionGeometry(args)).
bool RenderCurvedReformation(const CurvedReformationArgs& args);

}  // namespace zrvolume
