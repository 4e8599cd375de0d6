// The renderer chain on one image: a sectional volume slice first, then the
// mesh slicer drawing the cut of a mesh of the same shape over it.
#include <gtest/gtest.h>

#include <cstring>

#include "host/mesh_builder.h"
#include "tests/end_to_end/volume_scene.h"

using namespace e2e;

namespace {

// A ball of radius 20 mm (value 1000) in a 64^3 grid of 1 mm voxels, centred
// at (31.5, 31.5, 31.5): the volume phantom of the sphere mesh below.
std::shared_ptr<ZrVObjectVolume> BallVolume() {
    std::vector<unsigned short> voxels;
    for (int z = 0; z < 64; ++z)
        for (int y = 0; y < 64; ++y)
            for (int x = 0; x < 64; ++x) {
                const glm::dvec3 d = glm::dvec3(x, y, z) - glm::dvec3(31.5);
                voxels.push_back(glm::dot(d, d) <= 400.0 ? 1000 : 0);
            }
    return MakeVolume<unsigned short>(voxels, {64, 64, 64});
}

}  // namespace

TEST(RendererChain, AMeshCutDrawnOverAVolumeSliceLiesOnThePhantomsSurface) {
    Scene scene;
    scene.Add(BallVolume());
    auto mesh = MakeMeshPrimitive(MakeSphereArrays(20.0, 96, 192, glm::dvec3(31.5)));
    SceneEntry meshEntry;
    meshEntry.object = mesh.get();
    meshEntry.colour = {1.0f, 0.0f, 0.0f};
    scene.request.scene.push_back(meshEntry);

    // An oblique section 10 mm off the centre, 0.25 mm pixels.
    SectionView view;
    view.centre = glm::dvec3(31.5) + 10.0 * glm::normalize(glm::dvec3(1, 2, 2));
    view.viewDirection = glm::normalize(glm::dvec3(1, 2, 2));
    view.up = {0, 0, 1};
    view.pixelSpacing = {0.25, 0.25};
    view.size = {200, 200};
    scene.image = MakeSectionImage(view);
    auto& p = scene.request.params;
    p["_ZrIObject*_RenderOut"] = scene.image.get();

    // The volume renderer starts the chain.
    p["_bool_IsFirstRenderer"] = true;
    p["_bool_IsFinalRenderer"] = false;
    ASSERT_TRUE(scene.Run());
    std::vector<uint32_t> slice(200 * 200);
    std::memcpy(slice.data(), scene.Buffer(1, 0).pixels, slice.size() * 4);

    // The mesh slicer follows and draws straight into the shown image.
    p["_string_RenderingSourceType"] = std::string("SECTIONAL_MESH");
    p["_bool_IsFirstRenderer"] = false;
    p["_bool_IsFinalRenderer"] = true;
    p["_bool_IsRGBA"] = true;
    ASSERT_TRUE(scene.Run());
    EXPECT_EQ(scene.image->GetDescriptor(), "CPU Mesh Slicer By Orrik 2022.03.12");

    // Every line pixel has both ball and background within one voxel (4 pixels)
    // in the volume slice, the ball being where the interpolated value passes
    // half its height (grey 160 of the 0..800 window): the cut runs along the
    // phantom's edge, up to its voxel steps.
    const auto isBall = [&](int x, int y) { return (slice[y * 200 + x] & 0xffu) >= 160; };
    int linePixels = 0;
    for (int y = 4; y < 196; ++y)
        for (int x = 4; x < 196; ++x) {
            if (static_cast<const uint32_t*>(scene.Buffer(1, 0).pixels)[y * 200 + x] != 0xff0000ffu) continue;
            ++linePixels;
            bool ball = false, background = false;
            for (int dy = -4; dy <= 4; ++dy)
                for (int dx = -4; dx <= 4; ++dx) (isBall(x + dx, y + dy) ? ball : background) = true;
            EXPECT_TRUE(ball && background) << "line pixel " << x << "," << y << " is off the ball's edge";
        }
    // The cut is a circle of radius sqrt(400 - 100) mm = 69 pixels: about 435 pixels round.
    EXPECT_GT(linePixels, 300);
}
