#include "point_set_drawing.h"

#include <algorithm>
#include <cmath>

#include "common/matrix_record.h"
#include "mesh/line_drawing.h"

namespace zrmesh {

using zrcommon::Matrix16;
using zrcommon::ToMatrixRecord;
using zrcommon::TransformPoint;

float PointDiscRadius(float sphereRadius, float zoominRadius, const glm::mat4& screenToWorld) {
    const float millimetresPerPixel = glm::length(glm::vec3(screenToWorld[0]));
    const float projected = sphereRadius / millimetresPerPixel;
    const float radius = std::max(projected, zoominRadius);
    // Negative or not-a-number radii draw the centre pixel only.
    return radius >= 0.0f ? radius : 0.0f;
}

namespace {

void FillDisc(const glm::vec3& centre, float radius, uint32_t colour, uint32_t* target, int width, int height) {
    if (!std::isfinite(centre.x) || !std::isfinite(centre.y)) return;
    // Bounds in double so that centres far outside the image cannot overflow.
    const double x0 = std::max(0.0, std::ceil(double(centre.x) - radius));
    const double x1 = std::min(double(width - 1), std::floor(double(centre.x) + radius));
    const double y0 = std::max(0.0, std::ceil(double(centre.y) - radius));
    const double y1 = std::min(double(height - 1), std::floor(double(centre.y) + radius));
    if (!(x0 <= x1) || !(y0 <= y1)) return;
    const float radiusSquared = radius * radius;
    for (int y = static_cast<int>(y0); y <= static_cast<int>(y1); ++y) {
        const float dy = static_cast<float>(y) - centre.y;
        uint32_t* row = target + static_cast<size_t>(y) * width;
        for (int x = static_cast<int>(x0); x <= static_cast<int>(x1); ++x) {
            const float dx = static_cast<float>(x) - centre.x;
            if (dx * dx + dy * dy <= radiusSquared) row[x] = colour;
        }
    }
}

}  // namespace

void DrawPointSet(const zrobjects::PrimitiveData& data, float sphereRadius, float zoominRadius,
                  const glm::mat4& objectToScreen, uint32_t* target, int width, int height, uint32_t colour,
                  const glm::mat4& screenToWorld) {
    const zrobjects::VertexAttribute* positions = data.FindAttribute("POSITION");
    if (!positions || width <= 0 || height <= 0) return;
    const zrobjects::VertexAttribute* normals = data.FindAttribute("NORMAL");
    const float pixelsPerUnit = glm::length(glm::vec3(objectToScreen[0]));
    const bool drawNormals = normals && sphereRadius * 0.333f > pixelsPerUnit;

    const float radius = PointDiscRadius(sphereRadius, zoominRadius, screenToWorld);
    const float normalLength = 2.0f * radius / pixelsPerUnit;
    const Matrix16 toScreen = ToMatrixRecord(objectToScreen);
    const float* position = positions->values.data();
    const float* normal = drawNormals ? normals->values.data() : nullptr;
    const int64_t count = static_cast<int64_t>(positions->values.size() / 3);
    const int64_t normalCount = drawNormals ? static_cast<int64_t>(normals->values.size() / 3) : 0;
    const MeshClipState noClip;

#pragma omp parallel for schedule(dynamic, 1)
    for (int64_t v = 0; v < count; ++v) {
        const glm::vec3 p(position[3 * v], position[3 * v + 1], position[3 * v + 2]);
        const glm::vec3 centre = TransformPoint(toScreen, p);
        FillDisc(centre, radius, colour, target, width, height);
        if (!normal || v >= normalCount) continue;
        const glm::vec3 n(normal[3 * v], normal[3 * v + 1], normal[3 * v + 2]);
        const float nLength = glm::length(n);
        if (!(nLength > 0.0f)) continue;
        const glm::vec3 tip = TransformPoint(toScreen, p + n * (normalLength / nLength));
        const float dx = tip.x - centre.x, dy = tip.y - centre.y;
        if (std::sqrt(dx * dx + dy * dy) > 0.5f)
            DrawSegment(centre, tip, colour, target, width, height, 1, colour, noClip);
    }
}

}  // namespace zrmesh
