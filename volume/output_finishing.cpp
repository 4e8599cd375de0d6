#include "output_finishing.h"

#include <array>
#include <string>

#include "common/float_convert.h"
#include "common/parallel_bytes.h"
#include "common/param_reads.h"
#include "volume/kernels/image_upscale.h"
#include "volume/kernels/iso_contour.h"
#include "volume/kernels/layer_merge.h"

namespace zrvolume {

using zrcommon::Matrix16;
using zrcommon::ReadParam;
using zrcommon::ToMatrixRecord;
using zrcommon::TruncateToInt32;

uint32_t ColourWord(const glm::dvec4& rgba) {
    uint32_t word = 0;
    // Out-of-range or not-a-number channels take the x86 conversion's result
    // (INT32_MIN, low byte 0) instead of undefined behaviour.
    for (int c = 0; c < 4; ++c)
        word |= (static_cast<uint32_t>(TruncateToInt32(rgba[c] * 255.0)) & 0xffu) << (8 * c);
    return word;
}

namespace {

bool HasAlpha(uint32_t colour) { return (colour >> 24) != 0; }

constexpr uint32_t kOpaqueMagenta = 0xffff00ffu;  // bytes 255, 0, 255, 255

}  // namespace

void DrawIsoBoundaries(zrobjects::ModuleRequest& request, const VolumeRenderSettings& settings,
                       const std::vector<SelectedVolume>& volumes, const SlicePlane& plane, int bufferIndex) {
    if (!settings.drawIsoBoundary || settings.isNonlinear) return;
    auto& p = request.params;
    const int targetId = ReadParam<int>(p, "_int_TargetVolumeObjectID", 0);
    ReadParam<int>(p, "_int_IsoValueBoundary", 0);
    ReadParam<glm::dvec4>(p, "_double4_BoundaryColor", glm::dvec4(0.0));

    const SelectedVolume* target = nullptr;
    for (const SelectedVolume& s : volumes)
        if (s.volume->GetObjectID() == targetId) {
            target = &s;
            break;
        }
    if (!target) return;

    const int density0 = ReadParam<int>(p, "_int_Density0", 0);
    const int density1 = ReadParam<int>(p, "_int_Density1", 0);
    ReadParam<double>(p, "_double_KernelSize", 0.0);
    ReadParam<double>(p, "_double_ThresholdGradSqLength", 0.0);
    ReadParam<double>(p, "_double_ThresholdLaplacian", 0.0);
    const uint32_t outer = ColourWord(ReadParam<glm::dvec4>(p, "_double4_ColorOuter", glm::dvec4(0.0)));
    const uint32_t inner = ColourWord(ReadParam<glm::dvec4>(p, "_double4_ColorInner", glm::dvec4(0.0)));
    const uint32_t iso = ColourWord(ReadParam<glm::dvec4>(p, "_double4_ColorIso", glm::dvec4(0.0)));
    const int isoValue = ReadParam<int>(p, "_int_IsoValueBoundary", 0);

    std::array<std::vector<double>, 4> lists;
    const Matrix16 planeToVoxel = ToMatrixRecord(target->worldToVoxel);
    const Matrix16 voxelToWorld = ToMatrixRecord(target->voxelToWorld);
    const auto draw = [&](int value, uint32_t colour, int list) {
        DrawIsoContourLines(*target->volume, planeToVoxel, voxelToWorld, *settings.image, plane, bufferIndex,
                            static_cast<uint16_t>(value), colour,
                            settings.getBoundaryLines ? &lists[list] : nullptr);
    };
    if (HasAlpha(outer)) draw(density0, outer, 0);
    if (HasAlpha(inner)) {
        draw(density1, inner, 1);
        if (HasAlpha(outer) && HasAlpha(iso)) draw((density0 + density1) / 2, kOpaqueMagenta, 2);
    }
    if (HasAlpha(iso) && isoValue != density0 && isoValue != density1) draw(isoValue, iso, 3);

    for (int k = 0; k < 4; ++k)
        if (!lists[k].empty()) p["_vlist_DOUBLE_IsoLines" + std::to_string(k)] = lists[k];
}

void ComposeFinalImage(const zrobjects::ModuleRequest& request, const VolumeRenderSettings& settings,
                       const RenderTargets& targets, const SectionGeometry& geometry,
                       const DispatchOutcome& outcome) {
    zrobjects::ZrIObject& image = *settings.image;
    const int width = targets.width, height = targets.height;
    const size_t bytes = static_cast<size_t>(width) * height * 4;
    auto* final = static_cast<uint32_t*>(image.GetFrameBuffer(1, 0)->pixels);
    const auto* earlier = static_cast<const uint32_t*>(image.GetFrameBuffer(1, 1)->pixels);
    const auto* target = static_cast<const uint32_t*>(image.GetFrameBuffer(1, targets.targetIndex)->pixels);
    const zrobjects::FrameBuffer* depth = image.GetFrameBuffer(2, 0);
    const auto* mask = depth ? static_cast<const float*>(depth->pixels) : nullptr;

    ImageUpscaleArgs up;
    if (geometry.reduced) {
        up.source = target;
        up.destination = final;
        if (settings.storeSampleValues) {
            const zrobjects::FrameBuffer* reducedValues = image.GetFrameBuffer(3, 1);
            const zrobjects::FrameBuffer* values = image.GetFrameBuffer(3, 0);
            if (reducedValues && values) {
                up.sourceValues = static_cast<const uint16_t*>(reducedValues->pixels);
                up.destinationValues = static_cast<uint16_t*>(values->pixels);
            }
        }
        up.pitch = width;
        up.x0 = geometry.fast.x0;
        up.x1 = geometry.fast.x1;
        up.rowOffset = geometry.fast.y0;
        up.rowCount = geometry.fast.rows;
        up.sx = 1.0f / geometry.fast.stepX;
        up.sy = 1.0f / geometry.fast.stepY;
        up.mask = mask;
    }

    if (!targets.blending) {
        if (!geometry.reduced) {
            zrcommon::ParallelWriteBytes({{final, target, bytes}});
        } else {
            // The final buffer is cleared and enlarged into in one pass.
            up.clearRows = height;
            UpscaleImage(up);
        }
    } else {
        const float weight = static_cast<float>(ReadParam<double>(request.params, "_double_BlendingWeight", 0.7));
        if (!geometry.reduced) {
            LayerMergeArgs merge;
            merge.voxelPitchMin = outcome.voxelPitchMin;
            merge.planeThickness = settings.planeThickness;
            merge.width = width;
            merge.height = height;
            merge.weight = weight;
            merge.earlier = earlier;
            merge.target = target;
            merge.depthMask = mask;
            merge.output = final;
            MergeLayers(merge);
        } else {
            zrcommon::ParallelWriteBytes({{final, earlier, bytes}});
            up.weight = weight;
            UpscaleAndMergeImage(up);
        }
    }
    image.SetDescriptor(kVolumeRendererDescriptor);
}

}  // namespace zrvolume
