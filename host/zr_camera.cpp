#include "zr_camera.h"

#include <cmath>
#include <limits>
#include <stdexcept>

namespace zrobjects {

namespace {

// Half the distance between the outermost pixel centres, in pixels; a one-pixel
// axis keeps a non-zero scale so that the factors stay invertible.
double HalfSpan(int pixels) { return pixels > 1 ? 0.5 * (pixels - 1) : 0.5; }

}  // namespace

ZrCObject::ZrCObject() : ZrObject(zrenums::EzrObjectType_Camera) {}

void ZrCObject::SetOrthographic(const glm::dvec3& position, const glm::dvec3& viewDirection,
                                const glm::dvec3& up, const glm::dvec2& pixelSpacing,
                                const glm::ivec2& imageSize) {
    const double viewLength = glm::length(viewDirection);
    if (!(viewLength > 1e-12) || !std::isfinite(viewLength))
        throw std::invalid_argument("camera view direction is zero or not finite");
    const glm::dvec3 view = viewDirection / viewLength;
    const glm::dvec3 right = glm::cross(view, up);
    const double rightLength = glm::length(right);
    if (!(rightLength > 1e-9 * std::max(1.0, glm::length(up))) || !std::isfinite(rightLength))
        throw std::invalid_argument("camera up vector is zero or parallel to the view direction");
    if (!(pixelSpacing.x > 0.0) || !(pixelSpacing.y > 0.0) || !std::isfinite(pixelSpacing.x) ||
        !std::isfinite(pixelSpacing.y))
        throw std::invalid_argument("camera pixel spacing must be positive");
    if (imageSize.x <= 0 || imageSize.y <= 0)
        throw std::invalid_argument("camera image size must be positive");
    if (!std::isfinite(position.x) || !std::isfinite(position.y) || !std::isfinite(position.z))
        throw std::invalid_argument("camera position is not finite");

    position_ = position;
    view_ = view;
    right_ = right / rightLength;
    down_ = glm::cross(view_, right_);  // right x down = view: x right, y down, z into the screen
    spacing_ = pixelSpacing;
    size_ = imageSize;
    defined_ = true;
}

void ZrCObject::GetMatrixWStoSS(glm::dmat4& view, glm::dmat4& projection, glm::dmat4& viewport) const {
    // View: rows are the camera axes, so camera = axes . (world - position).
    view = glm::dmat4(1.0);
    for (int c = 0; c < 3; ++c) {
        view[c][0] = right_[c];
        view[c][1] = down_[c];
        view[c][2] = view_[c];
    }
    view[3][0] = -glm::dot(right_, position_);
    view[3][1] = -glm::dot(down_, position_);
    view[3][2] = -glm::dot(view_, position_);

    const double halfX = HalfSpan(size_.x), halfY = HalfSpan(size_.y);
    projection = glm::dmat4(1.0);
    projection[0][0] = 1.0 / (halfX * spacing_.x);
    projection[1][1] = 1.0 / (halfY * spacing_.y);

    viewport = glm::dmat4(1.0);
    viewport[0][0] = halfX;
    viewport[1][1] = halfY;
    viewport[3][0] = 0.5 * (size_.x - 1);
    viewport[3][1] = 0.5 * (size_.y - 1);
}

void ZrCObject::GetMatrixSStoWS(glm::dmat4& viewportInverse, glm::dmat4& projectionInverse,
                                glm::dmat4& viewInverse) const {
    glm::dmat4 view, projection, viewport;
    GetMatrixWStoSS(view, projection, viewport);
    viewportInverse = glm::inverse(viewport);
    projectionInverse = glm::inverse(projection);
    // The view is a rigid motion: its inverse is exact as transpose and back-translation.
    viewInverse = glm::dmat4(1.0);
    for (int c = 0; c < 3; ++c) {
        viewInverse[0][c] = right_[c];
        viewInverse[1][c] = down_[c];
        viewInverse[2][c] = view_[c];
        viewInverse[3][c] = position_[c];
    }
}

void ZrCObject::GetImagePlaneRectPointsf(zrenums::EzrCoordSpace space, glm::vec3& corner0,
                                         glm::vec3& corner1, glm::vec3& corner2,
                                         glm::vec3& corner3) const {
    const double lastX = size_.x - 1, lastY = size_.y - 1;
    const glm::dvec2 pixels[4] = {{0.0, 0.0}, {lastX, 0.0}, {0.0, lastY}, {lastX, lastY}};
    glm::vec3* out[4] = {&corner0, &corner1, &corner2, &corner3};
    for (int k = 0; k < 4; ++k) {
        if (space == zrenums::EzrCoordSpace_Screen) {
            *out[k] = glm::vec3(static_cast<float>(pixels[k].x), static_cast<float>(pixels[k].y), 0.0f);
            continue;
        }
        const glm::dvec3 world = position_ + (pixels[k].x - 0.5 * lastX) * spacing_.x * right_ +
                                 (pixels[k].y - 0.5 * lastY) * spacing_.y * down_;
        *out[k] = glm::vec3(world);
    }
}

void ZrCObject::GetCameraExtStatef(glm::vec3& position, glm::vec3& viewDirection, glm::vec3& up) const {
    position = glm::vec3(position_);
    viewDirection = glm::vec3(view_);
    up = glm::vec3(-down_);
}

void ZrCObject::GetCameraIntState(glm::dvec2& pixelSpacing, double& nearDistance, double& farDistance,
                                  glm::ivec2& imageSize, glm::dvec2& viewExtent,
                                  double& fieldOfViewY) const {
    pixelSpacing = spacing_;
    nearDistance = -std::numeric_limits<double>::infinity();
    farDistance = std::numeric_limits<double>::infinity();
    imageSize = size_;
    viewExtent = glm::dvec2((size_.x - 1) * spacing_.x, (size_.y - 1) * spacing_.y);
    fieldOfViewY = 0.0;
}

glm::dmat4 ComposeApplied(const glm::dmat4& first, const glm::dmat4& second, const glm::dmat4& third) {
    return third * second * first;
}

}  // namespace zrobjects
