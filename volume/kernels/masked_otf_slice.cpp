#include "volume/kernels/masked_otf_slice.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

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
struct MaskedOtfSliceContext {
    VoxelGrid<T> grid;
    VoxelGrid<unsigned char> mask;  // the mask's slices with the main volume's layout
    glm::vec3 corners[4];
    int width = 0;
    int height = 0;
    int pitch = 0;
    uint32_t* colour = nullptr;
    uint16_t* value = nullptr;
    const uint32_t* const* rows = nullptr;
    bool channelSwitch = false;
    SliceClipState clip;
    // Vector path: taken when a vector target is active, nothing is clipped,
    // both volumes' storage allows the lane reads and every row a label can
    // pick lies within 32-bit entry offsets of row 0.
    SimdTarget target = SimdTarget::Baseline;
    bool useLanes = false;
    MaskedSliceRowJob lanes;
    int32_t rowOffsets[256] = {};
};

// How far ahead (in rows of the strip) the vector path prefetches voxel lines.
constexpr int kPrefetchRows = 2;

// Row r of the table as an entry offset from row 0, for each of the 256 rows
// an 8-bit label can pick; false when one cannot be expressed so (then the
// per-pixel path runs).
bool RowOffsetsFromRow0(const uint32_t* const* rows, int32_t (&offsets)[256]) {
    const auto first = reinterpret_cast<uintptr_t>(rows[0]);
    for (int r = 0; r < 256; ++r) {
        if (rows[r] == nullptr) return false;
        const auto bytes = static_cast<int64_t>(reinterpret_cast<uintptr_t>(rows[r]) - first);
        if (bytes % 4 != 0) return false;
        const int64_t entries = bytes / 4;
        // The index added to it is below 65536.
        if (entries < INT32_MIN + 65536ll || entries > INT32_MAX - 65536ll) return false;
        offsets[r] = static_cast<int32_t>(entries);
    }
    return true;
}

// The label of a pixel: a majority test by weight over the eight neighbours,
// then a fixed priority from the far corner (z1, y1, x1) down to (z0, y0, x0).
// It is deliberately not a vote between labels.
inline unsigned PixelLabel(const VoxelGrid<unsigned char>& mask, const TrilinearCell& cell) {
    unsigned char labels[8];
    float labelledWeight = 0.0f;
    for (int k = 0; k < 8; ++k) {
        labels[k] = CornerValue(mask, cell, k);
        if (labels[k] != 0) labelledWeight += cell.weight[k];
    }
    if (!(labelledWeight > 0.5f)) return 0;
    for (int k = 7; k >= 0; --k)
        if (labels[k] != 0) return labels[k];
    return 0;
}

// Row `label` composited over row 0: the base colour keeps (1 - ae) of its own
// opacity-weighted value. Channel c2 always goes to byte 0 here, whatever the
// channel-order switch says; that is how labelled pixels have always looked.
inline uint32_t CompositedPixel(uint32_t entry, uint32_t base) {
    const float entryOpacity = static_cast<float>(EntryOpacity(entry));
    const float baseOpacity = static_cast<float>(EntryOpacity(base));
    const float ae = entryOpacity / 255.0f;
    const auto channel = [&](int c) {
        const float sum = static_cast<float>(EntryChannel(base, c)) * (1.0f - ae) * baseOpacity +
                          static_cast<float>(EntryChannel(entry, c)) * entryOpacity;
        return static_cast<uint32_t>(TruncateToInt32(sum * kInverse255)) & 0xffu;  // a byte store
    };
    // Only pixels inside the volume carry a label, so coverage is always 255.
    return channel(2) | (channel(1) << 8) | (channel(0) << 16) | 0xff000000u;
}

// Columns from .. to - 1 of row y.
template <class T>
void RenderMaskedOtfSliceSpan(const MaskedOtfSliceContext<T>& c, int y, int from, int to) {
    const SliceRow ends = RowEnds(c.corners, y, c.height);
    uint32_t* __restrict colourRow = c.colour + static_cast<ptrdiff_t>(y) * c.pitch;
    uint16_t* __restrict valueRow = c.value ? c.value + static_cast<ptrdiff_t>(y) * c.pitch : nullptr;
    int x = from;
    if (c.useLanes) {
        // Whole lane groups first; the loop below draws the remaining pixels.
        MaskedSliceRowJob job = c.lanes;
        job.span = MakeSliceSpan(c.corners, c.width, c.height, y, from, to, kPrefetchRows, colourRow);
        job.valueRow = valueRow;
        x = MaskedSliceLanes(c.target, job);
    }
    for (; x < to; ++x) {
        const glm::vec3 p = PixelPoint(ends, x, c.width);
        if (Clipped(c.clip, p)) continue;
        const bool inside = InsideGrid(p, c.grid.dims);
        float v = 0.0f;
        unsigned label = 0;
        if (inside) {
            const TrilinearCell cell = MakeTrilinearCell(p, c.grid.dims);
            v = SampleCell(c.grid, cell);
            label = PixelLabel(c.mask, cell);
        }
        // Rounded sample used directly as the index: no scaling by the row
        // length and no clamp (negative signed samples wrap to 65536 + s).
        const auto index = static_cast<uint16_t>(TruncateToInt32(v + 0.5f));
        if (valueRow) valueRow[x] = index;
        const uint32_t entry = c.rows[label][index];
        colourRow[x] = label == 0 ? PremultipliedPixel(entry, c.channelSwitch, inside)
                                  : CompositedPixel(entry, c.rows[0][index]);
    }
}

// The mask is read with the main volume's indices; one whose storage is smaller
// than that layout cannot be read safely.
bool MaskCoversLayout(const zrobjects::VolumeData& mask, const zrobjects::VolumeData& main) {
    const long long maskSliceBytes = static_cast<long long>(mask.RowPitch()) * (mask.dims.y + 2 * mask.margins.y) *
                                     static_cast<long long>(mask.voxelType.size);
    const long long readSliceBytes = static_cast<long long>(main.RowPitch()) * (main.dims.y + 2 * main.margins.y);
    return mask.slices.size() >= main.slices.size() && maskSliceBytes >= readSliceBytes;
}

}  // namespace

template <class T>
bool RenderMaskedOtfSliceRows(zrobjects::ZrVObjectVolume& volume, const Matrix16& planeToVoxel,
                              zrobjects::ZrVObjectVolume& maskVolume, zrobjects::ZrIObject& image,
                              const SlicePlane& plane, const SliceClipState& clip, int colourIndex, int valueIndex,
                              int maxLabel, zrobjects::ZrObject& otfOwner) {
    zrobjects::FrameBuffer* colourBuffer = image.GetFrameBuffer(zrenums::EzrFrameBufferUsage_RenderOut, colourIndex);
    zrobjects::FrameBuffer* valueBuffer =
        valueIndex >= 0 ? image.GetFrameBuffer(zrenums::EzrFrameBufferUsage_Custom, valueIndex) : nullptr;
    const zrobjects::VolumeData& data = *volume.GetVolumeData();
    const zrobjects::VolumeData& maskData = *maskVolume.GetVolumeData();

    MaskedOtfSliceContext<T> c;
    for (int k = 0; k < 4; ++k) c.corners[k] = TransformPoint(planeToVoxel, plane.corners[k]);

    const OtfTable table = ReadOtfTable(otfOwner);  // a mistyped table throws before anything is drawn
    // Strictly greater: a label equal to the row count passes silently.
    if (maxLabel > table.rowCount) std::puts("WARNNING! OTF mask value is larger than ptmap_data->array_lengths.y");

    if (!colourBuffer || !PlaneFits(*colourBuffer, plane) || !MaskCoversLayout(maskData, data)) return false;
    if (valueBuffer && (valueBuffer->width < colourBuffer->width || valueBuffer->height < plane.height))
        valueBuffer = nullptr;

    c.grid = MakeVoxelGrid<T>(data);
    c.mask = {maskData.slices.data(), data.dims, data.margins, data.RowPitch()};
    c.width = plane.width;
    c.height = plane.height;
    c.pitch = colourBuffer->width;
    c.colour = static_cast<uint32_t*>(colourBuffer->pixels);
    c.value = valueBuffer ? static_cast<uint16_t*>(valueBuffer->pixels) : nullptr;
    c.rows = table.rows;
    c.channelSwitch = ChannelOrderSwitch(ChannelOrderFamily::MaskedOtfSlice);
    c.clip = clip;
    c.target = ActiveSimdTarget();
    if (c.target != SimdTarget::Baseline && !clip.clipBox && !clip.clipPlane &&
        MakeLaneVolume(c.grid, c.lanes.volume) && MakeLaneVolume(c.mask, c.lanes.mask) &&
        RowOffsetsFromRow0(c.rows, c.rowOffsets)) {
        c.useLanes = true;
        c.lanes.row0 = c.rows[0];
        c.lanes.rowOffsets = c.rowOffsets;
        c.lanes.channelSwitch = c.channelSwitch;
    }

    ParallelSliceSpans(c.useLanes, c.width, c.height,
                       [&c](int y, int from, int to) { RenderMaskedOtfSliceSpan(c, y, from, to); });
    return true;
}

bool RenderMaskedOtfSlice(zrobjects::ZrVObjectVolume& volume, const Matrix16& planeToVoxel,
                          zrobjects::ZrVObjectVolume& maskVolume, zrobjects::ZrIObject& image,
                          const SlicePlane& plane, const SliceClipState& clip, int colourIndex, int valueIndex,
                          int maxLabel, zrobjects::ZrObject& otfOwner) {
    return VisitIntegerVoxelType(volume.GetVolumeData()->voxelType, false, [&](auto tag) {
        using T = typename decltype(tag)::type;
        return RenderMaskedOtfSliceRows<T>(volume, planeToVoxel, maskVolume, image, plane, clip, colourIndex,
                                           valueIndex, maxLabel, otfOwner);
    });
}

#define ZR_INSTANTIATE_MASKED_OTF_SLICE(T)                                                                      \
    template bool RenderMaskedOtfSliceRows<T>(zrobjects::ZrVObjectVolume&, const Matrix16&,                     \
                                              zrobjects::ZrVObjectVolume&, zrobjects::ZrIObject&,               \
                                              const SlicePlane&, const SliceClipState&, int, int, int,          \
                                              zrobjects::ZrObject&);
ZR_INSTANTIATE_MASKED_OTF_SLICE(char)
ZR_INSTANTIATE_MASKED_OTF_SLICE(unsigned char)
ZR_INSTANTIATE_MASKED_OTF_SLICE(short)
ZR_INSTANTIATE_MASKED_OTF_SLICE(unsigned short)
#undef ZR_INSTANTIATE_MASKED_OTF_SLICE

}  // namespace zrvolume
