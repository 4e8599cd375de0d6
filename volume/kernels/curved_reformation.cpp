#include "curved_reformation.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "common/curved_view.h"
#include "common/float_convert.h"
#include "common/unit_vector.h"
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
using zrcommon::kZeroLength;
using zrcommon::Matrix16;
using zrcommon::SliceClipState;
using zrcommon::TransformPoint;
using zrcommon::TruncateToInt32;
using zrcommon::UnitOrZero;

namespace {

// The linear part of a matrix record applied to a direction.
glm::vec3 TransformDirection(const Matrix16& r, const glm::vec3& d) {
    const float* m = r.m;
    return glm::vec3(m[0] * d.x + m[1] * d.y + m[2] * d.z, m[4] * d.x + m[5] * d.y + m[6] * d.z,
                     m[8] * d.x + m[9] * d.y + m[10] * d.z);
}

// Number of usable curve samples: none when an array is missing.
int CurveSamples(const CurvedReformationArgs& args) {
    if (args.curvePoints == nullptr || args.upVectors == nullptr || args.tangents == nullptr) return 0;
    return args.curveCount > 0 ? args.curveCount : 0;
}

}  // namespace

CurvedSectionGeometry MakeCurvedSectionGeometry(const CurvedReformationArgs& args) {
    CurvedSectionGeometry g;
    const int n = CurveSamples(args);

    const zrcommon::CurvedView view =
        zrcommon::MapCurvedView(args.planeCorners, args.planeWidth, args.planeHeight, n);
    g.firstColumnPosition = view.firstColumnPosition;
    g.lastColumnPosition = view.lastColumnPosition;
    g.firstColumnTop = view.firstColumnTop;
    g.lastColumnTop = view.lastColumnTop;
    g.firstColumnBottom = view.firstColumnBottom;
    g.lastColumnBottom = view.lastColumnBottom;
    g.lateralExtent = args.planeHeight;
    g.lateralCentre = 0.5f * args.planeHeight;
    g.lateralScale = 1.0f;
    g.depthScale = args.halfThickness;

    // The planar slab's layers, the first one T / 2 in front of the surface.
    const SlabLayers layers = LayersOfSlab(args.thickness, args.layerStep);
    g.lastLayer = layers.count - 1;
    g.layerStep = layers.step;
    g.slabSpan = args.thickness;

    // Light for the compositing member: the viewing direction, or the depth axis
    // of the middle sample when none is given.
    glm::vec3 light = args.viewDirection;
    if (!(glm::length(light) > kZeroLength) && n > 0) {
        const int middle = n / 2;
        light = UnitOrZero(glm::cross(UnitOrZero(args.upVectors[middle]), args.tangents[middle]));
    }
    g.lightDirection = UnitOrZero(TransformDirection(args.worldToVoxel, light));
    return g;
}

namespace {

enum class Reduction { SinglePlane, Compositing, Maximum, Minimum, Average };

// Everything a column needs, captured once per call.
template <class T>
struct CurvedRun {
    VoxelGrid<T> grid;
    CurvedSectionGeometry g;
    const glm::vec3* points = nullptr;
    const glm::vec3* ups = nullptr;
    const glm::vec3* tangents = nullptr;
    int n = 0;
    bool rightSide = false;
    Matrix16 toVoxel;
    SliceClipState clip;
    bool clipActive = false;
    const uint32_t* otfRow = nullptr;
    float otfLength = 0.0f;
    ThickSectionTarget target;
    int width = 0;
    int height = 0;
    bool channelSwitch = false;
    CompositingShading shading;
};

// The scaled table lookup of a reduced value s: the value buffer gets its low 16
// bits, which also index the row.
template <class T>
inline void WriteLookedUp(const CurvedRun<T>& run, size_t index, int32_t s, bool covered) {
    const uint16_t value = static_cast<uint16_t>(s);
    if (run.target.values) run.target.values[index] = value;
    const uint32_t entry = run.otfRow[ScaledOtfIndex(value, run.otfLength)];
    run.target.colour[index] = PremultipliedPixel(entry, run.channelSwitch, covered);
}

// The column's place on the curve and its frame, hoisted out of the row loop.
struct ColumnFrame {
    bool used = false;  // false: the column stays untouched
    float lo = 0.0f;    // lateral coordinate of the top row
    float hi = 0.0f;    // of the bottom row
    glm::vec3 depth{0.0f};
    glm::vec3 surface{0.0f};
    glm::vec3 lateralStep{0.0f};
    glm::vec3 slabFront{0.0f};
};

template <class T>
ColumnFrame MakeColumnFrame(const CurvedRun<T>& run, int i) {
    const CurvedSectionGeometry& g = run.g;
    ColumnFrame frame;

    // Curve position and lateral range of the column. W = 1 gives 0 / 0 and a
    // not-a-number u, which fails the test below: the column stays untouched.
    const float t = static_cast<float>(i) / static_cast<float>(run.width - 1);
    const float u = (1.0f - t) * g.firstColumnPosition + t * g.lastColumnPosition;
    frame.lo = (1.0f - t) * g.firstColumnTop + t * g.lastColumnTop;
    frame.hi = (1.0f - t) * g.firstColumnBottom + t * g.lastColumnBottom;
    if (!(u >= 0.0f) || u >= static_cast<float>(run.n - 1)) return frame;

    // Interpolated frame of the column.
    const int k = FloorToInt(u);
    const float f = u - static_cast<float>(k);
    const int k0 = glm::clamp(k, 0, run.n - 1);
    const int k1 = glm::clamp(k + 1, 0, run.n - 1);
    const glm::vec3 p = (1.0f - f) * run.points[k0] + f * run.points[k1];
    const glm::vec3 up = (1.0f - f) * run.ups[k0] + f * run.ups[k1];
    const glm::vec3 tangent = (1.0f - f) * run.tangents[k0] + f * run.tangents[k1];
    const glm::vec3 upUnit = UnitOrZero(up);
    glm::vec3 depth = UnitOrZero(glm::cross(upUnit, tangent));
    if (run.rightSide) depth = -depth;

    frame.used = true;
    frame.depth = depth;
    frame.surface = p + g.depthScale * depth;
    frame.lateralStep = g.lateralScale * upUnit;
    frame.slabFront = frame.surface - (0.5f * g.slabSpan) * depth;
    return frame;
}

// The thin-section pixel of row j in column i: the point on the surface, its
// sample rounded (+ 0.5, truncated) and looked up. A clipped point, or a row
// outside the lateral range, leaves the pixel untouched.
template <class T>
inline void ThinPixel(const CurvedRun<T>& run, const ColumnFrame& frame, int i, int j, float a, float b) {
    const float s = a * frame.lo + b * frame.hi;
    if (!(s >= 0.0f) || s > run.g.lateralExtent) return;
    const glm::vec3 lateral = (s - run.g.lateralCentre) * frame.lateralStep;
    const size_t index = static_cast<size_t>(j) * static_cast<size_t>(run.target.pitch) + static_cast<size_t>(i);
    const glm::vec3 v = TransformPoint(run.toVoxel, frame.surface + lateral);
    if (run.clipActive && Clipped(run.clip, v)) return;
    const bool inside = InsideGrid(v, run.grid.dims);
    const float sample = inside ? SampleTrilinear(run.grid, v) : 0.0f;
    WriteLookedUp(run, index, TruncateToInt32(sample + 0.5f), inside);
}

// The slab pixel of row j in column i (maximum, minimum, average or
// compositing over the layers); a row outside the lateral range is left
// untouched.
template <class T, Reduction R>
inline void SlabPixel(const CurvedRun<T>& run, const ColumnFrame& frame, int i, int j) {
    const CurvedSectionGeometry& g = run.g;
    const float rows = static_cast<float>(run.height - 1);
    // H = 1 gives not-a-number here and skips every row.
    const float s =
        (static_cast<float>(run.height - 1 - j) / rows) * frame.lo + (static_cast<float>(j) / rows) * frame.hi;
    if (!(s >= 0.0f) || s > g.lateralExtent) return;
    const glm::vec3 lateral = (s - g.lateralCentre) * frame.lateralStep;
    const size_t index = static_cast<size_t>(j) * static_cast<size_t>(run.target.pitch) + static_cast<size_t>(i);
    const glm::vec3 base = frame.slabFront + lateral;
    const int middleLayer = g.lastLayer / 2;

    bool covered = false;
    float maximum = 0.0f;
    float minimum = 3.4028235e38f;
    float sum = 0.0f;
    int counted = 0;
    float middleSample = 0.0f;
    CompositeAccumulator acc;
    for (int m = 0; m <= g.lastLayer; ++m) {
        const glm::vec3 v = TransformPoint(run.toVoxel, base + (static_cast<float>(m) * g.layerStep) * frame.depth);
        if (run.clipActive && Clipped(run.clip, v)) continue;  // the layer does not count
        float sample = 0.0f;
        if (InsideGrid(v, run.grid.dims)) {
            sample = SampleTrilinear(run.grid, v);
            covered = true;
        }
        if constexpr (R == Reduction::Maximum) {
            maximum = sample > maximum ? sample : maximum;
        } else if constexpr (R == Reduction::Minimum) {
            minimum = sample < minimum ? sample : minimum;  // outside: 0 pulls it down
        } else if constexpr (R == Reduction::Average) {
            sum += sample;
            ++counted;
        } else {
            CompositeLayer(run.shading, run.grid, run.otfRow, run.otfLength, v, sample, acc);
            if (m == middleLayer) middleSample = sample;
        }
    }

    if constexpr (R == Reduction::Compositing) {
        if (run.target.values) run.target.values[index] = static_cast<uint16_t>(TruncateToInt32(middleSample + 0.5f));
        run.target.colour[index] = CompositedPixel(acc, run.channelSwitch, covered);
    } else if constexpr (R == Reduction::Maximum) {
        WriteLookedUp(run, index, TruncateToInt32(maximum + 0.5f), covered);
    } else if constexpr (R == Reduction::Minimum) {
        const float v = (minimum == 3.4028235e38f || g.lastLayer < 0) ? 0.0f : minimum;
        WriteLookedUp(run, index, TruncateToInt32(v + 0.5f), covered);
    } else {
        // Truncated, not rounded; no counted layer gives 0 / 0 and value 0.
        WriteLookedUp(run, index, TruncateToInt32(sum / static_cast<float>(counted)), covered);
    }
}

template <class T, Reduction R>
void CurvedColumn(const CurvedRun<T>& run, int i) {
    const ColumnFrame frame = MakeColumnFrame(run, i);
    if (!frame.used) return;
    const float rows = static_cast<float>(run.height - 1);
    for (int j = 0; j < run.height; ++j) {
        if constexpr (R == Reduction::SinglePlane) {
            ThinPixel(run, frame, i, j, static_cast<float>(run.height - 1 - j) / rows, static_cast<float>(j) / rows);
        } else {
            SlabPixel<T, R>(run, frame, i, j);
        }
    }
}

// How far ahead (in rows) the vector path prefetches voxel lines.
constexpr int kPrefetchRows = 2;
// The same for the slab rows, whose prefetches follow the layers.
constexpr int kSlabPrefetchRows = 6;

// The column frames of a whole image, made once, and their structure of
// arrays for the lane loops.
struct ColumnTable {
    std::vector<ColumnFrame> frames;
    // surface x/y/z, lateral step x/y/z, top, bottom, slab front x/y/z, depth x/y/z
    std::vector<float> soa;
    std::vector<int32_t> used;  // 0 or -1
    const float* Column(int k) const { return soa.data() + static_cast<size_t>(k) * frames.size(); }
};

enum ColumnArray { kSurface = 0, kLateral = 3, kTop = 6, kBottom = 7, kFront = 8, kDepth = 11, kArrays = 14 };

template <class T>
ColumnTable MakeColumnTable(const CurvedRun<T>& run) {
    const size_t width = static_cast<size_t>(run.width);
    ColumnTable table;
    table.frames.resize(width);
    table.soa.resize(width * kArrays);
    table.used.resize(width);
    for (size_t i = 0; i < width; ++i) {
        const ColumnFrame& f = table.frames[i] = MakeColumnFrame(run, static_cast<int>(i));
        float* soa = table.soa.data();
        for (int k = 0; k < 3; ++k) {
            soa[(kSurface + k) * width + i] = f.surface[k];
            soa[(kLateral + k) * width + i] = f.lateralStep[k];
            soa[(kFront + k) * width + i] = f.slabFront[k];
            soa[(kDepth + k) * width + i] = f.depth[k];
        }
        soa[kTop * width + i] = f.lo;
        soa[kBottom * width + i] = f.hi;
        table.used[i] = f.used ? -1 : 0;
    }
    return table;
}

// The record applied by the lanes, and whether its last row is (0, 0, 0, 1).
inline bool AffineRecord(const Matrix16& r) {
    const float* last = r.m + 12;
    return last[0] == 0.0f && last[1] == 0.0f && last[2] == 0.0f && last[3] == 1.0f;
}

// What the thin and the slab row jobs take alike from the column table and the
// run: each column's top and bottom, which columns are used, the lateral
// range, the voxel record and the table.
template <class Job, class T>
void PlaceColumns(Job& base, const CurvedRun<T>& run, const ColumnTable& table) {
    base.top = table.Column(kTop);
    base.bottom = table.Column(kBottom);
    base.used = table.used.data();
    base.centre = run.g.lateralCentre;
    base.extent = run.g.lateralExtent;
    for (int k = 0; k < 16; ++k) base.toVoxel[k] = run.toVoxel.m[k];
    base.affine = AffineRecord(run.toVoxel);
    base.length = run.otfLength;
    base.colour.table = run.otfRow;
    base.colour.channelSwitch = run.channelSwitch;
}

// A row job's row j: the weights of the top and bottom coordinates (H = 1
// gives not-a-number and skips every pixel), those of the row `ahead` rows
// down whose cells are prefetched (none past the last), and the rows written.
template <class Job, class T>
void PlaceCurvedRow(Job& job, const CurvedRun<T>& run, int j, int ahead) {
    const float rows = static_cast<float>(run.height - 1);
    job.a = static_cast<float>(run.height - 1 - j) / rows;
    job.b = static_cast<float>(j) / rows;
    if (j + ahead < run.height) {
        job.prefetch = true;
        job.prefetchA = static_cast<float>(run.height - 1 - j - ahead) / rows;
        job.prefetchB = static_cast<float>(j + ahead) / rows;
    }
    const size_t rowStart = static_cast<size_t>(j) * static_cast<size_t>(run.target.pitch);
    job.colourRow = run.target.colour + rowStart;
    job.valueRow = run.target.values ? run.target.values + rowStart : nullptr;
}

// The thin section row by row: the column frames are made once, then each row
// draws whole lane groups of columns and the per-pixel code the rest. Same
// pixels as the column order, with contiguous writes.
template <class T>
void RunThinRows(const CurvedRun<T>& run, SimdTarget target, const LaneVolume& volume) {
    const int width = run.width;
    const ColumnTable table = MakeColumnTable(run);

    CurvedRowJob base;
    base.volume = volume;
    for (int k = 0; k < 3; ++k) {
        base.surface[k] = table.Column(kSurface + k);
        base.lateralStep[k] = table.Column(kLateral + k);
    }
    PlaceColumns(base, run, table);
    base.width = width;

    ParallelFor(0, run.height, [&](int j) {
        CurvedRowJob job = base;
        PlaceCurvedRow(job, run, j, kPrefetchRows);
        const float a = job.a, b = job.b;
        for (int i = CurvedLanes(target, job); i < width; ++i) {
            const ColumnFrame& frame = table.frames[static_cast<size_t>(i)];
            if (frame.used) ThinPixel(run, frame, i, j, a, b);
        }
    });
}

// How far the rounded layer points of a pixel can stray from their line, in
// voxels, for an affine record: each coordinate of a layer point is formed in
// a few roundings from world coordinates no larger than W, so it strays by at
// most 6 * 2^-24 * (sum_k |m_rk| W + |m_r3|) from the exact one, and the points
// between two such ends by twice that from the line joining the computed ends.
// W bounds |front| + (E + |C|) |lateral step| + K * step * |depth| over the
// used columns. Twice the bound again, for good measure.
template <class T>
float InteriorMargin(const CurvedRun<T>& run, const ColumnTable& table) {
    const double lateral = std::fabs(static_cast<double>(run.g.lateralExtent)) + std::fabs(run.g.lateralCentre);
    const double depth = std::fabs(static_cast<double>(run.g.lastLayer) * run.g.layerStep);
    double world = 0.0;
    for (const ColumnFrame& f : table.frames) {
        if (!f.used) continue;
        for (int k = 0; k < 3; ++k)
            world = std::max(world, std::fabs(double(f.slabFront[k])) + lateral * std::fabs(f.lateralStep[k]) +
                                        depth * std::fabs(f.depth[k]));
    }
    double bound = 0.0;
    for (int r = 0; r < 3; ++r) {
        const float* m = run.toVoxel.m + 4 * r;
        bound = std::max(bound, (std::fabs(m[0]) + std::fabs(m[1]) + std::fabs(m[2])) * world + std::fabs(m[3]));
    }
    const double margin = 24.0 * 0x1p-24 * bound;
    return std::isfinite(margin) && margin < 0.25 ? static_cast<float>(margin) : -1.0f;
}

// The maximum, minimum or average slab in strips of columns, row by row within
// a strip: lane groups of columns first, the per-pixel body for the rest. A
// strip's rows read nearly the same voxel lines (its 25-odd layers of 32-128
// columns stay in the core's second-level cache), where whole rows of a long
// curve would not.
template <class T, Reduction R>
void RunSlabRows(const CurvedRun<T>& run, SimdTarget target, const LaneVolume& volume) {
    const int width = run.width;
    const ColumnTable table = MakeColumnTable(run);

    CurvedSlabRowJob base;
    base.volume = volume;
    for (int k = 0; k < 3; ++k) {
        base.front[k] = table.Column(kFront + k);
        base.lateralStep[k] = table.Column(kLateral + k);
        base.depth[k] = table.Column(kDepth + k);
    }
    PlaceColumns(base, run, table);
    if (base.affine) base.interiorMargin = InteriorMargin(run, table);
    base.layers = run.g.lastLayer + 1;
    base.layerStep = run.g.layerStep;
    base.reduction = R == Reduction::Maximum   ? LaneReduction::Maximum
                     : R == Reduction::Minimum ? LaneReduction::Minimum
                                               : LaneReduction::Average;

    ParallelForStrips(width, run.height, BalancedStripWidth(width, 32, 128), [&](int j, int from, int to) {
        CurvedSlabRowJob job = base;
        job.from = from;
        job.to = to;
        PlaceCurvedRow(job, run, j, kSlabPrefetchRows);
        for (int i = CurvedSlabLanes(target, job); i < to; ++i) {
            const ColumnFrame& frame = table.frames[static_cast<size_t>(i)];
            if (frame.used) SlabPixel<T, R>(run, frame, i, j);
        }
    });
}

template <class T, Reduction R>
void RunColumns(const CurvedRun<T>& run) {
    if (run.width <= 0) return;
    if constexpr (R != Reduction::Compositing) {
        const SimdTarget target = ActiveSimdTarget();
        LaneVolume volume;
        if (target != SimdTarget::Baseline && !run.clipActive && run.width >= 2 &&
            (R == Reduction::SinglePlane || run.g.lastLayer >= 0) &&
            MakeLaneVolume(run.grid, volume)) {
            if constexpr (R == Reduction::SinglePlane) {
                RunThinRows(run, target, volume);
            } else {
                RunSlabRows<T, R>(run, target, volume);
            }
            return;
        }
    }
    if (run.width == 1) {
        CurvedColumn<T, R>(run, 0);
        return;
    }
    ParallelFor(0, run.width, [&run](int i) { CurvedColumn<T, R>(run, i); });
}

template <class T>
void RenderCurvedColumns(const CurvedReformationArgs& args, const CurvedSectionGeometry& geometry,
                         const OtfTable& table, const ThickSectionTarget& target, Reduction reduction) {
    CurvedRun<T> run;
    run.grid = MakeVoxelGrid<T>(*args.volume->GetVolumeData());
    run.g = geometry;
    run.points = args.curvePoints;
    run.ups = args.upVectors;
    run.tangents = args.tangents;
    run.n = CurveSamples(args);
    run.rightSide = args.rightSide;
    run.toVoxel = args.worldToVoxel;
    run.clip = args.clip;
    run.clipActive = args.clip.clipBox || args.clip.clipPlane;
    run.otfRow = table.rows[0];
    run.otfLength = table.length;
    run.target = target;
    run.width = args.width;
    run.height = args.height;
    run.channelSwitch = ChannelOrderSwitch(ChannelOrderFamily::CurvedReformation);

    switch (reduction) {
        case Reduction::SinglePlane: RunColumns<T, Reduction::SinglePlane>(run); break;
        case Reduction::Compositing:
            run.shading = MakeCompositingShading(*args.volume, args.phongCoeffs, args.gradientMagnitude,
                                                 geometry.lightDirection);
            RunColumns<T, Reduction::Compositing>(run);
            break;
        case Reduction::Maximum: RunColumns<T, Reduction::Maximum>(run); break;
        case Reduction::Minimum: RunColumns<T, Reduction::Minimum>(run); break;
        case Reduction::Average: RunColumns<T, Reduction::Average>(run); break;
    }
}

}  // namespace

bool RenderCurvedSection(const CurvedReformationArgs& args, const CurvedSectionGeometry& geometry) {
    Reduction reduction;
    switch (args.projectionCode) {
        case 0:
        case 1:
            if (args.thickness == 0.0f) {
                reduction = Reduction::SinglePlane;
            } else if (args.thickness > 0.0f) {
                reduction = Reduction::Compositing;
            } else {
                return false;  // negative (or not-a-number) thickness
            }
            break;
        case 10: reduction = Reduction::Maximum; break;
        case 11: reduction = Reduction::Minimum; break;
        case 12: reduction = Reduction::Average; break;
        default: return false;
    }
    if (args.volume == nullptr || args.tableOwner == nullptr || args.image == nullptr) return false;
    const OtfTable table = ReadOtfTable(*args.tableOwner);  // throws on a missing or mistyped table
    if (table.rows == nullptr || table.rows[0] == nullptr) return false;
    ThickSectionTarget target;
    if (!ResolveThickSectionTarget(*args.image, args.colourIndex, args.valueIndex, args.width, args.height, target))
        return false;
    return VisitIntegerVoxelType(args.volume->GetVolumeData()->voxelType, false, [&](auto tag) {
        RenderCurvedColumns<typename decltype(tag)::type>(args, geometry, table, target, reduction);
        return true;
    });
}

bool RenderCurvedReformation(const CurvedReformationArgs& args) {
    return RenderCurvedSection(args, MakeCurvedSectionGeometry(args));
}

}  // namespace zrvolume
