// The camera of an image object. Sectional views use an orthographic camera whose
// image plane passes through the camera position, perpendicular to the view
// direction. Screen space is in pixels, x to the right, y downwards, pixel centres
// at integers; screen z is the signed distance in millimetres along the view
// direction from the image plane.
//
// World-to-screen is handed out as three factors applied in order: view (world to
// camera millimetres), projection (camera millimetres to normalised [-1, 1] between
// the outermost pixel centres), viewport (normalised to pixels). The four
// image-plane corners therefore land exactly on the pixel centres (0, 0),
// (W-1, 0), (0, H-1) and (W-1, H-1).
#pragma once

#include <glm/glm.hpp>

#include "zr_object.h"

namespace zrobjects {

class ZrCObject : public ZrObject {
public:
    ZrCObject();

    // Orthographic camera centred on `position`, looking along `viewDirection`
    // with `up` pointing to the top of the image, `pixelSpacing` millimetres
    // between pixel centres (x, y) and `imageSize` pixels. Throws
    // std::invalid_argument for a zero direction, an up vector parallel to the
    // view, a non-positive spacing or size.
    void SetOrthographic(const glm::dvec3& position, const glm::dvec3& viewDirection,
                         const glm::dvec3& up, const glm::dvec2& pixelSpacing,
                         const glm::ivec2& imageSize);

    bool IsDefined() const override { return defined_; }

    void GetMatrixWStoSS(glm::dmat4& view, glm::dmat4& projection, glm::dmat4& viewport) const;
    void GetMatrixSStoWS(glm::dmat4& viewportInverse, glm::dmat4& projectionInverse,
                         glm::dmat4& viewInverse) const;

    // The four image-plane corners: first pixel of the first row, last pixel of
    // the first row, first pixel of the last row, last pixel of the last row.
    void GetImagePlaneRectPointsf(zrenums::EzrCoordSpace space, glm::vec3& corner0,
                                  glm::vec3& corner1, glm::vec3& corner2,
                                  glm::vec3& corner3) const;

    // Position, unit view direction and unit up vector (orthogonal to the view).
    void GetCameraExtStatef(glm::vec3& position, glm::vec3& viewDirection, glm::vec3& up) const;

    // Pixel spacing (mm), near and far distance of the view volume (mm, from the
    // plane; unbounded for sectional views), image size (pixels), view extent
    // between the outermost pixel centres (mm), vertical field of view in degrees
    // (0 for an orthographic camera).
    void GetCameraIntState(glm::dvec2& pixelSpacing, double& nearDistance, double& farDistance,
                           glm::ivec2& imageSize, glm::dvec2& viewExtent, double& fieldOfViewY) const;

    glm::dvec3 RightAxis() const { return right_; }
    glm::dvec3 DownAxis() const { return down_; }

private:
    bool defined_ = false;
    glm::dvec3 position_{0.0};
    glm::dvec3 view_{0.0, 0.0, 1.0};
    glm::dvec3 right_{1.0, 0.0, 0.0};
    glm::dvec3 down_{0.0, 1.0, 0.0};
    glm::dvec2 spacing_{1.0};
    glm::ivec2 size_{1};
};

// The whole transform of three factors applied first, second, third.
glm::dmat4 ComposeApplied(const glm::dmat4& first, const glm::dmat4& second, const glm::dmat4& third);

}  // namespace zrobjects
