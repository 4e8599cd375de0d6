#include "section_geometry.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "common/curved_view.h"
#include "host/zr_camera.h"

namespace zrvolume {

namespace {

glm::vec3 ScreenToWorldPoint(const glm::dmat4& screenToWorld, double x, double y) {
    const glm::dvec4 p = screenToWorld * glm::dvec4(x, y, 0.0, 1.0);
    return glm::vec3(glm::dvec3(p) / p.w);
}

// Screen extent covered by the volumes' boxes on the flat camera plane.
void VolumeBoxExtent(const SectionGeometry& geometry, const std::vector<SelectedVolume>& volumes,
                     glm::dvec2& minimum, glm::dvec2& maximum) {
    for (const SelectedVolume& s : volumes) {
        zrobjects::AaBbMinMax box;
        s.volume->GetOrthoBoundingBox(box);
        const glm::dmat4 voxelToScreen = geometry.worldToScreen * glm::dmat4(s.voxelToWorld);
        for (int corner = 0; corner < 8; ++corner) {
            const glm::dvec3 p((corner & 1) ? box.pos_max.x : box.pos_min.x,
                               (corner & 2) ? box.pos_max.y : box.pos_min.y,
                               (corner & 4) ? box.pos_max.z : box.pos_min.z);
            const glm::dvec4 q = voxelToScreen * glm::dvec4(p, 1.0);
            const glm::dvec2 screen = glm::dvec2(q) / q.w;
            minimum = glm::min(minimum, screen);
            maximum = glm::max(maximum, screen);
        }
    }
}

// Screen extent of a curved view's own columns and rows: the columns whose
// curve position lies on the centre line (0 .. N - 1) and the rows whose
// lateral coordinate lies within the plane height. The image plane is a
// rectangle, so the first column's lateral range holds for every column.
void CurvedViewExtent(const SectionGeometry& geometry, const VolumeRenderSettings& settings, int width,
                      int height, glm::dvec2& minimum, glm::dvec2& maximum) {
    const int samples = settings.CurveSampleCount();
    const zrcommon::CurvedView view = zrcommon::MapCurvedView(geometry.view.corners, settings.exPlaneWidth,
                                                              settings.exPlaneHeight, samples);
    const double columnsPerSample =
        (width - 1) / (double(view.lastColumnPosition) - double(view.firstColumnPosition));
    const double rowsPerMillimetre =
        (height - 1) / (double(view.firstColumnBottom) - double(view.firstColumnTop));
    const glm::dvec2 first((0.0 - view.firstColumnPosition) * columnsPerSample,
                           (0.0 - view.firstColumnTop) * rowsPerMillimetre);
    const glm::dvec2 last((samples - 1.0 - view.firstColumnPosition) * columnsPerSample,
                          (settings.exPlaneHeight - double(view.firstColumnTop)) * rowsPerMillimetre);
    minimum = glm::min(first, last);
    maximum = glm::max(first, last);
}

// Inclusive pixel rectangle that the kernels can draw, clipped to the image:
// the volumes' boxes on a flat plane, the curved view's columns and rows on a
// curved one. False when it is empty.
bool DrawnRectangle(const SectionGeometry& geometry, const VolumeRenderSettings& settings,
                    const std::vector<SelectedVolume>& volumes, int width, int height, glm::ivec2& lo,
                    glm::ivec2& hi) {
    glm::dvec2 minimum(std::numeric_limits<double>::max()), maximum(-std::numeric_limits<double>::max());
    if (volumes.empty()) return false;
    if (settings.isNonlinear)
        CurvedViewExtent(geometry, settings, width, height, minimum, maximum);
    else
        VolumeBoxExtent(geometry, volumes, minimum, maximum);
    if (!(minimum.x <= maximum.x) || !(minimum.y <= maximum.y)) return false;
    const auto clampTo = [](double v, int last) {
        return static_cast<int>(std::clamp(v, -1.0, static_cast<double>(last) + 1.0));
    };
    lo = glm::ivec2(std::max(0, clampTo(std::floor(minimum.x), width - 1)),
                    std::max(0, clampTo(std::floor(minimum.y), height - 1)));
    hi = glm::ivec2(std::min(width - 1, clampTo(std::ceil(maximum.x), width - 1)),
                    std::min(height - 1, clampTo(std::ceil(maximum.y), height - 1)));
    return lo.x <= hi.x && lo.y <= hi.y;
}

// Tries to lay out the reduced image; false when fast mode would not pay.
bool LayOutFastMode(SectionGeometry& geometry, const VolumeRenderSettings& settings,
                    const std::vector<SelectedVolume>& volumes, int width, int height) {
    glm::ivec2 lo, hi;
    if (!DrawnRectangle(geometry, settings, volumes, width, height, lo, hi)) return false;
    const int rectWidth = hi.x - lo.x + 1, rectHeight = hi.y - lo.y + 1;
    const int longest = std::max(rectWidth, rectHeight);
    const int limit = std::max(2, settings.lengthFastModeMax);
    if (rectWidth < 2 || rectHeight < 2 || longest <= limit) return false;

    // One isotropic reduction bounds the longer side by the limit; each axis
    // then spans its rectangle with a whole number of reduced steps.
    const double scale = double(longest - 1) / double(limit - 1);
    const int stepsX = static_cast<int>(std::ceil((rectWidth - 1) / scale));
    const int stepsY = static_cast<int>(std::ceil((rectHeight - 1) / scale));
    const int reducedWidth = stepsX + 2, reducedHeight = stepsY + 2;
    if (reducedWidth > width || reducedHeight > height) return false;

    const double stepX = double(rectWidth - 1) / stepsX, stepY = double(rectHeight - 1) / stepsY;
    SlicePlane& plane = geometry.plane;
    plane.width = reducedWidth;
    plane.height = reducedHeight;
    const double lastX = lo.x + stepX * (reducedWidth - 1), lastY = lo.y + stepY * (reducedHeight - 1);
    plane.corners[0] = ScreenToWorldPoint(geometry.screenToWorld, lo.x, lo.y);
    plane.corners[1] = ScreenToWorldPoint(geometry.screenToWorld, lastX, lo.y);
    plane.corners[2] = ScreenToWorldPoint(geometry.screenToWorld, lo.x, lastY);
    plane.corners[3] = ScreenToWorldPoint(geometry.screenToWorld, lastX, lastY);

    geometry.reduced = true;
    geometry.fast.x0 = lo.x;
    geometry.fast.x1 = hi.x + 1;
    geometry.fast.y0 = lo.y;
    geometry.fast.rows = rectHeight;
    geometry.fast.stepX = float(stepX);
    geometry.fast.stepY = float(stepY);
    return true;
}

}  // namespace

SectionGeometry BuildSectionGeometry(const VolumeRenderSettings& settings, zrobjects::ZrIObject& image,
                                     int width, int height, const std::vector<SelectedVolume>& volumes) {
    SectionGeometry geometry;
    const zrobjects::ZrCObject& camera = *image.GetCameraObject();
    glm::dmat4 a, b, c;
    camera.GetMatrixWStoSS(a, b, c);
    geometry.worldToScreen = zrobjects::ComposeApplied(a, b, c);
    camera.GetMatrixSStoWS(a, b, c);
    geometry.screenToWorld = zrobjects::ComposeApplied(a, b, c);

    SlicePlane& plane = geometry.plane;
    plane.screenToWorld = glm::mat4(geometry.screenToWorld);
    plane.width = width;
    plane.height = height;
    camera.GetImagePlaneRectPointsf(zrenums::EzrCoordSpace_World, plane.corners[0], plane.corners[1],
                                    plane.corners[2], plane.corners[3]);

    geometry.view = plane;
    // Fast mode leaves the full-quality plane as it is when it would not pay.
    if (settings.fastQualityMode) LayOutFastMode(geometry, settings, volumes, width, height);
    return geometry;
}

}  // namespace zrvolume
