// Built-in phantoms: the analytic values at known points, the sampled volumes
// against those values, and the meshes against the surfaces they stand for.
#include <gtest/gtest.h>

#include "host/phantoms.h"
#include "host/volume_builder.h"

namespace zrobjects {
namespace {

TEST(HeadPhantom, TissuesAtKnownPoints) {
    EXPECT_EQ(HeadPhantomValueAt({0, 0, 200}), kHeadAir);        // far above the head
    EXPECT_EQ(HeadPhantomValueAt({0, 0, 0}), kHeadBrain);        // centre
    EXPECT_EQ(HeadPhantomValueAt(kHeadLesionCentre), kHeadLesion);
    EXPECT_EQ(HeadPhantomValueAt({12, 5, 12}), kHeadCsf);        // a ventricle's centre
    EXPECT_EQ(HeadPhantomValueAt({73.5, 0, 0}), kHeadSoftTissue);  // between skull and skin
    EXPECT_EQ(HeadPhantomValueAt({66, 0, 2}), kHeadBone);        // inside the skull wall
    EXPECT_EQ(HeadPhantomValueAt({0, -76, -20}), kHeadAir);      // the sinus
    // The label of every tissue point matches its value.
    EXPECT_EQ(HeadLabelAt({0, 0, 0}), kLabelBrain);
    EXPECT_EQ(HeadLabelAt({66, 0, 2}), kLabelSkull);
    EXPECT_EQ(HeadLabelAt({0, 0, 200}), kLabelNone);
    EXPECT_EQ(HeadLabelAt(kHeadLesionCentre), kLabelLesion);
}

TEST(DosePhantom, PeaksAtTheLesionAndFallsOff) {
    EXPECT_FLOAT_EQ(DosePhantomValueAt(kHeadLesionCentre), static_cast<float>(kDosePeak));
    // A Gaussian of sigma 15 mm: at one sigma the dose is peak / sqrt(e).
    EXPECT_NEAR(DosePhantomValueAt(kHeadLesionCentre + glm::dvec3(15, 0, 0)), kDosePeak * std::exp(-0.5), 1e-4);
}

TEST(HeadPhantom, SampledGridMatchesTheAnalyticValues) {
    const PhantomGrid grid{{20, 24, 16}, {8.0, 8.0, 10.0}};
    auto head = MakeHeadPhantom(grid);
    auto labels = MakeLabelPhantom(grid);
    auto dose = MakeDosePhantom(grid);
    VolumeData& h = *head->GetVolumeData();
    EXPECT_EQ(h.dims, grid.dims);
    EXPECT_EQ(h.voxelPitch, grid.spacing);
    EXPECT_EQ(h.voxelType, MakeDataType<unsigned short>());
    EXPECT_EQ(labels->GetVolumeData()->voxelType, MakeDataType<unsigned char>());
    EXPECT_EQ(dose->GetVolumeData()->voxelType, MakeDataType<float>());
    // The label volume shares the head's layout, as a mask volume must.
    EXPECT_EQ(labels->GetVolumeData()->dims, h.dims);
    EXPECT_EQ(labels->GetVolumeData()->margins, h.margins);
    for (glm::ivec3 v : {glm::ivec3(0, 0, 0), glm::ivec3(10, 12, 8), glm::ivec3(19, 3, 15), glm::ivec3(7, 20, 2)}) {
        const glm::dvec3 world = PhantomVoxelCentre(grid, v);
        EXPECT_EQ(VoxelAt<unsigned short>(h, v.x, v.y, v.z), HeadPhantomValueAt(world));
        EXPECT_EQ(VoxelAt<unsigned char>(*labels->GetVolumeData(), v.x, v.y, v.z), HeadLabelAt(world));
        // The placement maps the voxel to the same world point.
        const glm::vec4 placed = head->GetMatrixOS2RSf() * glm::vec4(glm::vec3(v), 1.0f);
        EXPECT_NEAR(glm::length(glm::dvec3(placed) - world), 0.0, 1e-4);
    }
    // Centred: the first and last voxel centres are mirror images.
    EXPECT_EQ(PhantomVoxelCentre(grid, {0, 0, 0}), -PhantomVoxelCentre(grid, grid.dims - 1));
}

TEST(HeadPhantom, RefusesAbsurdGrids) {
    EXPECT_THROW(MakeHeadPhantom({{0, 10, 10}, {1, 1, 1}}), std::invalid_argument);
    EXPECT_THROW(MakeHeadPhantom({{10, 10, 10}, {1, -1, 1}}), std::invalid_argument);
    EXPECT_THROW(MakeHeadPhantom({{4096, 4096, 4096}, {1, 1, 1}}), std::invalid_argument);
}

TEST(PhantomMeshes, VerticesLieOnTheirSurfaces) {
    const glm::dvec3 centre(1, 2, 3);
    const MeshArrays skin = MakeEllipsoidMesh(centre);
    ASSERT_EQ(skin.positions.size() % 3, 0u);
    for (size_t k = 0; k < skin.positions.size(); k += 3) {
        const glm::dvec3 q = (glm::dvec3(skin.positions[k], skin.positions[k + 1], skin.positions[k + 2]) - centre) /
                             kHeadSkinSemiAxes;
        EXPECT_NEAR(glm::dot(q, q), 1.0, 1e-5);
    }
    for (uint32_t i : skin.indices) EXPECT_LT(i, skin.positions.size() / 3);

    const glm::dvec3 axis = glm::normalize(glm::dvec3(1, 1, 0));
    const MeshArrays torus = MakeTorusMesh(centre, axis, 20.0, 5.0, 24);
    for (size_t k = 0; k < torus.positions.size(); k += 3) {
        const glm::dvec3 p = glm::dvec3(torus.positions[k], torus.positions[k + 1], torus.positions[k + 2]) - centre;
        const double along = glm::dot(p, axis);
        const double radial = glm::length(p - along * axis);
        // Distance from the tube's centre circle is the minor radius.
        EXPECT_NEAR(std::hypot(radial - 20.0, along), 5.0, 1e-4);
    }
    EXPECT_THROW(MakeTorusMesh(centre, axis, 5.0, 6.0), std::invalid_argument);

    const MeshArrays points = MakeSkinPointSet(50);
    EXPECT_EQ(points.topology, 3);
    EXPECT_EQ(points.positions.size(), 150u);
    EXPECT_TRUE(points.indices.empty());
}

TEST(PhantomMeshes, ArchCentreLineIsSmoothAndInsideTheHead) {
    const CentreLine line = MakeArchCentreLine(32, 5.0);
    ASSERT_EQ(line.points.size(), 32u);
    ASSERT_EQ(line.tangents.size(), 32u);
    for (size_t k = 0; k < line.points.size(); ++k) {
        EXPECT_FLOAT_EQ(line.points[k].z, 5.0f);
        EXPECT_NEAR(glm::length(line.tangents[k]), 1.0f, 1e-5f);
        EXPECT_NE(HeadPhantomValueAt(glm::dvec3(line.points[k])), kHeadAir);
        if (k > 0) {
            // The tangent points along the curve.
            EXPECT_GT(glm::dot(line.tangents[k], line.points[k] - line.points[k - 1]), 0.0f);
        }
    }
}

}  // namespace
}  // namespace zrobjects
