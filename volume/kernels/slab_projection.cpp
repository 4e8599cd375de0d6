#include "slab_projection.h"

#include <cstdint>

#include "common/float_convert.h"
#include "volume/kernels/lane_rows.h"
#include "volume/kernels/otf_lookup.h"
#include "volume/kernels/parallel_for.h"
#include "volume/kernels/slab_compositing.h"
#include "volume/kernels/slab_lane_rows.h"
#include "volume/kernels/slab_layers.h"
#include "volume/kernels/voxel_sampling.h"
#include "volume/kernels/voxel_type.h"

namespace zrvolume {

using zrcommon::Clipped;
using zrcommon::Matrix16;
using zrcommon::SliceClipState;
using zrcommon::TransformPoint;
using zrcommon::TruncateToInt32;

SlabGeometry MakeSlabGeometry(const SlicePlane& plane, const Matrix16& planeToVoxel,
                              const glm::vec3& viewDirection, float thickness, float voxelPitchMin) {
    SlabGeometry g;
    const float dirLength = glm::length(viewDirection);
    const glm::vec3 dir = dirLength > 2.220446e-16f ? viewDirection / dirLength : glm::vec3(0.0f);

    const SlabLayers layers = LayersOfSlab(thickness, voxelPitchMin);
    const int count = layers.count;
    const float pitch = layers.step;
    g.layerCount = count;

    // The first layer lies (count - 1) / 2 spacings in front of the plane.
    const glm::vec3 back = dir * (-0.5f * static_cast<float>(count - 1) * pitch);
    g.topLeft = TransformPoint(planeToVoxel, plane.corners[0] + back);
    g.topRight = TransformPoint(planeToVoxel, plane.corners[1] + back);
    g.bottomLeft = TransformPoint(planeToVoxel, plane.corners[2] + back);
    g.bottomRight = TransformPoint(planeToVoxel, plane.corners[3] + back);

    // Linear part only: the voxel image of one spacing along the view.
    const glm::vec3 step = dir * pitch;
    const float* m = planeToVoxel.m;
    g.layerStep = glm::vec3(m[0] * step.x + m[1] * step.y + m[2] * step.z,
                            m[4] * step.x + m[5] * step.y + m[6] * step.z,
                            m[8] * step.x + m[9] * step.y + m[10] * step.z);
    return g;
}

namespace {

enum class Reduction { Maximum, Minimum, Average, Compositing };

// Everything a row needs, captured once per call.
template <class T>
struct SlabRun {
    VoxelGrid<T> grid;
    SlabGeometry geometry;
    SliceClipState clip;
    bool clipActive = false;
    const uint32_t* otfRow = nullptr;
    float otfLength = 0.0f;
    ThickSectionTarget target;
    int width = 0;
    int height = 0;
    bool channelSwitch = false;
    CompositingShading shading;
    // Vector path of the three reductions: taken when a vector target is
    // active, nothing is clipped and the storage allows the lane reads.
    SimdTarget simd = SimdTarget::Baseline;
    bool useLanes = false;
    SlabRowJob lanes;
    SlabCompositingRowJob compositingLanes;
};

// How far ahead (in rows of the strip) the vector path prefetches voxel lines.
constexpr int kPrefetchRows = 4;

// A lane job's row: its columns and ends, the rows it writes, and the ends of
// the row kPrefetchRows below, whose cells it prefetches (none past the last).
template <class Job>
void PlaceRowJob(Job& job, const SlabGeometry& g, int height, int r, int from, int to, const glm::vec3& left,
                 const glm::vec3& right, uint32_t* colourRow, uint16_t* valueRow) {
    job.from = from;
    job.to = to;
    for (int k = 0; k < 3; ++k) {
        job.left[k] = left[k];
        job.right[k] = right[k];
    }
    job.colourRow = colourRow;
    job.valueRow = valueRow;
    if (r + kPrefetchRows < height) {
        const float ta = static_cast<float>(r + kPrefetchRows) / static_cast<float>(height - 1);
        job.prefetch = true;
        for (int k = 0; k < 3; ++k) {
            job.prefetchLeft[k] = (1.0f - ta) * g.topLeft[k] + ta * g.bottomLeft[k];
            job.prefetchRight[k] = (1.0f - ta) * g.topRight[k] + ta * g.bottomRight[k];
        }
    }
}

// Columns from .. to - 1 of row r.
template <class T, Reduction R>
void SlabProjectionSpan(const SlabRun<T>& run, int r, int from, int to) {
    const SlabGeometry& g = run.geometry;
    // Divisions by H - 1 and W - 1 are not guarded: a one-pixel axis yields
    // not-a-number points, which fail every inside test.
    const float t = static_cast<float>(r) / static_cast<float>(run.height - 1);
    const glm::vec3 left = (1.0f - t) * g.topLeft + t * g.bottomLeft;
    const glm::vec3 right = (1.0f - t) * g.topRight + t * g.bottomRight;
    uint32_t* colourRow = run.target.colour + static_cast<ptrdiff_t>(r) * run.target.pitch;
    uint16_t* valueRow = run.target.values ? run.target.values + static_cast<ptrdiff_t>(r) * run.target.pitch : nullptr;

    int c = from;
    if (run.useLanes) {
        // Whole lane groups first; the loop below draws the remaining pixels.
        SlabRowJob job = run.lanes;
        PlaceRowJob(job, g, run.height, r, from, to, left, right, colourRow, valueRow);
        c = SlabLanes(run.simd, job);
    }
    for (; c < to; ++c) {
        const float s = static_cast<float>(c) / static_cast<float>(run.width - 1);
        glm::vec3 x = (1.0f - s) * left + s * right;

        bool covered = false;
        float maximum = 0.0f;
        float minimum = 3.4028235e38f;
        float sum = 0.0f;
        int count = 0;

        for (int m = 0; m < g.layerCount; ++m) {
            // A clipped layer is skipped without advancing the point: every later
            // layer then tests the same point and is skipped as well.
            if (run.clipActive && Clipped(run.clip, x)) continue;
            float sample = 0.0f;
            if (InsideGrid(x, run.grid.dims)) {
                sample = SampleTrilinear(run.grid, x);
                covered = true;
            }
            if constexpr (R == Reduction::Maximum) {
                maximum = sample > maximum ? sample : maximum;
            } else if constexpr (R == Reduction::Minimum) {
                minimum = sample < minimum ? sample : minimum;
            } else {
                if (sample > 0.0f) {  // empty space does not dilute the mean
                    sum += sample;
                    ++count;
                }
            }
            x += g.layerStep;
        }

        // The integer conversions keep the x86 overflow result on purpose: an
        // all-clipped minimum (3.4e38) and an empty average (0 / 0) both end as
        // value 0 in 16 bits.
        int32_t value;
        if constexpr (R == Reduction::Maximum) {
            value = TruncateToInt32(maximum + 0.5f);
        } else if constexpr (R == Reduction::Minimum) {
            value = TruncateToInt32(minimum + 0.5f);
        } else {
            value = TruncateToInt32(sum / static_cast<float>(count));
        }
        const uint16_t value16 = static_cast<uint16_t>(value);
        if (valueRow) valueRow[c] = value16;
        // Direct index by the 16-bit value; the rows hold 65536 entries.
        colourRow[c] = PremultipliedPixel(run.otfRow[value16], run.channelSwitch, covered);
    }
}

// Columns from .. to - 1 of row r, shaded compositing (the planar member of
// slab_compositing.h).
template <class T>
void CompositingSpan(const SlabRun<T>& run, int r, int from, int to) {
    const SlabGeometry& g = run.geometry;
    const float t = static_cast<float>(r) / static_cast<float>(run.height - 1);
    const glm::vec3 left = (1.0f - t) * g.topLeft + t * g.bottomLeft;
    const glm::vec3 right = (1.0f - t) * g.topRight + t * g.bottomRight;
    const glm::vec3 toPlane = (0.5f * static_cast<float>(g.layerCount - 1)) * g.layerStep;

    uint32_t* colourRow = run.target.colour + static_cast<ptrdiff_t>(r) * run.target.pitch;
    uint16_t* valueRow = run.target.values ? run.target.values + static_cast<ptrdiff_t>(r) * run.target.pitch : nullptr;

    int c = from;
    if (run.useLanes) {
        SlabCompositingRowJob job = run.compositingLanes;
        job.row = r;
        PlaceRowJob(job, g, run.height, r, from, to, left, right, colourRow, valueRow);
        c = SlabCompositingLanes(run.simd, job);
    }
    for (; c < to; ++c) {
        const float s = static_cast<float>(c) / static_cast<float>(run.width - 1);
        const glm::vec3 start = (1.0f - s) * left + s * right;

        if (valueRow) {
            // The rounded sample on the section plane.
            const glm::vec3 p = start + toPlane;
            float sample = 0.0f;
            if (!(run.clipActive && Clipped(run.clip, p)) && InsideGrid(p, run.grid.dims))
                sample = SampleTrilinear(run.grid, p);
            valueRow[c] = static_cast<uint16_t>(TruncateToInt32(sample + 0.5f));
        }

        glm::vec3 x = start + PlanarLayerJitter(r, c) * g.layerStep;
        bool covered = false;
        CompositeAccumulator acc;
        for (int m = 0; m < g.layerCount; ++m) {
            // A clipped layer is skipped without advancing the point.
            if (run.clipActive && Clipped(run.clip, x)) continue;
            float sample = 0.0f;
            if (InsideGrid(x, run.grid.dims)) {
                sample = SampleTrilinear(run.grid, x);
                covered = true;
            }
            CompositePlanarLayer(run.shading, run.grid, PlanarLayerEntry<T>(run.otfRow, sample), x, acc);
            x += g.layerStep;
            if (!(acc.opacity < kPlanarOpaqueEnough)) break;
        }
        colourRow[c] = CompositedPixel(acc, run.channelSwitch, covered);
    }
}

template <class T, Reduction R>
void RunSlab(const SlabRun<T>& run) {
    const auto span = [&run](int r, int from, int to) {
        if constexpr (R == Reduction::Compositing) {
            CompositingSpan<T>(run, r, from, to);
        } else {
            SlabProjectionSpan<T, R>(run, r, from, to);
        }
    };
    if (run.useLanes) {
        // Strips of up to 128 columns: a strip's row reads nearly the voxel
        // lines of the row before, still in the core's second-level cache,
        // while the prefetched lines of the rows below arrive. On 512-pixel
        // slabs 128 columns measured 15-25 % faster than 32 or 64; wider strips
        // gained nothing. Many threads get narrower strips, two each.
        ParallelForStrips(run.width, run.height, BalancedStripWidth(run.width, 32, 128), span);
    } else {
        ParallelFor(0, run.height, [&](int r) { span(r, 0, run.width); });
    }
}

// The compositing lane record's fixed part: march, shading and table.
template <class T>
void SetCompositingLanes(SlabRun<T>& run) {
    SlabCompositingRowJob& job = run.compositingLanes;
    const SlabGeometry& g = run.geometry;
    job.volume = run.lanes.volume;
    const glm::vec3 toPlane = (0.5f * static_cast<float>(g.layerCount - 1)) * g.layerStep;
    for (int k = 0; k < 3; ++k) {
        job.step[k] = g.layerStep[k];
        job.toPlane[k] = toPlane[k];
        job.light[k] = run.shading.lightDirection[k];
        for (int axis = 0; axis < 3; ++axis) job.gradientSteps[axis][k] = run.shading.gradientSteps[axis][k];
    }
    job.layers = g.layerCount;
    job.width = run.width;
    job.ambient = run.shading.ambient;
    job.diffuse = run.shading.diffuse;
    job.specular = run.shading.specular;
    job.exponent = run.shading.exponent;
    job.magnitudeWeighted = run.shading.magnitudeWeighted;
    job.magnitudeScale = run.shading.magnitudeScale;
    job.colour.table = run.otfRow;
    job.colour.channelSwitch = run.channelSwitch;
}

template <class T>
bool RenderSlabProjectionRows(const SlabProjectionArgs& args, const OtfTable& table, const ThickSectionTarget& target) {
    SlabRun<T> run;
    run.grid = MakeVoxelGrid<T>(*args.volume->GetVolumeData());
    run.geometry = args.geometry;
    run.clip = args.clip;
    run.clipActive = args.clip.clipBox || args.clip.clipPlane;
    run.otfRow = table.rows[0];
    run.otfLength = table.length;
    run.target = target;
    run.width = args.width;
    run.height = args.height;
    run.channelSwitch = ChannelOrderSwitch(ChannelOrderFamily::SlabProjection);
    run.simd = ActiveSimdTarget();
    if (run.simd != SimdTarget::Baseline && !run.clipActive && MakeLaneVolume(run.grid, run.lanes.volume)) {
        run.useLanes = true;
        for (int k = 0; k < 3; ++k) run.lanes.step[k] = args.geometry.layerStep[k];
        run.lanes.layers = args.geometry.layerCount;
        run.lanes.width = args.width;
        run.lanes.reduction = args.projectionCode == 10   ? LaneReduction::Maximum
                              : args.projectionCode == 11 ? LaneReduction::Minimum
                                                          : LaneReduction::Average;
        run.lanes.colour.table = run.otfRow;
        run.lanes.colour.channelSwitch = run.channelSwitch;
    }

    switch (args.projectionCode) {
        case 0:
        case 1:
            run.shading = MakeCompositingShading(*args.volume, args.phongCoeffs, args.gradientMagnitude,
                                                 args.geometry.layerStep);
            if (run.useLanes) SetCompositingLanes(run);
            RunSlab<T, Reduction::Compositing>(run);
            return true;
        case 10: RunSlab<T, Reduction::Maximum>(run); return true;
        case 11: RunSlab<T, Reduction::Minimum>(run); return true;
        case 12: RunSlab<T, Reduction::Average>(run); return true;
        default: return false;
    }
}

}  // namespace

bool RenderSlabProjection(const SlabProjectionArgs& args) {
    const int code = args.projectionCode;
    if (code != 0 && code != 1 && code != 10 && code != 11 && code != 12) return false;
    if (args.volume == nullptr || args.tableOwner == nullptr || args.image == nullptr) return false;
    const OtfTable table = ReadOtfTable(*args.tableOwner);  // throws on a missing or mistyped table
    if (table.rows == nullptr || table.rows[0] == nullptr) return false;
    ThickSectionTarget target;
    if (!ResolveThickSectionTarget(*args.image, args.colourIndex, args.valueIndex, args.width, args.height, target))
        return false;
    return VisitIntegerVoxelType(args.volume->GetVolumeData()->voxelType, false, [&](auto tag) {
        using T = typename decltype(tag)::type;
        return RenderSlabProjectionRows<T>(args, table, target);
    });
}

}  // namespace zrvolume
