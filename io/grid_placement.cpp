#include "grid_placement.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "input_error.h"

namespace zrio {

glm::dmat4 RasToLps(const glm::dmat4& voxelToRas) {
    glm::dmat4 m = voxelToRas;
    for (int column = 0; column < 4; ++column) {
        m[column][0] = -m[column][0];
        m[column][1] = -m[column][1];
    }
    return m;
}

zrobjects::VolumeGeometry GeometryFromMatrix(const glm::dmat4& voxelToLps, const std::string& path,
                                             std::vector<std::string>& notes) {
    for (int column = 0; column < 4; ++column)
        for (int row = 0; row < 3; ++row)
            if (!std::isfinite(voxelToLps[column][row]))
                throw InputError(path, "voxel-to-world matrix holds a value that is not a number");
    zrobjects::VolumeGeometry geometry;
    glm::dvec3 axes[3];
    for (int axis = 0; axis < 3; ++axis) {
        axes[axis] = glm::dvec3(voxelToLps[axis]);
        geometry.spacing[axis] = glm::length(axes[axis]);
        if (!(geometry.spacing[axis] > 0.0))
            throw InputError(path, "voxel-to-world matrix gives axis " + std::to_string(axis) +
                                       " no length: the grid has no place in the world");
        geometry.direction[axis] = axes[axis] / geometry.spacing[axis];
    }
    geometry.origin = glm::dvec3(voxelToLps[3]);
    // Singular relative to the axes' own lengths, so that a grid of tiny voxels
    // is not mistaken for a flat one.
    const double volume = std::abs(glm::determinant(geometry.direction));
    if (volume < 1e-6)
        throw InputError(path, "voxel-to-world matrix is singular: its axes lie in one plane");
    const double tolerance = 1e-4;  // about 0.006 degrees; float headers round to 1e-7
    double worst = 0.0;
    for (int a = 0; a < 3; ++a)
        for (int b = a + 1; b < 3; ++b)
            worst = std::max(worst, std::abs(glm::dot(geometry.direction[a], geometry.direction[b])));
    if (worst > tolerance) {
        auto angle = [&](int a, int b) {
            return std::acos(std::clamp(glm::dot(geometry.direction[a], geometry.direction[b]), -1.0, 1.0)) * 180.0 /
                   3.14159265358979323846;
        };
        char text[200];
        std::snprintf(text, sizeof(text),
                      "sheared grid: the voxel axes meet at %.2f, %.2f and %.2f degrees (i-j, i-k, j-k); placed "
                      "exactly by its matrix, without resampling",
                      angle(0, 1), angle(0, 2), angle(1, 2));
        notes.push_back(text);
    }
    return geometry;
}

double LargestCornerDistance(const glm::dmat4& a, const glm::dmat4& b, const glm::ivec3& dims) {
    double largest = 0.0;
    for (int corner = 0; corner < 8; ++corner) {
        const glm::dvec4 voxel((corner & 1) ? dims.x - 1 : 0, (corner & 2) ? dims.y - 1 : 0,
                               (corner & 4) ? dims.z - 1 : 0, 1.0);
        largest = std::max(largest, glm::length(glm::dvec3(a * voxel) - glm::dvec3(b * voxel)));
    }
    return largest;
}

}  // namespace zrio
