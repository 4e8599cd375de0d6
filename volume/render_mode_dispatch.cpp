#include "render_mode_dispatch.h"

#include <algorithm>
#include <cstdio>

#include "common/param_reads.h"
#include "volume/kernels/curved_reformation.h"
#include "volume/kernels/float_grey_slice.h"
#include "volume/kernels/label_overlay.h"
#include "volume/kernels/masked_otf_slice.h"
#include "volume/kernels/otf_slice.h"
#include "volume/kernels/slab_projection.h"
#include "volume/kernels/thickness_bands.h"
#include "volume/kernels/voxel_type.h"

namespace zrvolume {

using zrcommon::Matrix16;
using zrcommon::ReadList;
using zrcommon::ReadParam;
using zrcommon::SliceClipState;
using zrcommon::ToMatrixRecord;

namespace {

// What every kernel call of one volume shares.
struct VolumeDraw {
    const VolumeRenderSettings& settings;
    const RenderTargets& targets;
    const SectionGeometry& geometry;
    const SelectedVolume& selected;
    int valueIndex;
    Matrix16 planeToVoxel;
    SliceClipState clip;
    zrobjects::ZrObject* colourTable = nullptr;
    zrobjects::ZrVObjectVolume* maskVolume = nullptr;
    bool multiOtf = false;
    int numOtfs = 1;
    glm::vec4 phong{0.2f, 1.0f, 0.5f, 5.0f};
    float voxelPitchMin = 0.0f;
};

glm::vec3 ViewDirection(zrobjects::ZrIObject& image) {
    glm::vec3 position, direction, up;
    image.GetCameraObject()->GetCameraExtStatef(position, direction, up);
    return direction;
}

void DrawCurved(const VolumeDraw& d, int mode) {
    const VolumeRenderSettings& s = d.settings;
    CurvedReformationArgs args;
    args.volume = d.selected.volume;
    args.tableOwner = d.colourTable;
    args.image = s.image;
    args.colourIndex = d.targets.targetIndex;
    args.valueIndex = d.valueIndex;
    args.width = d.geometry.plane.width;
    args.height = d.geometry.plane.height;
    std::copy(std::begin(d.geometry.plane.corners), std::end(d.geometry.plane.corners), args.planeCorners);
    args.curveCount = s.CurveSampleCount();
    if (args.curveCount > 0) {
        args.curvePoints = s.curvePoints->data();
        args.upVectors = s.curveUpVectors->data();
        args.tangents = s.curveTangents->data();
    }
    args.worldToVoxel = d.planeToVoxel;
    args.planeWidth = s.exPlaneWidth;
    args.planeHeight = s.exPlaneHeight;
    args.halfThickness = s.CurveHalfThickness();
    args.rightSide = s.isRightSide;
    args.projectionCode = mode;
    args.thickness = s.planeThickness;
    args.layerStep = d.voxelPitchMin;
    args.phongCoeffs = d.phong;
    args.gradientMagnitude = mode == 1;
    args.viewDirection = ViewDirection(*s.image);
    args.clip = d.clip;
    RenderCurvedReformation(args);
}

void DrawFlat(const VolumeDraw& d, int mode) {
    const VolumeRenderSettings& s = d.settings;
    const int target = d.targets.targetIndex;
    if (d.multiOtf) {
        RenderMaskedOtfSlice(*d.selected.volume, d.planeToVoxel, *d.maskVolume, *s.image, d.geometry.plane, d.clip,
                             target, d.valueIndex, d.numOtfs, *d.colourTable);
    } else if (s.planeThickness <= d.voxelPitchMin) {
        RenderOtfSlice(*d.selected.volume, d.planeToVoxel, *s.image, d.geometry.plane, d.clip, target, d.valueIndex,
                       *d.colourTable);
    } else {
        SlabProjectionArgs args;
        args.volume = d.selected.volume;
        args.tableOwner = d.colourTable;
        args.image = s.image;
        args.colourIndex = target;
        args.valueIndex = d.valueIndex;
        args.width = d.geometry.plane.width;
        args.height = d.geometry.plane.height;
        args.geometry = MakeSlabGeometry(d.geometry.plane, d.planeToVoxel, ViewDirection(*s.image),
                                         s.planeThickness, d.voxelPitchMin);
        args.clip = d.clip;
        args.projectionCode = mode;
        args.phongCoeffs = d.phong;
        args.gradientMagnitude = mode == 1;
        RenderSlabProjection(args);
    }
}

void DrawSliceOrSlab(const VolumeDraw& d, int mode) {
    if (d.settings.isNonlinear)
        DrawCurved(d, mode);
    else
        DrawFlat(d, mode);
}

// A float volume is shown as grey levels through the entry's window, or through
// its value curve when no window is given; with neither nothing is drawn.
void DrawFloatVolume(const VolumeDraw& d) {
    const auto& p = d.selected.entry->params;
    const int target = d.targets.targetIndex;
    if (p.count("_double_WindowingCenter") && p.count("_double_WindowingWidth")) {
        const double centre = ReadParam<double>(p, "_double_WindowingCenter", 0.0);
        const double width = ReadParam<double>(p, "_double_WindowingWidth", 0.0);
        RenderFloatGreySlice(*d.selected.volume, d.planeToVoxel, *d.settings.image, d.geometry.plane, nullptr, target,
                             nullptr, static_cast<float>(centre), static_cast<float>(width));
    } else if (const auto* curve = ReadList<std::vector<glm::dvec2>>(p, "_vlist_DOUBLE2_ITF")) {
        RenderFloatGreySlice(*d.selected.volume, d.planeToVoxel, *d.settings.image, d.geometry.plane, nullptr, target,
                             curve, 0.0f, 0.0f);
    }
}

void DrawThicknessBands(const VolumeDraw& d) {
    const auto& p = d.selected.entry->params;
    ThicknessBandArgs args;
    args.volume = d.selected.volume;
    args.planeToVoxel = d.planeToVoxel;
    args.image = d.settings.image;
    args.plane = d.geometry.plane;
    args.clip = d.clip;
    args.colourIndex = d.targets.targetIndex;
    args.valueIndex = d.valueIndex;
    args.tableOwner = d.colourTable;
    // Rounded by adding 0.5 and truncating.
    args.insideThickness = static_cast<int>(ReadParam<double>(p, "_double_ThicknessInside", 0.0) + 0.5);
    args.outsideThickness = static_cast<int>(ReadParam<double>(p, "_double_ThicknessOutside", 0.0) + 0.5);
    RenderThicknessBands(args);
}

}  // namespace

DispatchOutcome DrawSelectedVolumes(const VolumeRenderSettings& settings, const RenderTargets& targets,
                                    const SectionGeometry& geometry, const std::vector<SelectedVolume>& volumes) {
    DispatchOutcome outcome;
    int currentMode = settings.renderMode;
    for (const SelectedVolume& selected : volumes) {
        zrobjects::ZrVObjectVolume& volume = *selected.volume;
        const zrobjects::VolumeData& data = *volume.GetVolumeData();
        const float pitchMin =
            static_cast<float>(std::min({data.voxelPitch.x, data.voxelPitch.y, data.voxelPitch.z}));
        outcome.voxelPitchMin = std::min(outcome.voxelPitchMin, pitchMin);
        // A plane thinner than a voxel is a plain slice whatever was asked, and
        // the forced mode carries over to every later volume of the request.
        const bool thick = pitchMin < settings.planeThickness;
        const int mode = thick ? currentMode : 0;
        currentMode = mode;

        const auto& entryParams = selected.entry->params;
        ReadParam<bool>(entryParams, "_bool_ApplyColor", false);
        glm::vec4 phong = ReadParam<glm::vec4>(entryParams, "_float4_PhongCoeffs", glm::vec4(0.2f, 1.0f, 0.5f, 5.0f));

        zrobjects::ZrObject* windowing = volume.GetTableObject("WINDOWING");
        if (!windowing) {
            std::printf("No Windowing Tables for Volume (%d)\n", volume.GetObjectID());
            std::fflush(stdout);
            continue;
        }

        VolumeDraw d{settings, targets, geometry, selected, SampleBufferIndex(settings, geometry.reduced),
                     ToMatrixRecord(selected.worldToVoxel), {}, windowing};
        zrobjects::ZrObject* otf = volume.GetTableObject("OTF");
        if (thick && (mode == 0 || mode == 1) && otf) d.colourTable = otf;
        d.maskVolume = dynamic_cast<zrobjects::ZrVObjectVolume*>(volume.GetTableObject("MASKVOLUME"));
        if (d.maskVolume) {
            d.multiOtf = ReadParam<bool>(entryParams, "_bool_MultiOTF", false);
            d.numOtfs = ReadParam<int>(entryParams, "_int_NumOTFs", 1);
        }
        d.phong = mode == 1 ? glm::vec4(0.7f, 0.7f, 0.0f, 1.0f) : phong;
        d.voxelPitchMin = pitchMin;
        d.clip = BuildClipState(selected);

        if (ClassifyVoxelType(data.voxelType) == VoxelKind::Float32) {
            DrawFloatVolume(d);
            continue;
        }
        switch (mode) {
            case 0:
            case 1:
            case 10:
            case 11:
            case 12:
                DrawSliceOrSlab(d, mode);
                break;
            case 101:
                if (settings.isNonlinear) {
                    std::printf("NOT YET SUPPORT!! 0 __RM_MPR_MAINWITHSUBCOLORVOLUME");
                    std::fflush(stdout);
                    DrawCurved(d, 0);
                } else {
                    RenderLabelOverlaySlice(volume, d.planeToVoxel, *settings.image, geometry.plane, d.clip,
                                            targets.targetIndex, *d.colourTable);
                    DrawFlat(d, mode);
                }
                break;
            case 120:
                DrawThicknessBands(d);
                break;
            default:
                break;  // every other mode draws nothing, on purpose and silently
        }
    }
    return outcome;
}

}  // namespace zrvolume
