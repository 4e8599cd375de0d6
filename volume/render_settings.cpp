#include "render_settings.h"

#include "common/param_reads.h"

namespace zrvolume {

using zrcommon::ReadList;
using zrcommon::ReadObjParam;
using zrcommon::ReadParam;
using zrcommon::ReadPointer;

VolumeRenderSettings ReadVolumeRenderSettings(const zrobjects::ModuleRequest& request) {
    const auto& p = request.params;
    VolumeRenderSettings s;
    s.image = ReadPointer<zrobjects::ZrIObject*>(p, "_ZrIObject*_RenderOut");
    s.skipSrOnPlaneRenderer = ReadObjParam<bool>(*s.image, "_bool_SkipSrOnPlaneRenderer", false);
    s.skipMeshCuttingRenderer = ReadObjParam<bool>(*s.image, "_bool_SkipMeshCuttingRenderer", false);
    s.isFirstRenderer = ReadParam<bool>(p, "_bool_IsFirstRenderer", false);
    s.isFinalRenderer = ReadParam<bool>(p, "_bool_IsFinalRenderer", false);
    // Read so that a mistyped value is reported like any other; this path has
    // no use for them.
    ReadParam<bool>(p, "_bool_GetCrossLines", false);
    ReadParam<bool>(p, "_bool_ApplyAntialiasing", false);
    ReadParam<bool>(p, "_bool_IsRGBA", false);
    s.storeSampleValues = ReadParam<bool>(p, "_bool_StoreSampleValueToCustomBuffer", false);
    s.isNonlinear = ReadParam<bool>(p, "_bool_IsNonlinear", false);
    if (s.isNonlinear) {
        s.exPlaneWidth = ReadParam<float>(p, "_float_ExPlaneWidth", 1.0f);
        s.exPlaneHeight = ReadParam<float>(p, "_float_ExPlaneHeight", 1.0f);
        s.curveThicknessPositionRange = ReadParam<float>(p, "_float_CurveThicknessPositionRange", 1.0f);
        s.thicknessRatio = ReadParam<float>(p, "_float_ThicknessRatio", 0.0f);
        s.isRightSide = ReadParam<bool>(p, "_bool_IsRightSide", false);
    }
    ReadParam<bool>(p, "_bool_ValidateMaskVolume", false);
    s.planeThickness = ReadParam<float>(p, "_float_PlaneThickness", 0.0f);
    s.samplingMode = ReadParam<std::string>(p, "_string_SamplingMode", "TRILINEAR");
    ReadParam<bool>(p, "_bool_ForceToSkipResampling", false);
    s.drawIsoBoundary = ReadParam<bool>(p, "_bool_DrawIsoBoundary", false);
    s.getBoundaryLines = ReadParam<bool>(p, "_bool_GetBoundaryLines", false);
    s.fastQualityMode = ReadParam<bool>(p, "_bool_IsFastQualityMode", false);
    s.renderMode = ReadParam<int>(p, "_int_VolumeRayCastType", 0);
    if (s.fastQualityMode) s.lengthFastModeMax = ReadParam<int>(p, "_int_LengthFastModeMax", 300);
    if (s.isNonlinear) {
        s.curvePoints = ReadList<std::vector<glm::vec3>>(p, "_vlist_FLOAT3_CurveInterpolations");
        s.curveUpVectors = ReadList<std::vector<glm::vec3>>(p, "_vlist_FLOAT3_CurveUpVectors");
        s.curveTangents = ReadList<std::vector<glm::vec3>>(p, "_vlist_FLOAT3_CurveTangentVectors");
    }
    return s;
}

}  // namespace zrvolume
