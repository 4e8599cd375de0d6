// Built-in phantoms: analytic test objects defined in world millimetres and
// sampled onto voxel grids or triangulated into meshes. The value functions are
// public so that tests can use them as oracles for what a render must show.
//
// The head is centred on the world origin: x runs from the patient's right to
// left, y from anterior to posterior, z from inferior to superior (LPS-like).
// Its CT-like values are Hounsfield units plus 1024, stored as unsigned 16-bit.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <glm/glm.hpp>

#include "mesh_builder.h"
#include "zr_visual.h"

namespace zrobjects {

// A regular grid centred on the world origin.
struct PhantomGrid {
    glm::ivec3 dims{128, 128, 96};
    glm::dvec3 spacing{1.6, 1.6, 2.0};
};

// Stored values of the head's tissues (HU + 1024).
enum HeadValue : uint16_t {
    kHeadAir = 24,
    kHeadCsf = 1034,
    kHeadBrain = 1054,
    kHeadSoftTissue = 1064,
    kHeadLesion = 1124,
    kHeadBone = 2024,
};

// Labels of the segmentation that matches the head.
enum HeadLabel : uint8_t {
    kLabelNone = 0,
    kLabelScalp = 1,
    kLabelSkull = 2,
    kLabelBrain = 3,
    kLabelVentricle = 4,
    kLabelLesion = 5,
    kLabelCount = 6,  // labels 0..5
};

// Semi-axes (mm) of the skin ellipsoid; the head surface mesh uses it too.
inline constexpr glm::dvec3 kHeadSkinSemiAxes{75.0, 92.0, 80.0};
// Centre (mm) and radius of the lesion and of the dose peak.
inline constexpr glm::dvec3 kHeadLesionCentre{25.0, 20.0, 25.0};
inline constexpr double kHeadLesionRadius = 10.0;
inline constexpr double kDosePeak = 60.0;

// Tissue value and label at a world point.
uint16_t HeadPhantomValueAt(const glm::dvec3& world);
uint8_t HeadLabelAt(const glm::dvec3& world);
// Dose-like value: a Gaussian of peak kDosePeak around the lesion.
float DosePhantomValueAt(const glm::dvec3& world);

// World position of voxel centre (i, j, k) of a grid.
glm::dvec3 PhantomVoxelCentre(const PhantomGrid& grid, const glm::ivec3& voxel);

// Volumes sampled at the voxel centres of `grid`, placed so that the grid is
// centred on the origin. The label and dose volumes share the head's layout, so
// the label volume can serve as the head's "MASKVOLUME". Throw
// std::invalid_argument for a non-positive or too large grid.
std::shared_ptr<ZrVObjectVolume> MakeHeadPhantom(const PhantomGrid& grid = {});
std::shared_ptr<ZrVObjectVolume> MakeLabelPhantom(const PhantomGrid& grid = {});
std::shared_ptr<ZrVObjectVolume> MakeDosePhantom(const PhantomGrid& grid = {});

// Meshes come as the mesh builder's arrays (positions, indices, normals,
// topology); MakeMeshPrimitive turns them into objects with their hierarchy.
// Torus around any `axis` through `centre` (the mesh builder's torus lies in a
// z plane).
MeshArrays MakeTorusMesh(const glm::dvec3& centre, const glm::dvec3& axis, double majorRadius,
                         double minorRadius, int segments = 64);
// Closed ellipsoid surface; with the default semi-axes it is the head's skin.
MeshArrays MakeEllipsoidMesh(const glm::dvec3& centre, const glm::dvec3& semiAxes = kHeadSkinSemiAxes,
                             int segments = 64);
// Points spread evenly over the skin ellipsoid (a Fibonacci lattice), with
// outward normals: a fiducial-like point set.
MeshArrays MakeSkinPointSet(int count = 200);

// A built-in centre line for curved reformation: a horizontal arc in the axial
// plane z = height, opening towards posterior like a dental arch, sampled at
// `count` points, with up vectors (+z) and unit tangents.
struct CentreLine {
    std::vector<glm::vec3> points;
    std::vector<glm::vec3> upVectors;
    std::vector<glm::vec3> tangents;
};
CentreLine MakeArchCentreLine(int count = 64, double height = 0.0);

}  // namespace zrobjects
