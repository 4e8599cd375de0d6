#include "volume/kernels/float_grey_slice.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "common/float_convert.h"
#include "volume/kernels/family_lane_rows.h"
#include "volume/kernels/parallel_for.h"
#include "volume/kernels/slice_walk.h"
#include "volume/kernels/voxel_sampling.h"

namespace zrvolume {

using zrcommon::Matrix16;
using zrcommon::TransformPoint;
using zrcommon::TruncateToInt32;

namespace {

struct FloatGreyContext {
    VoxelGrid<float> grid;
    glm::vec3 corners[4];
    int width = 0;
    int height = 0;
    int pitch = 0;
    uint32_t* colour = nullptr;
    // Curve (when `curvePoints` is not null), its first and last points copied once.
    const glm::dvec2* curvePoints = nullptr;
    int curveCount = 0;
    glm::dvec2 first{0.0};
    glm::dvec2 last{0.0};
    // Window.
    float windowLow = 0.0f;
    float windowHigh = 0.0f;
    float windowScale = 0.0f;
    // Vector path: taken when a vector target is active, the storage allows
    // the lane reads and a curve (if any) has at least two points.
    SimdTarget target = SimdTarget::Baseline;
    bool useLanes = false;
    FloatGreyRowJob lanes;
};

// How far ahead (in rows of the strip) the vector path prefetches voxel lines.
constexpr int kPrefetchRows = 2;

// A grey level from its double or float value: truncation, then the low byte,
// as the conversion to an 8-bit channel always gave (out-of-range and
// not-a-number values end as 0).
inline uint32_t GreyByte(int32_t g) { return static_cast<uint32_t>(g) & 0xffu; }

uint32_t CurveGrey(const FloatGreyContext& c, float sample) {
    const double v = sample;
    if (v <= c.first.x) return 0;
    if (v >= c.last.x) return 255;
    // Linear search from the first point for the first one not below v; curves
    // are short. The walk starts at the second point and stops at the last, so
    // it stays inside the curve even for a not-a-number sample or a curve that
    // is not sorted.
    int upper = 1;
    while (upper < c.curveCount - 1 && c.curvePoints[upper].x < v) ++upper;
    const glm::dvec2 lo = c.curvePoints[upper - 1];
    const glm::dvec2 hi = c.curvePoints[upper];
    double y = (v - lo.x) * (hi.y - lo.y) / (hi.x - lo.x) + lo.y;
    if (y < c.first.y) y = c.first.y;
    if (y > c.last.y) y = c.last.y;
    // Outputs are normalised by the curve's first and last points.
    return GreyByte(TruncateToInt32((y - c.first.y) / (c.last.y - c.first.y) * 255.0));
}

uint32_t WindowGrey(const FloatGreyContext& c, float v) {
    if (v > c.windowLow) return GreyByte(TruncateToInt32(std::min((v - c.windowLow) * c.windowScale, 255.0f)));
    // Only a negative width can put v above the high end here; kept as it has
    // always behaved.
    return v > c.windowHigh ? 255u : 0u;
}

// Columns from .. to - 1 of row y.
void RenderFloatGreySpan(const FloatGreyContext& c, int y, int from, int to) {
    const SliceRow ends = RowEnds(c.corners, y, c.height);
    uint32_t* __restrict colourRow = c.colour + static_cast<ptrdiff_t>(y) * c.pitch;
    int x = from;
    if (c.useLanes) {
        // Whole lane groups first; the loop below draws the remaining pixels.
        FloatGreyRowJob job = c.lanes;
        job.span = MakeSliceSpan(c.corners, c.width, c.height, y, from, to, kPrefetchRows, colourRow);
        x = FloatGreyLanes(c.target, job);
    }
    for (; x < to; ++x) {
        const glm::vec3 p = PixelPoint(ends, x, c.width);
        const bool inside = InsideGrid(p, c.grid.dims);
        const float v = inside ? SampleTrilinear(c.grid, p) : 0.0f;
        const uint32_t g = c.curvePoints ? CurveGrey(c, v) : WindowGrey(c, v);
        colourRow[x] = g | (g << 8) | (g << 16) | (inside ? 0xff000000u : 0u);
    }
}

}  // namespace

bool RenderFloatGreySliceRows(zrobjects::ZrVObjectVolume& volume, const Matrix16& planeToVoxel,
                              zrobjects::ZrIObject& image, const SlicePlane& plane, int colourIndex,
                              const std::vector<glm::dvec2>* curve, float windowCentre, float windowWidth) {
    FloatGreyContext c;
    if (curve) {
        // The checked element access of the curve's container: an empty curve
        // fails here, before anything is written.
        if (curve->empty()) throw std::out_of_range("invalid vector subscript");
        c.curvePoints = curve->data();
        c.curveCount = static_cast<int>(curve->size());
        c.first = curve->front();
        c.last = curve->back();
    }
    zrobjects::FrameBuffer* colourBuffer = image.GetFrameBuffer(zrenums::EzrFrameBufferUsage_RenderOut, colourIndex);
    if (!colourBuffer || !PlaneFits(*colourBuffer, plane)) return false;
    const zrobjects::VolumeData& data = *volume.GetVolumeData();
    // Reading another element type as float would read past a narrower grid.
    if (data.voxelType.size != sizeof(float)) return false;

    c.grid = MakeVoxelGrid<float>(data);
    for (int k = 0; k < 4; ++k) c.corners[k] = TransformPoint(planeToVoxel, plane.corners[k]);
    c.width = plane.width;
    c.height = plane.height;
    c.pitch = colourBuffer->width;
    c.colour = static_cast<uint32_t*>(colourBuffer->pixels);
    c.windowLow = windowCentre - windowWidth * 0.5f;
    c.windowHigh = windowCentre + windowWidth * 0.5f;
    c.windowScale = 255.0f / windowWidth;  // a zero width gives infinity; the comparisons decide then
    c.target = ActiveSimdTarget();
    if (c.target != SimdTarget::Baseline && (!curve || c.curveCount >= 2) &&
        MakeLaneVolume(c.grid, c.lanes.volume)) {
        c.useLanes = true;
        static_assert(sizeof(glm::dvec2) == 2 * sizeof(double), "curve points are read as pairs of doubles");
        c.lanes.curve = c.curvePoints ? &c.curvePoints[0].x : nullptr;
        c.lanes.curveCount = c.curveCount;
        c.lanes.windowLow = c.windowLow;
        c.lanes.windowHigh = c.windowHigh;
        c.lanes.windowScale = c.windowScale;
    }

    ParallelSliceSpans(c.useLanes, c.width, c.height,
                       [&c](int y, int from, int to) { RenderFloatGreySpan(c, y, from, to); });
    return true;
}

bool RenderFloatGreySlice(zrobjects::ZrVObjectVolume& volume, const Matrix16& planeToVoxel,
                          zrobjects::ZrIObject& image, const SlicePlane& plane, const void* /*reserved*/,
                          int colourIndex, const std::vector<glm::dvec2>* curve, float windowCentre,
                          float windowWidth) {
    return RenderFloatGreySliceRows(volume, planeToVoxel, image, plane, colourIndex, curve, windowCentre,
                                    windowWidth);
}

}  // namespace zrvolume
