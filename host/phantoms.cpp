#include "phantoms.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <span>
#include <stdexcept>
#include <string>

#include "volume_builder.h"

namespace zrobjects {

namespace {

// The head's parts as ellipsoids (centre, semi-axes), mm.
struct Ellipsoid {
    glm::dvec3 centre;
    glm::dvec3 semiAxes;

    bool Contains(const glm::dvec3& p) const {
        const glm::dvec3 q = (p - centre) / semiAxes;
        return glm::dot(q, q) <= 1.0;
    }
};

constexpr Ellipsoid kSkin{{0.0, 0.0, 0.0}, kHeadSkinSemiAxes};
constexpr Ellipsoid kSkullOuter{{0.0, 0.0, 2.0}, {69.0, 86.0, 74.0}};
constexpr Ellipsoid kSkullInner{{0.0, 0.0, 4.0}, {62.0, 79.0, 67.0}};
constexpr Ellipsoid kVentricleRight{{-12.0, 5.0, 12.0}, {6.0, 22.0, 10.0}};
constexpr Ellipsoid kVentricleLeft{{12.0, 5.0, 12.0}, {6.0, 22.0, 10.0}};
// An air-filled sinus behind the forehead, inside the skull's front wall.
constexpr Ellipsoid kSinus{{0.0, -76.0, -20.0}, {16.0, 8.0, 12.0}};
// A bony base-of-skull plate under the brain.
constexpr Ellipsoid kSkullBase{{0.0, 10.0, -48.0}, {45.0, 50.0, 8.0}};

void CheckGrid(const PhantomGrid& grid) {
    const glm::ivec3 d = grid.dims;
    if (d.x <= 0 || d.y <= 0 || d.z <= 0 || d.x > 2048 || d.y > 2048 || d.z > 2048)
        throw std::invalid_argument("phantom grid must be 1..2048 voxels per axis, got " + std::to_string(d.x) +
                                    " x " + std::to_string(d.y) + " x " + std::to_string(d.z));
    for (int axis = 0; axis < 3; ++axis)
        if (!(grid.spacing[axis] > 0.0) || !std::isfinite(grid.spacing[axis]))
            throw std::invalid_argument("phantom spacing must be positive and finite");
}

VolumeGeometry GridGeometry(const PhantomGrid& grid) {
    VolumeGeometry geometry;
    geometry.spacing = grid.spacing;
    geometry.origin = PhantomVoxelCentre(grid, glm::ivec3(0));
    return geometry;
}

template <class T, class Fn>
std::shared_ptr<ZrVObjectVolume> SampleGrid(const PhantomGrid& grid, Fn valueAt) {
    CheckGrid(grid);
    const glm::ivec3 d = grid.dims;
    std::vector<T> voxels(static_cast<size_t>(d.x) * d.y * d.z);
    size_t n = 0;
    for (int k = 0; k < d.z; ++k)
        for (int j = 0; j < d.y; ++j)
            for (int i = 0; i < d.x; ++i) voxels[n++] = valueAt(PhantomVoxelCentre(grid, {i, j, k}));
    return MakeVolume<T>(std::span<const T>(voxels), d, GridGeometry(grid));
}

glm::vec3 ToFloat(const glm::dvec3& v) { return glm::vec3(v); }

void PushVertex(MeshArrays& mesh, const glm::dvec3& position, const glm::dvec3& normal) {
    const glm::vec3 p = ToFloat(position), n = ToFloat(glm::normalize(normal));
    mesh.positions.insert(mesh.positions.end(), {p.x, p.y, p.z});
    mesh.normals.insert(mesh.normals.end(), {n.x, n.y, n.z});
}

// Triangles of a (rows + 1) x (columns + 1) vertex grid whose columns wrap
// around; rows do not wrap. Vertex (r, c) is r * (columns + 1) + c.
void PushGridTriangles(MeshArrays& mesh, int rows, int columns) {
    const uint32_t stride = static_cast<uint32_t>(columns + 1);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < columns; ++c) {
            const uint32_t a = r * stride + c, b = a + 1, e = a + stride, f = e + 1;
            mesh.indices.insert(mesh.indices.end(), {a, e, b, b, e, f});
        }
}

// Two unit axes perpendicular to `axis` and to each other.
void PerpendicularAxes(const glm::dvec3& axis, glm::dvec3& u, glm::dvec3& v) {
    const glm::dvec3 helper = std::abs(axis.x) < 0.9 ? glm::dvec3(1, 0, 0) : glm::dvec3(0, 1, 0);
    u = glm::normalize(glm::cross(axis, helper));
    v = glm::cross(axis, u);
}

void CheckSegments(int segments) {
    if (segments < 3 || segments > 4096)
        throw std::invalid_argument("mesh segment count must be 3..4096, got " + std::to_string(segments));
}

}  // namespace

uint16_t HeadPhantomValueAt(const glm::dvec3& p) {
    if (!kSkin.Contains(p)) return kHeadAir;
    if (kSinus.Contains(p)) return kHeadAir;
    if (!kSkullOuter.Contains(p)) return kHeadSoftTissue;
    if (!kSkullInner.Contains(p) || kSkullBase.Contains(p)) return kHeadBone;
    if (glm::length(p - kHeadLesionCentre) <= kHeadLesionRadius) return kHeadLesion;
    if (kVentricleLeft.Contains(p) || kVentricleRight.Contains(p)) return kHeadCsf;
    return kHeadBrain;
}

uint8_t HeadLabelAt(const glm::dvec3& p) {
    switch (HeadPhantomValueAt(p)) {
        case kHeadSoftTissue: return kLabelScalp;
        case kHeadBone: return kLabelSkull;
        case kHeadBrain: return kLabelBrain;
        case kHeadCsf: return kLabelVentricle;
        case kHeadLesion: return kLabelLesion;
        default: return kLabelNone;
    }
}

float DosePhantomValueAt(const glm::dvec3& p) {
    // A 30 mm wide Gaussian: the dose falls to half its peak about 18 mm out.
    const double r2 = glm::dot(p - kHeadLesionCentre, p - kHeadLesionCentre);
    return static_cast<float>(kDosePeak * std::exp(-r2 / (2.0 * 15.0 * 15.0)));
}

glm::dvec3 PhantomVoxelCentre(const PhantomGrid& grid, const glm::ivec3& voxel) {
    return (glm::dvec3(voxel) - 0.5 * glm::dvec3(grid.dims - 1)) * grid.spacing;
}

std::shared_ptr<ZrVObjectVolume> MakeHeadPhantom(const PhantomGrid& grid) {
    return SampleGrid<unsigned short>(grid, HeadPhantomValueAt);
}

std::shared_ptr<ZrVObjectVolume> MakeLabelPhantom(const PhantomGrid& grid) {
    return SampleGrid<unsigned char>(grid, HeadLabelAt);
}

std::shared_ptr<ZrVObjectVolume> MakeDosePhantom(const PhantomGrid& grid) {
    return SampleGrid<float>(grid, DosePhantomValueAt);
}

MeshArrays MakeEllipsoidMesh(const glm::dvec3& centre, const glm::dvec3& semiAxes, int segments) {
    CheckSegments(segments);
    if (!(semiAxes.x > 0.0 && semiAxes.y > 0.0 && semiAxes.z > 0.0))
        throw std::invalid_argument("ellipsoid semi-axes must be positive");
    const int stacks = std::max(2, segments / 2);
    MeshArrays mesh;
    for (int r = 0; r <= stacks; ++r) {
        const double polar = std::numbers::pi * r / stacks;
        for (int c = 0; c <= segments; ++c) {
            const double azimuth = 2.0 * std::numbers::pi * c / segments;
            const glm::dvec3 unit(std::sin(polar) * std::cos(azimuth), std::sin(polar) * std::sin(azimuth),
                                  std::cos(polar));
            // The normal of an ellipsoid at unit-sphere point s is s / semi-axes.
            PushVertex(mesh, centre + unit * semiAxes, unit / semiAxes);
        }
    }
    PushGridTriangles(mesh, stacks, segments);
    return mesh;
}

MeshArrays MakeTorusMesh(const glm::dvec3& centre, const glm::dvec3& axis, double majorRadius, double minorRadius,
                         int segments) {
    CheckSegments(segments);
    if (!(minorRadius > 0.0) || !(majorRadius > minorRadius))
        throw std::invalid_argument("torus radii must satisfy 0 < minor < major");
    if (!(glm::length(axis) > 0.0)) throw std::invalid_argument("torus axis must not be zero");
    const glm::dvec3 w = glm::normalize(axis);
    glm::dvec3 u, v;
    PerpendicularAxes(w, u, v);
    const int tube = std::max(3, segments / 2);
    MeshArrays mesh;
    for (int r = 0; r <= tube; ++r) {
        const double phi = 2.0 * std::numbers::pi * r / tube;
        for (int c = 0; c <= segments; ++c) {
            const double theta = 2.0 * std::numbers::pi * c / segments;
            const glm::dvec3 radial = std::cos(theta) * u + std::sin(theta) * v;
            const glm::dvec3 normal = std::cos(phi) * radial + std::sin(phi) * w;
            PushVertex(mesh, centre + majorRadius * radial + minorRadius * normal, normal);
        }
    }
    PushGridTriangles(mesh, tube, segments);
    return mesh;
}

MeshArrays MakeSkinPointSet(int count) {
    if (count < 1 || count > 1000000)
        throw std::invalid_argument("point count must be 1..1000000, got " + std::to_string(count));
    MeshArrays mesh;
    mesh.topology = 3;
    const double golden = std::numbers::pi * (3.0 - std::sqrt(5.0));
    for (int n = 0; n < count; ++n) {
        const double z = 1.0 - 2.0 * (n + 0.5) / count;
        const double ring = std::sqrt(1.0 - z * z);
        const glm::dvec3 unit(ring * std::cos(golden * n), ring * std::sin(golden * n), z);
        PushVertex(mesh, unit * kHeadSkinSemiAxes, unit / kHeadSkinSemiAxes);
    }
    return mesh;
}

CentreLine MakeArchCentreLine(int count, double height) {
    if (count < 2 || count > 100000)
        throw std::invalid_argument("centre line needs 2..100000 points, got " + std::to_string(count));
    CentreLine line;
    // An arch from the right ear over the face to the left ear: 200 degrees of
    // an ellipse of semi-axes 55 mm (x) and 60 mm (y) centred 10 mm posterior.
    const double start = -100.0 * std::numbers::pi / 180.0, end = -start;
    for (int n = 0; n < count; ++n) {
        const double theta = start + (end - start) * n / (count - 1);
        const glm::dvec3 point(55.0 * std::sin(theta), 10.0 - 60.0 * std::cos(theta), height);
        const glm::dvec3 tangent = glm::normalize(glm::dvec3(55.0 * std::cos(theta), 60.0 * std::sin(theta), 0.0));
        line.points.push_back(ToFloat(point));
        line.upVectors.emplace_back(0.0f, 0.0f, 1.0f);
        line.tangents.push_back(ToFloat(tangent));
    }
    return line;
}

}  // namespace zrobjects
