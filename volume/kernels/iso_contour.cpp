#include "volume/kernels/iso_contour.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>

#include "common/float_convert.h"
#include "common/stepping_line.h"
#include "host/zr_camera.h"
#include "volume/kernels/lane_rows.h"
#include "volume/kernels/voxel_sampling.h"
#include "volume/kernels/voxel_type.h"

namespace zrvolume {

using zrcommon::FromMatrixRecord;
using zrcommon::Matrix16;
using zrcommon::RecordRow;
using zrcommon::ToMatrixRecord;
using zrcommon::TransformPoint;
using zrcommon::TruncateToInt32;

namespace {

// Points reserved before the walk, so that typical contours never reallocate.
constexpr size_t kReservedContourPoints = 30000;

// Case index (bit 0: P00 below, bit 1: P10, bit 2: P01, bit 3: P11) to rule.
constexpr int kCaseRule[16] = {0, 1, 2, 5, 3, 6, 8, 4, 4, 7, 6, 3, 5, 2, 1, 0};

enum Edge { kEdgeA, kEdgeB, kEdgeC, kEdgeD };  // P00-P10, P00-P01, P10-P11, P01-P11

// Segments per rule as edge pairs; rules 7 and 8 (the saddles) have two.
// Saddles are resolved without a centre sample: the corners below the iso value
// are always cut off separately.
struct RuleSegments {
    int count;
    Edge ends[2][2];
};
constexpr RuleSegments kRuleSegments[9] = {
    {0, {}},
    {1, {{kEdgeA, kEdgeB}}},
    {1, {{kEdgeA, kEdgeC}}},
    {1, {{kEdgeB, kEdgeD}}},
    {1, {{kEdgeC, kEdgeD}}},
    {1, {{kEdgeB, kEdgeC}}},
    {1, {{kEdgeA, kEdgeD}}},
    {2, {{kEdgeA, kEdgeB}, {kEdgeC, kEdgeD}}},
    {2, {{kEdgeA, kEdgeC}, {kEdgeB, kEdgeD}}},
};

inline float Length(const glm::vec3& d) { return std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z); }

// Where the iso value crosses the edge from a to b, interpolated by the integer
// samples.
inline glm::vec3 Crossing(const glm::vec3& pa, const glm::vec3& pb, int sa, int sb, int iso) {
    const float t = static_cast<float>(sa - iso) / static_cast<float>(sa - sb);
    return glm::vec3((1.0f - t) * pa.x + t * pb.x, (1.0f - t) * pa.y + t * pb.y, (1.0f - t) * pa.z + t * pb.z);
}

// The walk: marching squares over a one-voxel grid on the plane, appending two
// points per segment in voxel coordinates.
template <class T>
void WalkContourCells(const VoxelGrid<T>& grid, const Matrix16& planeToVoxel, const SlicePlane& plane, int iso,
                      std::vector<glm::vec3>& segmentEnds) {
    // Grid set-up, all in single precision, from the first, second and fourth
    // corner.
    const glm::vec3 origin = TransformPoint(planeToVoxel, plane.corners[0]);
    const glm::vec3 rowEnd = TransformPoint(planeToVoxel, plane.corners[1]);
    const glm::vec3 lastPixel = TransformPoint(planeToVoxel, plane.corners[3]);
    const glm::vec3 across = rowEnd - origin;
    const glm::vec3 down = lastPixel - rowEnd;
    const float acrossLength = Length(across);
    const float downLength = Length(down);
    const glm::vec3 u(across.x / acrossLength, across.y / acrossLength, across.z / acrossLength);
    const glm::vec3 v(down.x / downLength, down.y / downLength, down.z / downLength);
    const int cellsAcross = TruncateToInt32(acrossLength);
    const int cellsDown = TruncateToInt32(downLength);
    if (cellsDown < 1 || cellsAcross < 1) return;

    // One voxel between grid points along each plane direction, whatever the
    // voxel size.
    const auto gridPoint = [&](int i, int j) {
        return origin + static_cast<float>(i) * u + static_cast<float>(j) * v;
    };

    // Every grid point is sampled once and shared by the (up to four) cells
    // around it. A point is computed by the same expression whichever cell asks
    // for it, so the shared sample has the bits each cell's own would have.
    // Rows of the grid are handled in pairs: the first corners' inside flags of
    // the cell row below, then the samples of the points any inside cell uses.
    const int points = cellsAcross + 1;
    std::vector<uint8_t> insideAbove(static_cast<size_t>(points) + 16, 0);
    std::vector<uint8_t> insideBelow(insideAbove.size(), 0);
    std::vector<uint8_t> needed(insideAbove.size(), 0);
    std::vector<int32_t> samplesAbove(static_cast<size_t>(points) + 16, 0);
    std::vector<int32_t> samplesBelow(samplesAbove.size(), 0);
    std::vector<uint8_t> cases(insideAbove.size(), 0);

    const SimdTarget target = ActiveSimdTarget();
    ContourRowJob job;
    const bool lanes = target != SimdTarget::Baseline && MakeLaneVolume(grid, job.volume);
    for (int k = 0; k < 3; ++k) {
        job.origin[k] = origin[k];
        job.u[k] = u[k];
        job.v[k] = v[k];
    }

    // Flags of the cells of row j (first corner inside the grid); none beyond
    // the last row.
    const auto flagRow = [&](int j, std::vector<uint8_t>& inside) {
        if (j >= cellsDown) {
            std::fill(inside.begin(), inside.end(), uint8_t{0});
            return;
        }
        int i = 0;
        if (lanes) {
            job.row = static_cast<float>(j);
            job.count = cellsAcross;
            job.inside = inside.data();
            i = ContourInsideLanes(target, job);
        }
        for (; i < cellsAcross; ++i) inside[static_cast<size_t>(i)] = InsideGrid(gridPoint(i, j), grid.dims) ? 1 : 0;
        inside[static_cast<size_t>(cellsAcross)] = 0;
    };
    // Samples of grid row j, for the points used by an inside cell of row j - 1
    // (as its lower corners) or of row j (as its upper corners).
    const auto sampleRow = [&](int j, const std::vector<uint8_t>& cellsAbove, const std::vector<uint8_t>& cellsHere,
                               std::vector<int32_t>& samples) {
        needed[0] = cellsAbove[0] | cellsHere[0];
        for (int i = 1; i < points; ++i) {
            const size_t k = static_cast<size_t>(i);
            needed[k] = cellsAbove[k] | cellsAbove[k - 1] | cellsHere[k] | cellsHere[k - 1];
        }
        int i = 0;
        if (lanes) {
            job.row = static_cast<float>(j);
            job.count = points;
            // Two rows ahead, while it lies on the grid.
            job.prefetch = j + 2 <= cellsDown;
            job.prefetchRow = static_cast<float>(j + 2);
            job.needed = needed.data();
            job.samples = samples.data();
            i = ContourSampleLanes(target, job);
        }
        for (; i < points; ++i)
            if (needed[static_cast<size_t>(i)])
                samples[static_cast<size_t>(i)] = TruncateToInt32(SampleTrilinear(grid, gridPoint(i, j)));
    };

    std::vector<uint8_t> noCells(insideAbove.size(), 0);
    flagRow(0, insideAbove);
    sampleRow(0, noCells, insideAbove, samplesAbove);
    for (int j = 0; j < cellsDown; ++j) {
        flagRow(j + 1, insideBelow);
        sampleRow(j + 1, insideAbove, insideBelow, samplesBelow);
        // Case indices of the whole cell row first (a branch-free loop the
        // compiler vectorises), 0 for cells outside or without a crossing; then
        // only the crossed cells are visited.
        for (int i = 0; i < cellsAcross; ++i) {
            const size_t k = static_cast<size_t>(i);
            const int caseIndex = (samplesAbove[k] < iso ? 1 : 0) | (samplesAbove[k + 1] < iso ? 2 : 0) |
                                  (samplesBelow[k] < iso ? 4 : 0) | (samplesBelow[k + 1] < iso ? 8 : 0);
            // Only the first corner is tested; the sampler's clamping (and the
            // volume's margins) cover the other three.
            cases[k] = static_cast<uint8_t>(insideAbove[k] && caseIndex != 15 ? caseIndex : 0);
        }
        for (int i = 0; i < cellsAcross; ++i) {
            const int caseIndex = cases[static_cast<size_t>(i)];
            if (caseIndex == 0) continue;  // outside, or all four corners on one side
            const int s00 = samplesAbove[static_cast<size_t>(i)];
            const int s10 = samplesAbove[static_cast<size_t>(i) + 1];
            const int s01 = samplesBelow[static_cast<size_t>(i)];
            const int s11 = samplesBelow[static_cast<size_t>(i) + 1];
            const RuleSegments& rule = kRuleSegments[kCaseRule[caseIndex]];
            if (rule.count == 0) continue;
            const glm::vec3 p00 = gridPoint(i, j);
            const glm::vec3 p10 = gridPoint(i + 1, j);
            const glm::vec3 p01 = gridPoint(i, j + 1);
            const glm::vec3 p11 = gridPoint(i + 1, j + 1);
            const auto edgePoint = [&](Edge edge) {
                switch (edge) {
                    case kEdgeA: return Crossing(p00, p10, s00, s10, iso);
                    case kEdgeB: return Crossing(p00, p01, s00, s01, iso);
                    case kEdgeC: return Crossing(p10, p11, s10, s11, iso);
                    default: return Crossing(p01, p11, s01, s11, iso);
                }
            };
            for (int k = 0; k < rule.count; ++k) {
                segmentEnds.push_back(edgePoint(rule.ends[k][0]));
                segmentEnds.push_back(edgePoint(rule.ends[k][1]));
            }
        }
        std::swap(insideAbove, insideBelow);
        std::swap(samplesAbove, samplesBelow);
    }
}

// World-to-screen of the camera (three double factors multiplied out in double,
// rounded to single precision) after voxel-to-world, as one single-precision
// record.
Matrix16 VoxelToScreen(const zrobjects::ZrCObject& camera, const Matrix16& voxelToWorld) {
    glm::dmat4 view, projection, viewport;
    camera.GetMatrixWStoSS(view, projection, viewport);
    const glm::mat4 worldToScreen(zrobjects::ComposeApplied(view, projection, viewport));
    return ToMatrixRecord(worldToScreen * FromMatrixRecord(voxelToWorld));
}

// Screen x and y after the perspective divide; no near-plane clipping and no
// test of w.
inline glm::vec2 ToScreen(const Matrix16& voxelToScreen, const glm::vec3& p) {
    const float w = RecordRow(voxelToScreen, 3, p);
    return glm::vec2(RecordRow(voxelToScreen, 0, p) / w, RecordRow(voxelToScreen, 1, p) / w);
}

}  // namespace

void DrawLineDDA(glm::vec2 p0, glm::vec2 p1, uint32_t colour, uint32_t* pixels, int width, int height) {
    zrcommon::WalkSteppingLine(p0, p1, width, height, [&](int x, int y, glm::vec2, bool) {
        pixels[static_cast<size_t>(y) * width + x] = colour;
    });
}

template <class T>
bool ExtractIsoContour(zrobjects::ZrVObjectVolume& volume, const Matrix16& planeToVoxel,
                       const Matrix16& voxelToWorld, zrobjects::ZrIObject& image, const SlicePlane& plane,
                       int frameBufferIndex, uint16_t isoValue, uint32_t colour, std::vector<double>* outList) {
    // The iso value in the voxel type: 8-bit volumes keep its low 8 bits, signed
    // types read it as signed. The narrowing is intended.
    const int iso = static_cast<int>(static_cast<T>(isoValue));
    const VoxelGrid<T> grid = MakeVoxelGrid<T>(*volume.GetVolumeData());

    std::vector<glm::vec3> points;
    points.reserve(kReservedContourPoints);
    WalkContourCells(grid, planeToVoxel, plane, iso, points);
    if (points.empty()) return true;

    const zrobjects::ZrCObject* camera = image.GetCameraObject();
    if (!camera) return true;  // nothing to project with
    const Matrix16 voxelToScreen = VoxelToScreen(*camera, voxelToWorld);

    uint32_t* pixels = nullptr;
    if (!outList) {
        // The plane's width is the row pitch; a buffer smaller than the plane
        // cannot be drawn into safely.
        const zrobjects::FrameBuffer* buffer =
            image.GetFrameBuffer(zrenums::EzrFrameBufferUsage_RenderOut, frameBufferIndex);
        if (!buffer || static_cast<long long>(plane.width) * plane.height >
                           static_cast<long long>(buffer->width) * buffer->height)
            return true;
        pixels = static_cast<uint32_t*>(buffer->pixels);
    } else {
        outList->reserve(outList->size() + 2 * points.size());
    }

    for (size_t k = 0; k + 1 < points.size(); k += 2) {
        const glm::vec2 a = ToScreen(voxelToScreen, points[k]);
        const glm::vec2 b = ToScreen(voxelToScreen, points[k + 1]);
        if (outList) {
            outList->insert(outList->end(), {double(a.x), double(a.y), double(b.x), double(b.y)});
        } else {
            DrawLineDDA(a, b, colour, pixels, plane.width, plane.height);
        }
    }
    return true;
}

bool DrawIsoContourLines(zrobjects::ZrVObjectVolume& volume, const Matrix16& planeToVoxel,
                         const Matrix16& voxelToWorld, zrobjects::ZrIObject& image, const SlicePlane& plane,
                         int frameBufferIndex, uint16_t isoValue, uint32_t colour, std::vector<double>* outList) {
    // Unlike the slice families, an unsupported voxel type reports success here.
    return VisitIntegerVoxelType(volume.GetVolumeData()->voxelType, true, [&](auto tag) {
        using T = typename decltype(tag)::type;
        return ExtractIsoContour<T>(volume, planeToVoxel, voxelToWorld, image, plane, frameBufferIndex, isoValue,
                                    colour, outList);
    });
}

#define ZR_INSTANTIATE_ISO_CONTOUR(T)                                                                    \
    template bool ExtractIsoContour<T>(zrobjects::ZrVObjectVolume&, const Matrix16&, const Matrix16&,   \
                                       zrobjects::ZrIObject&, const SlicePlane&, int, uint16_t, uint32_t, \
                                       std::vector<double>*);
ZR_INSTANTIATE_ISO_CONTOUR(char)
ZR_INSTANTIATE_ISO_CONTOUR(unsigned char)
ZR_INSTANTIATE_ISO_CONTOUR(short)
ZR_INSTANTIATE_ISO_CONTOUR(unsigned short)
#undef ZR_INSTANTIATE_ISO_CONTOUR

}  // namespace zrvolume
