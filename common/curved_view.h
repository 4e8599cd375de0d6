// How a curved reformation lies on the camera's image plane, shared by the
// curved volume kernels and the curved mesh cut so that their pictures agree.
//
// The unrolled curve is a rectangle of ExPlaneWidth x ExPlaneHeight
// millimetres ("curve space": x along the curve from 0 at the first sample to
// the width at the last, y the lateral offset from 0 at the bottom edge to the
// height at the top edge), centred on the world origin as seen along the view,
// with x along the image's rows and y towards its top. The camera then pans and
// zooms over it as over a flat section: a camera at the origin whose view
// extent is the plane width and height shows the whole curve.
//
// The set-up: a centring matrix (identity with translation -w/2, -h/2 and
// -w/(2n), w and h the plane width and height, n the sample count; the third
// only moves the depth, which nothing reads) times the plane matrix (the
// image's row direction, its upward direction and their cross product as axes
// through the world origin), inverted, maps the image-plane corners into curve
// space. Curve x becomes a curve position in sample units, x (n - 1) / w.
#pragma once

#include <glm/glm.hpp>

namespace zrcommon {

struct CurvedView {
    // Curve positions (sample units) of the first and the last column.
    float firstColumnPosition = 0.0f;
    float lastColumnPosition = 0.0f;
    // Lateral coordinates (millimetres from the bottom edge) of the top and the
    // bottom row of the first and of the last column.
    float firstColumnTop = 0.0f;
    float firstColumnBottom = 0.0f;
    float lastColumnTop = 0.0f;
    float lastColumnBottom = 0.0f;
};

// `corners`: the image-plane corners in world millimetres (first and last pixel
// of the first row, then of the last row). A one-pixel-wide or -high image has
// no row or column direction; its positions are not numbers.
inline CurvedView MapCurvedView(const glm::vec3 corners[4], float planeWidth, float planeHeight, int sampleCount) {
    const double w = planeWidth, h = planeHeight, n = sampleCount;
    glm::dmat4 centring(1.0);
    centring[3] = glm::dvec4(-0.5 * w, -0.5 * h, -0.5 * w / n, 1.0);
    const glm::dvec3 c0(corners[0]), c1(corners[1]), c2(corners[2]);
    const glm::dvec3 along = glm::normalize(c1 - c0), up = glm::normalize(c0 - c2);
    glm::dmat4 plane(1.0);
    plane[0] = glm::dvec4(along, 0.0);
    plane[1] = glm::dvec4(up, 0.0);
    plane[2] = glm::dvec4(glm::cross(along, up), 0.0);
    const glm::dmat4 worldToCurve = glm::inverse(plane * centring);
    const auto toCurve = [&](int k) { return glm::dvec2(worldToCurve * glm::dvec4(glm::dvec3(corners[k]), 1.0)); };
    const double samplesPerMillimetre = (n - 1.0) / w;

    CurvedView view;
    view.firstColumnPosition = static_cast<float>(toCurve(0).x * samplesPerMillimetre);
    view.lastColumnPosition = static_cast<float>(toCurve(1).x * samplesPerMillimetre);
    view.firstColumnTop = static_cast<float>(toCurve(0).y);
    view.lastColumnTop = static_cast<float>(toCurve(1).y);
    view.firstColumnBottom = static_cast<float>(toCurve(2).y);
    view.lastColumnBottom = static_cast<float>(toCurve(3).y);
    return view;
}

}  // namespace zrcommon
