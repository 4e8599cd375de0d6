#include "volume/kernels/otf_slice.h"

#include <cstddef>
#include <cstdint>

#include "common/float_convert.h"
#include "volume/kernels/lane_rows.h"
#include "volume/kernels/otf_lookup.h"
#include "volume/kernels/parallel_for.h"
#include "volume/kernels/slice_walk.h"
#include "volume/kernels/voxel_sampling.h"
#include "volume/kernels/voxel_type.h"

namespace zrvolume {

using zrcommon::Clipped;
using zrcommon::Matrix16;
using zrcommon::SliceClipState;
using zrcommon::TransformPointDouble;
using zrcommon::TruncateToInt32;

namespace {

// Everything a row needs, captured once per call.
template <class T>
struct OtfSliceContext {
    VoxelGrid<T> grid;
    glm::vec3 corners[4];
    int width = 0;
    int height = 0;
    int pitch = 0;  // elements per buffer row, from the colour buffer's record
    uint32_t* colour = nullptr;
    uint16_t* value = nullptr;  // null: no value buffer
    const uint32_t* row0 = nullptr;
    float length = 0.0f;
    bool channelSwitch = false;
    SliceClipState clip;
    // Vector path: taken when a vector target is active, nothing is clipped and
    // the storage allows the lane reads; `lanes` holds the per-call part of the
    // row job.
    SimdTarget target = SimdTarget::Baseline;
    bool useLanes = false;
    OtfSliceRowJob lanes;
};

// How far ahead (in rows of the strip) the vector path prefetches voxel lines:
// far enough for memory latency to pass while the rows in between are drawn.
constexpr int kPrefetchRows = 2;

// Columns from .. to - 1 of row y.
template <class T>
void RenderOtfSliceSpan(const OtfSliceContext<T>& c, int y, int from, int to) {
    const SliceRow ends = RowEnds(c.corners, y, c.height);
    uint32_t* __restrict colourRow = c.colour + static_cast<ptrdiff_t>(y) * c.pitch;
    uint16_t* __restrict valueRow = c.value ? c.value + static_cast<ptrdiff_t>(y) * c.pitch : nullptr;
    int x = from;
    if (c.useLanes) {
        // Whole lane groups first; the loop below draws the remaining pixels.
        OtfSliceRowJob job = c.lanes;
        job.from = from;
        job.to = to;
        for (int k = 0; k < 3; ++k) {
            job.start[k] = ends.start[k];
            job.end[k] = ends.end[k];
        }
        job.colourRow = colourRow;
        job.valueRow = valueRow;
        if (y + kPrefetchRows < c.height) {
            const SliceRow ahead = RowEnds(c.corners, y + kPrefetchRows, c.height);
            job.prefetch = true;
            for (int k = 0; k < 3; ++k) {
                job.prefetchStart[k] = ahead.start[k];
                job.prefetchEnd[k] = ahead.end[k];
            }
        }
        x = OtfSliceLanes(c.target, job);
    }
    for (; x < to; ++x) {
        const glm::vec3 p = PixelPoint(ends, x, c.width);
        if (Clipped(c.clip, p)) continue;  // a clipped pixel keeps what the buffers held
        // Outside the volume the sample counts as 0 and still goes through the
        // table, so the pixel shows entry 0 with coverage 0.
        const bool inside = InsideGrid(p, c.grid.dims);
        const float v = inside ? SampleTrilinear(c.grid, p) : 0.0f;
        // Truncation toward zero, without the + 0.5 of the other families: this
        // family has always shown values that way, and images must not change.
        const int32_t s = TruncateToInt32(v);
        const auto value = static_cast<uint16_t>(s);  // negative values wrap on purpose
        if (valueRow) valueRow[x] = value;
        colourRow[x] = PremultipliedPixel(c.row0[ScaledOtfIndex(value, c.length)], c.channelSwitch, inside);
    }
}

}  // namespace

template <class T>
bool RenderOtfSliceRows(zrobjects::ZrVObjectVolume& volume, const Matrix16& planeToVoxel,
                        zrobjects::ZrIObject& image, const SlicePlane& plane, const SliceClipState& clip,
                        int colourIndex, int valueIndex, zrobjects::ZrObject& otfOwner) {
    // The table first: a mistyped one must fail before anything is drawn.
    const OtfTable table = ReadOtfTable(otfOwner);

    zrobjects::FrameBuffer* colourBuffer = image.GetFrameBuffer(zrenums::EzrFrameBufferUsage_RenderOut, colourIndex);
    if (!colourBuffer || !PlaneFits(*colourBuffer, plane)) return false;
    zrobjects::FrameBuffer* valueBuffer =
        valueIndex >= 0 ? image.GetFrameBuffer(zrenums::EzrFrameBufferUsage_Custom, valueIndex) : nullptr;
    // The value buffer shares the colour buffer's pixel index; one too small to
    // hold it is treated as absent.
    if (valueBuffer && (valueBuffer->width < colourBuffer->width || valueBuffer->height < plane.height))
        valueBuffer = nullptr;

    OtfSliceContext<T> c;
    c.grid = MakeVoxelGrid<T>(*volume.GetVolumeData());
    // Corners in double precision, rounded to single precision at the end.
    for (int k = 0; k < 4; ++k) c.corners[k] = TransformPointDouble(planeToVoxel, plane.corners[k]);
    c.width = plane.width;
    c.height = plane.height;
    c.pitch = colourBuffer->width;
    c.colour = static_cast<uint32_t*>(colourBuffer->pixels);
    c.value = valueBuffer ? static_cast<uint16_t*>(valueBuffer->pixels) : nullptr;
    c.row0 = table.rows[0];
    c.length = table.length;
    // Nobody changes the switch during a render, so one read serves every pixel.
    c.channelSwitch = ChannelOrderSwitch(ChannelOrderFamily::OtfSlice);
    c.clip = clip;
    c.target = ActiveSimdTarget();
    if (c.target != SimdTarget::Baseline && !clip.clipBox && !clip.clipPlane &&
        MakeLaneVolume(c.grid, c.lanes.volume)) {
        c.useLanes = true;
        c.lanes.width = c.width;
        c.lanes.length = c.length;
        c.lanes.colour.table = c.row0;
        c.lanes.colour.channelSwitch = c.channelSwitch;
    }

    ParallelSliceSpans(c.useLanes, c.width, c.height,
                       [&c](int y, int from, int to) { RenderOtfSliceSpan(c, y, from, to); });
    return true;
}

bool RenderOtfSlice(zrobjects::ZrVObjectVolume& volume, const Matrix16& planeToVoxel, zrobjects::ZrIObject& image,
                    const SlicePlane& plane, const SliceClipState& clip, int colourIndex, int valueIndex,
                    zrobjects::ZrObject& otfOwner) {
    return VisitIntegerVoxelType(volume.GetVolumeData()->voxelType, false, [&](auto tag) {
        using T = typename decltype(tag)::type;
        return RenderOtfSliceRows<T>(volume, planeToVoxel, image, plane, clip, colourIndex, valueIndex, otfOwner);
    });
}

#define ZR_INSTANTIATE_OTF_SLICE(T)                                                                             \
    template bool RenderOtfSliceRows<T>(zrobjects::ZrVObjectVolume&, const Matrix16&, zrobjects::ZrIObject&, \
                                        const SlicePlane&, const SliceClipState&, int, int, zrobjects::ZrObject&);
ZR_INSTANTIATE_OTF_SLICE(char)
ZR_INSTANTIATE_OTF_SLICE(unsigned char)
ZR_INSTANTIATE_OTF_SLICE(short)
ZR_INSTANTIATE_OTF_SLICE(unsigned short)
#undef ZR_INSTANTIATE_OTF_SLICE

}  // namespace zrvolume
