// The request keys of the sectional volume path, read once in a fixed order at
// the start of a request.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include <glm/glm.hpp>

#include "host/plugin_interface.h"
#include "host/zr_image.h"

namespace zrvolume {

struct VolumeRenderSettings {
    zrobjects::ZrIObject* image = nullptr;
    bool skipSrOnPlaneRenderer = false;   // image's own parameter
    bool skipMeshCuttingRenderer = false; // image's own parameter
    bool isFirstRenderer = false;
    bool isFinalRenderer = false;
    bool storeSampleValues = false;
    bool isNonlinear = false;
    float exPlaneWidth = 1.0f;
    float exPlaneHeight = 1.0f;
    float curveThicknessPositionRange = 1.0f;
    float thicknessRatio = 0.0f;
    bool isRightSide = false;
    float planeThickness = 0.0f;
    std::string samplingMode = "TRILINEAR";  // kept for the request; no kernel takes it
    bool drawIsoBoundary = false;
    bool getBoundaryLines = false;
    bool fastQualityMode = false;
    int renderMode = 0;
    int lengthFastModeMax = 300;
    // Curved plane inputs (null when absent or when the plane is flat).
    const std::vector<glm::vec3>* curvePoints = nullptr;
    const std::vector<glm::vec3>* curveUpVectors = nullptr;
    const std::vector<glm::vec3>* curveTangents = nullptr;

    // Half the curved plane's thickness: ratio x range x 0.5.
    float CurveHalfThickness() const { return thicknessRatio * curveThicknessPositionRange * 0.5f; }
    // Curve samples: the shortest of the three lists, none when one is absent.
    int CurveSampleCount() const {
        if (!curvePoints || !curveUpVectors || !curveTangents) return 0;
        return static_cast<int>(std::min({curvePoints->size(), curveUpVectors->size(), curveTangents->size()}));
    }
};

// Reads the keys; a value of the wrong type throws std::bad_any_cast. The
// target image "_ZrIObject*_RenderOut" must be present.
VolumeRenderSettings ReadVolumeRenderSettings(const zrobjects::ModuleRequest& request);

}  // namespace zrvolume
