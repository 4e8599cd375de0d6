#include "curved_surface_cut.h"

#include <cmath>

#include "common/curved_view.h"
#include "common/matrix_record.h"
#include "common/unit_vector.h"
#include "host/zr_camera.h"
#include "mesh/bvh/tracked_heap.h"
#include "mesh/plane_cut.h"

namespace zrmesh {

using zrcommon::ToMatrixRecord;
using zrcommon::TransformPoint;
using zrcommon::UnitOrZero;

namespace {

glm::vec3 Vec(const float* v) { return glm::vec3(v[0], v[1], v[2]); }

void Store(float* out, const glm::vec3& v) {
    out[0] = v.x;
    out[1] = v.y;
    out[2] = v.z;
}

}  // namespace

CurvedSurface BuildCurvedSurface(const glm::vec3* points, const glm::vec3* upVectors,
                                 const glm::vec3* tangents, int32_t sampleCount, float planeWidth,
                                 float planeHeight, float halfThickness, bool rightSide,
                                 zrobjects::ZrIObject& image) {
    CurvedSurface surface;
    const zrobjects::FrameBuffer* out = image.GetFrameBuffer(zrenums::EzrFrameBufferUsage_RenderOut, 0);
    if (!out || out->width < 2 || out->height < 2) return surface;
    if (!points || !upVectors || !tangents || sampleCount < 2) return surface;
    if (!(planeHeight > 0.0f) || !std::isfinite(planeHeight)) return surface;

    const zrobjects::ZrCObject* camera = image.GetCameraObject();
    if (!camera) return surface;

    // The columns and rows of the curved view, as the volume image lays them out.
    glm::vec3 corners[4];
    camera->GetImagePlaneRectPointsf(zrenums::EzrCoordSpace_World, corners[0], corners[1], corners[2], corners[3]);
    const zrcommon::CurvedView view = zrcommon::MapCurvedView(corners, planeWidth, planeHeight, sampleCount);
    const float columnsPerSample = static_cast<float>(out->width - 1) /
                                   (view.lastColumnPosition - view.firstColumnPosition);
    const float rowsPerMillimetre = static_cast<float>(out->height - 1) /
                                    (view.firstColumnTop - view.firstColumnBottom);
    // The image plane is a rectangle: the first column's lateral range holds for
    // every column. Rows of lateral offsets +E/2 and -E/2 from the surface.
    const float topRow = (view.firstColumnTop - planeHeight) * rowsPerMillimetre;
    const float bottomRow = view.firstColumnTop * rowsPerMillimetre;

    const auto surfacePoint = [&](int k) {
        const glm::vec3 up = UnitOrZero(upVectors[k]);
        glm::vec3 depth = UnitOrZero(glm::cross(up, tangents[k]));
        if (rightSide) depth = -depth;
        return points[k] + halfThickness * depth;
    };

    surface.pieces = static_cast<CurvedPiece*>(
        zrbvh::Allocate(static_cast<size_t>(sampleCount - 1) * sizeof(CurvedPiece)));
    glm::vec3 start = surfacePoint(0);
    for (int32_t k = 0; k + 1 < sampleCount; ++k) {
        const glm::vec3 end = surfacePoint(k + 1);
        const glm::vec3 along = end - start;
        const glm::vec3 up = UnitOrZero(upVectors[k] + upVectors[k + 1]);
        glm::vec3 depth = UnitOrZero(glm::cross(up, along));
        if (rightSide) depth = -depth;
        const glm::mat3 frame(along, up, depth);
        // A piece whose along and up vectors do not span a plane has no frame.
        if (std::fabs(glm::determinant(frame)) > 1e-12f && std::isfinite(glm::determinant(frame))) {
            CurvedPiece& piece = surface.pieces[surface.count++];
            Store(piece.origin, start);
            Store(piece.along, along);
            Store(piece.up, up);
            Store(piece.depth, depth);
            piece.length = glm::length(along);
            piece.columnStart = (static_cast<float>(k) - view.firstColumnPosition) * columnsPerSample;
            piece.columnEnd = (static_cast<float>(k + 1) - view.firstColumnPosition) * columnsPerSample;
            piece.lateralExtent = planeHeight;
            piece.topRow = topRow;
            piece.bottomRow = bottomRow;
        }
        start = end;
    }
    return surface;
}

glm::mat4 PieceWorldToScreen(const CurvedPiece& piece) {
    const glm::vec3 along = Vec(piece.along);
    const float alongLength = piece.length;
    // View: world millimetres into the piece frame (along in millimetres from
    // the origin, lateral offset, depth). The frame need not be orthogonal: the
    // image's rows run along the up vector even where it leans on the curve.
    glm::mat4 frame(1.0f);
    frame[0] = glm::vec4(along / alongLength, 0.0f);
    frame[1] = glm::vec4(Vec(piece.up), 0.0f);
    frame[2] = glm::vec4(Vec(piece.depth), 0.0f);
    frame[3] = glm::vec4(Vec(piece.origin), 1.0f);
    const glm::mat4 view = glm::mat4(glm::inverse(glm::dmat4(frame)));

    // Orthographic projection: the piece's along extent to 0..2 (moved to
    // -1..1), its lateral extent to -1..1, depth squeezed.
    glm::mat4 projection(1.0f);
    projection[0][0] = 2.0f / alongLength;
    projection[3][0] = -1.0f;
    projection[1][1] = 2.0f / piece.lateralExtent;
    projection[2][2] = -0.0001f;

    // Strip: the normalised square onto the piece's columns and the rows of its
    // lateral extent, the +up edge on the top row.
    glm::mat4 strip(1.0f);
    const float halfColumns = 0.5f * (piece.columnEnd - piece.columnStart);
    strip[0][0] = halfColumns;
    strip[3][0] = piece.columnStart + halfColumns;
    strip[1][1] = 0.5f * (piece.topRow - piece.bottomRow);
    strip[3][1] = 0.5f * (piece.topRow + piece.bottomRow);
    return strip * projection * view;
}

void CutMeshWithCurvedSurface(const zrobjects::PrimitiveData& data, const zrbvh::BvhTree* tree,
                              const WorldClip& clip, const glm::mat4& objectToWorld,
                              const CurvedSurface& surface, uint32_t* target, int width, int height,
                              uint32_t colour, int thickness, const glm::mat4& worldToObject,
                              std::vector<float>* crossLines) {
    const zrcommon::Matrix16 toObject = ToMatrixRecord(worldToObject);
    for (int32_t p = 0; p < surface.count; ++p) {
        const CurvedPiece& piece = surface.pieces[p];
        const glm::mat4 worldToScreen = PieceWorldToScreen(piece);
        const glm::mat4 screenToWorld = glm::mat4(glm::inverse(glm::dmat4(worldToScreen)));

        // The piece's plane in object space, through two in-plane directions.
        const glm::vec3 origin = Vec(piece.origin);
        const glm::vec3 o = TransformPoint(toObject, origin);
        const glm::vec3 a = TransformPoint(toObject, origin + Vec(piece.along));
        const glm::vec3 u = TransformPoint(toObject, origin + Vec(piece.up));
        const glm::vec3 normal = glm::cross(a - o, u - o);

        const ScreenWindow window{piece.columnStart, piece.topRow, piece.columnEnd, piece.bottomRow};
        SegmentTarget segmentTarget;
        segmentTarget.pixels = target;
        segmentTarget.width = width;
        segmentTarget.height = height;
        segmentTarget.colour = colour;
        segmentTarget.thickness = thickness;
        segmentTarget.clip = MakeScreenClipState(clip, worldToScreen, screenToWorld);
        segmentTarget.crossLines = crossLines;
        segmentTarget.window = &window;
        CutMeshWithPlane(o, normal, data, tree, ToMatrixRecord(worldToScreen * objectToWorld), segmentTarget);
    }
}

void FinishCurvedSurface(CurvedSurface& surface) {
    zrbvh::Free(surface.pieces);
    surface = CurvedSurface{};
}

}  // namespace zrmesh
