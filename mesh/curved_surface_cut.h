// Cuts triangle meshes with the curved section surface of a curved reformation
// and draws the cut lines where the curved image shows them.
//
// The surface follows a centre line of N samples (points P, up vectors V,
// tangents T, world millimetres). At sample k it passes through
// B_k = P_k + h * Wd_k, with Wd_k = normalise(unit(V_k) x T_k) (negated on the
// right side) and h the half thickness, and it extends along the unit up vector
// over the plane height E, centred on B. Its picture follows the camera exactly
// as the volume's curved reformation image does (common/curved_view.h): curve
// position u lies on column (u - u0) (W - 1) / (u1 - u0) and the lateral
// coordinate s (E / 2 + the offset along the up vector) on row
// (t - s) (H - 1) / (t - b), u0 and u1 the curve positions of the first and last
// column, t and b the lateral coordinates of the top and bottom row. So the
// lines lie over the volume's image, and pan and zoom with it.
//
// Each interval [k, k + 1] of the curve is one flat piece: origin B_k, along
// vector B_{k+1} - B_k, up vector unit(V_k + V_{k+1}) (the up vector the image
// uses half-way along the interval). A point on the piece at fraction f of the
// along vector and lateral offset l is drawn at the column of u = k + f and the
// row of s = E / 2 + l. The piece's transform is the product of a view into the
// piece frame (along, up, depth; millimetres), an orthographic projection with
// x and y scales 2 / extent (the along length and E) and depth scale -0.0001,
// and a strip matrix that puts the piece's normalised square on its columns and
// on the rows of the lateral extent. Every piece is cut with the plane cut and
// its segments are clipped to the piece's own columns and to those rows, so
// neighbouring pieces meet on their shared edge, no piece draws into another's
// columns, and no line leaves the rows the volume image draws.
#pragma once

#include <cstdint>
#include <vector>

#include <glm/glm.hpp>

#include "host/zr_image.h"
#include "host/zr_types.h"
#include "mesh/bvh/bvh_node.h"
#include "mesh/clip_setup.h"

namespace zrmesh {

// One piece of the surface: eighteen floats, world millimetres and pixels.
struct CurvedPiece {
    float origin[3];      // B_k
    float along[3];       // B_{k+1} - B_k
    float up[3];          // unit up vector of the piece
    float depth[3];       // unit normal of the piece, on the side of Wd
    float length;         // |B_{k+1} - B_k|
    float columnStart;    // image column of B_k
    float columnEnd;      // image column of B_{k+1}
    float lateralExtent;  // E
    float topRow;         // image row of the +up edge (lateral offset +E / 2)
    float bottomRow;      // image row of the -up edge (lateral offset -E / 2)
};
static_assert(sizeof(CurvedPiece) == 18 * sizeof(float));

// The surface record: `count` pieces from the tracked heap.
struct CurvedSurface {
    CurvedPiece* pieces = nullptr;
    int32_t count = 0;
};

// Builds the pieces for `sampleCount` samples, laid out for the camera of
// `image` and its render-out 0 (the plane width fixes how long the curve is on
// the image plane). Nothing is built (an empty record) when the image has no
// camera, when render-out 0 is missing or smaller than 2 x 2 pixels, when there
// are fewer than two samples or a curve array is null, or when the plane height
// is not positive. Intervals whose along and up vectors do not span a plane are
// left out.
CurvedSurface BuildCurvedSurface(const glm::vec3* points, const glm::vec3* upVectors,
                                 const glm::vec3* tangents, int32_t sampleCount, float planeWidth,
                                 float planeHeight, float halfThickness, bool rightSide,
                                 zrobjects::ZrIObject& image);

// The world-to-screen transform of one piece (the product described above).
glm::mat4 PieceWorldToScreen(const CurvedPiece& piece);

// Cuts the mesh with every piece in order and draws the segments into `target`
// (width x height) or, with `crossLines`, appends them there instead. The clip
// settings are taken into each piece's screen space.
void CutMeshWithCurvedSurface(const zrobjects::PrimitiveData& data, const zrbvh::BvhTree* tree,
                              const WorldClip& clip, const glm::mat4& objectToWorld,
                              const CurvedSurface& surface, uint32_t* target, int width, int height,
                              uint32_t colour, int thickness, const glm::mat4& worldToObject,
                              std::vector<float>* crossLines);

// The finishing step: releases the pieces and empties the record.
void FinishCurvedSurface(CurvedSurface& surface);

}  // namespace zrmesh
