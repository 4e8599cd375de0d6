#include "volume/kernels/label_overlay.h"

#include <cstddef>
#include <cstdint>

#include "common/float_convert.h"
#include "volume/kernels/family_lane_rows.h"
#include "volume/kernels/otf_lookup.h"
#include "volume/kernels/parallel_for.h"
#include "volume/kernels/slice_walk.h"
#include "volume/kernels/voxel_sampling.h"
#include "volume/kernels/voxel_type.h"

namespace zrvolume {

using zrcommon::Clipped;
using zrcommon::Matrix16;
using zrcommon::SliceClipState;
using zrcommon::TransformPoint;
using zrcommon::TruncateToInt32;

namespace {

template <class T>
struct LabelOverlayContext {
    VoxelGrid<T> grid;
    glm::vec3 corners[4];
    int width = 0;
    int height = 0;
    int pitch = 0;
    uint32_t* colour = nullptr;
    const uint32_t* row0 = nullptr;
    float length = 0.0f;
    uint32_t backgroundEntry = 0;  // the entry of label 0, the common case
    SliceClipState clip;
    // Vector path: taken when a vector target is active, nothing is clipped
    // and the storage allows the lane reads.
    SimdTarget target = SimdTarget::Baseline;
    bool useLanes = false;
    LabelOverlayRowJob lanes;
};

// How far ahead (in rows of the strip) the vector path prefetches voxel lines.
constexpr int kPrefetchRows = 2;

// The winning label of the eight neighbours. Weights are summed per distinct
// label in corner order; the largest sum wins, a tie going to the smaller label
// (which is what visiting the labels in ascending order and replacing only on a
// strictly larger sum gives). A small fixed array replaces an ordered map: at
// most eight labels, no allocation per pixel, the same winner.
template <class T>
T MajorityLabel(const T (&labels)[8], const float (&weights)[8]) {
    T distinct[8];
    float sums[8];
    int count = 0;
    for (int k = 0; k < 8; ++k) {
        int j = 0;
        while (j < count && distinct[j] != labels[k]) ++j;
        if (j == count) {
            distinct[count] = labels[k];
            sums[count] = 0.0f;
            ++count;
        }
        sums[j] += weights[k];
    }
    int best = 0;
    for (int j = 1; j < count; ++j)
        if (sums[j] > sums[best] || (sums[j] == sums[best] && distinct[j] < distinct[best])) best = j;
    // A winner without a strict majority of the weight does not count.
    return sums[best] > 0.5f ? distinct[best] : T(0);
}

// The scaled lookup as this family has always done it: the factor 1/65535
// before the row length, unlike the shared lookup; the order changes the
// rounding of some indices, so it is kept.
inline uint32_t LabelIndex(float label, float length) {
    const auto s = static_cast<uint16_t>(TruncateToInt32(label + 0.5f));
    return static_cast<uint32_t>(TruncateToInt32(static_cast<float>(s) * kInverse65535 * length + 0.5f));
}

// The existing pixel tinted towards the entry colour. The old pixel's bytes 0
// and 2 trade places while the entry's c2 goes to byte 0; the entry's opacity
// does not weight the blend and the channel-order switch is not consulted.
inline uint32_t TintedPixel(uint32_t old, uint32_t entry) {
    const auto blend = [&](int oldByte, int entryChannel) {
        const float sum = static_cast<float>((old >> (8 * oldByte)) & 0xffu) * kOverlayKeptWeight +
                          static_cast<float>(EntryChannel(entry, entryChannel)) * kOverlayLabelWeight;
        return static_cast<uint32_t>(TruncateToInt32(sum)) & 0xffu;
    };
    return blend(2, 2) | (blend(1, 1) << 8) | (blend(0, 0) << 16) | 0xff000000u;
}

// Columns from .. to - 1 of row y.
template <class T>
void RenderLabelOverlaySpan(const LabelOverlayContext<T>& c, int y, int from, int to) {
    const SliceRow ends = RowEnds(c.corners, y, c.height);
    uint32_t* __restrict colourRow = c.colour + static_cast<ptrdiff_t>(y) * c.pitch;
    int x = from;
    if (c.useLanes) {
        // Whole lane groups first; the loop below draws the remaining pixels.
        LabelOverlayRowJob job = c.lanes;
        job.span = MakeSliceSpan(c.corners, c.width, c.height, y, from, to, kPrefetchRows, colourRow);
        x = LabelOverlayLanes(c.target, job);
    }
    for (; x < to; ++x) {
        const glm::vec3 p = PixelPoint(ends, x, c.width);
        if (Clipped(c.clip, p) || !InsideGrid(p, c.grid.dims)) continue;
        const TrilinearCell cell = MakeTrilinearCell(p, c.grid.dims);
        T labels[8];
        bool anyLabel = false;
        for (int k = 0; k < 8; ++k) {
            labels[k] = CornerValue(c.grid, cell, k);
            anyLabel |= labels[k] != 0;
        }
        // Over background all eight labels are 0: skip the tally entirely.
        const uint32_t entry =
            anyLabel ? c.row0[LabelIndex(static_cast<float>(MajorityLabel(labels, cell.weight)), c.length)]
                     : c.backgroundEntry;
        if (EntryOpacity(entry) == 0) continue;
        colourRow[x] = TintedPixel(colourRow[x], entry);
    }
}

}  // namespace

template <class T>
bool RenderLabelOverlaySliceRows(zrobjects::ZrVObjectVolume& labelVolume, const Matrix16& planeToVoxel,
                                 zrobjects::ZrIObject& image, const SlicePlane& plane, const SliceClipState& clip,
                                 int colourIndex, zrobjects::ZrObject& otfOwner) {
    const OtfTable table = ReadOtfTable(otfOwner);  // a mistyped table throws before anything is drawn
    zrobjects::FrameBuffer* colourBuffer = image.GetFrameBuffer(zrenums::EzrFrameBufferUsage_RenderOut, colourIndex);
    if (!colourBuffer || !PlaneFits(*colourBuffer, plane)) return false;

    LabelOverlayContext<T> c;
    c.grid = MakeVoxelGrid<T>(*labelVolume.GetVolumeData());
    for (int k = 0; k < 4; ++k) c.corners[k] = TransformPoint(planeToVoxel, plane.corners[k]);
    c.width = plane.width;
    c.height = plane.height;
    c.pitch = colourBuffer->width;
    c.colour = static_cast<uint32_t*>(colourBuffer->pixels);
    c.row0 = table.rows[0];
    c.length = table.length;
    c.backgroundEntry = c.row0[LabelIndex(0.0f, c.length)];
    c.clip = clip;
    c.target = ActiveSimdTarget();
    if (c.target != SimdTarget::Baseline && !clip.clipBox && !clip.clipPlane &&
        MakeLaneVolume(c.grid, c.lanes.volume)) {
        c.useLanes = true;
        c.lanes.row0 = c.row0;
        c.lanes.length = c.length;
        c.lanes.backgroundEntry = c.backgroundEntry;
    }

    ParallelSliceSpans(c.useLanes, c.width, c.height,
                       [&c](int y, int from, int to) { RenderLabelOverlaySpan(c, y, from, to); });
    return true;
}

bool RenderLabelOverlaySlice(zrobjects::ZrVObjectVolume& labelVolume, const Matrix16& planeToVoxel,
                             zrobjects::ZrIObject& image, const SlicePlane& plane, const SliceClipState& clip,
                             int colourIndex, zrobjects::ZrObject& otfOwner) {
    return VisitIntegerVoxelType(labelVolume.GetVolumeData()->voxelType, false, [&](auto tag) {
        using T = typename decltype(tag)::type;
        return RenderLabelOverlaySliceRows<T>(labelVolume, planeToVoxel, image, plane, clip, colourIndex, otfOwner);
    });
}

#define ZR_INSTANTIATE_LABEL_OVERLAY(T)                                                                       \
    template bool RenderLabelOverlaySliceRows<T>(zrobjects::ZrVObjectVolume&, const Matrix16&,                \
                                                 zrobjects::ZrIObject&, const SlicePlane&, const SliceClipState&, \
                                                 int, zrobjects::ZrObject&);
ZR_INSTANTIATE_LABEL_OVERLAY(char)
ZR_INSTANTIATE_LABEL_OVERLAY(unsigned char)
ZR_INSTANTIATE_LABEL_OVERLAY(short)
ZR_INSTANTIATE_LABEL_OVERLAY(unsigned short)
#undef ZR_INSTANTIATE_LABEL_OVERLAY

}  // namespace zrvolume
