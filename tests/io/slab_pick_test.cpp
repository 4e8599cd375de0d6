// The host's pick on maximum and minimum slabs: the point it names must be
// where the module's winning sample lies, and its value the value the module
// drew at that pixel.
#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

#include "io/render_run.h"
#include "io/slab_pick.h"
#include "io/volume_probe.h"
#include "tests/io/file_test_support.h"

namespace zrio {
namespace {

using nlohmann::json;

constexpr int kDims = 24;
const glm::ivec3 kBright{14, 9, 11};
const glm::ivec3 kDark{7, 15, 12};

// A block of 1000 with one bright voxel (3000) and one dark voxel (10), on a
// tilted grid of unequal spacing, so that a wrong axis, pitch or placement
// moves the pick away from them.
json Document(const testing::ScratchFolder& folder, int mode, const json& camera) {
    std::vector<char> bytes;
    for (int k = 0; k < kDims; ++k)
        for (int j = 0; j < kDims; ++j)
            for (int i = 0; i < kDims; ++i) {
                const glm::ivec3 at{i, j, k};
                testing::Append(bytes, uint16_t(at == kBright ? 3000 : at == kDark ? 10 : 1000));
            }
    testing::WriteBytes(folder / "block.raw", bytes);
    const double c = std::cos(0.3), s = std::sin(0.3);
    return json{{"image", {{"size", {64, 48}}, {"camera", camera}}},
                {"objects",
                 {{"block",
                   {{"type", "volume"}, {"raw", "block.raw"}, {"dims", {kDims, kDims, kDims}}, {"voxelType", "uint16"},
                    {"spacing", {0.9, 1.1, 1.3}}, {"origin", {-10, -12, -14}},
                    {"direction", {{c, -s, 0}, {s, c, 0}, {0, 0, 1}}}}},
                  {"grey", {{"type", "table"}, {"window", {{"centre", 1500}, {"width", 3000}}}}}}},
                {"scene", {{{"object", "block"}, {"tables", {{"WINDOWING", "grey"}}}}}},
                {"requests",
                 {{{"_int_VolumeRayCastType", mode}, {"_float_PlaneThickness", 12.0f},
                   {"_bool_StoreSampleValueToCustomBuffer", true}}}}};
}

const glm::dvec3 kView{0.2, -0.3, 1.0};

json CameraThrough(const glm::dvec3& point) {
    return {{"position", {point.x, point.y, point.z}}, {"viewDirection", {kView.x, kView.y, kView.z}},
            {"up", {0, -1, 0}}, {"viewExtent", {40, 30}}};
}

struct Picked {
    std::optional<SlabPick> pick;
    uint16_t moduleValue = 0;
    glm::dvec3 bright, dark;  // world positions of the two voxels
};

// Renders the slab and picks at the pixel where the module drew its extreme.
Picked PickAtExtreme(int mode) {
    testing::ScratchFolder folder("slab-pick-" + std::to_string(mode));
    // Place the camera on the voxel of interest, read from a first build.
    RequestFile probe = ParseRequestDocument(Document(folder, mode, CameraThrough({0, 0, 0})), "pick.json",
                                             folder.Path());
    Scene probeScene = BuildScene(probe);
    const auto& volume = *probeScene.volumes.at("block").volume;
    Picked out;
    out.bright = VoxelToWorld(volume, probeScene.entries[0].objectToWorld, glm::dvec3(kBright));
    out.dark = VoxelToWorld(volume, probeScene.entries[0].objectToWorld, glm::dvec3(kDark));

    // The voxel lies 4 mm in front of the plane (maximum) or behind it
    // (minimum), inside the 12 mm slab but away from its middle layer.
    const glm::dvec3 plane = mode == 10 ? out.bright + 4.0 * glm::normalize(kView) : out.dark - 4.0 * glm::normalize(kView);
    const RequestFile file =
        ParseRequestDocument(Document(folder, mode, CameraThrough(plane)), "pick.json", folder.Path());
    Scene scene = BuildScene(file);
    PluginSession plugin(ZR_PLUGIN_PATH);
    const RenderOutput output = RunRequests(file, scene, plugin);
    EXPECT_TRUE(output.values.has_value());
    if (!output.values) return out;
    const std::vector<uint16_t>& values = output.values->values;
    // The extreme among pixels whose layers all lie inside the block.
    // (A minimum of 0 marks a pixel with layers outside it.)
    size_t at = values.size();
    for (size_t p = 0; p < values.size(); ++p)
        if (values[p] > 0 && (at == values.size() || (mode == 10 ? values[p] > values[at] : values[p] < values[at])))
            at = p;
    if (at == values.size()) {
        ADD_FAILURE() << "the slab covers no pixel";
        return out;
    }
    out.moduleValue = values[at];
    const int width = file.image.size.x;
    out.pick = PickSlabSample(file, scene, 0, glm::dvec2(at % width, at / width));
    return out;
}

TEST(SlabPick, MaximumNamesTheBrightVoxelAndTheModulesValue) {
    const Picked picked = PickAtExtreme(10);
    ASSERT_TRUE(picked.pick);
    // Within half a layer step (0.45 mm) along the ray and one pixel across it.
    EXPECT_LT(glm::distance(picked.pick->world, picked.bright), 1.0);
    EXPECT_EQ(picked.pick->volume, "block");
    EXPECT_EQ(picked.pick->layerCount, 13);  // round(12 / 0.9)
    // The module stores trunc(maximum + 0.5) of the same sample.
    EXPECT_NEAR(picked.pick->value, picked.moduleValue, 0.51);
    EXPECT_GT(picked.pick->value, 1500.0);
}

TEST(SlabPick, MinimumNamesTheDarkVoxel) {
    const Picked picked = PickAtExtreme(11);
    ASSERT_TRUE(picked.pick);
    EXPECT_LT(glm::distance(picked.pick->world, picked.dark), 1.0);
    EXPECT_NEAR(picked.pick->value, picked.moduleValue, 0.51);
    EXPECT_LT(picked.pick->value, 800.0);
}

TEST(SlabPick, RefusesWhatIsNotAFlatMaximumOrMinimumSlab) {
    testing::ScratchFolder folder("slab-pick-refusals");
    json document = Document(folder, 12, CameraThrough({0, 0, 0}));
    RequestFile file = ParseRequestDocument(document, "pick.json", folder.Path());
    Scene scene = BuildScene(file);
    EXPECT_THROW(PickSlabSample(file, scene, 0, {10, 10}), std::invalid_argument);  // average
    document["requests"][0]["_int_VolumeRayCastType"] = 10;
    document["requests"][0]["_float_PlaneThickness"] = 0.5f;  // thinner than a voxel: a plain slice
    file = ParseRequestDocument(document, "pick.json", folder.Path());
    EXPECT_THROW(PickSlabSample(file, scene, 0, {10, 10}), std::invalid_argument);
    document["requests"][0]["_float_PlaneThickness"] = 12.0f;
    file = ParseRequestDocument(document, "pick.json", folder.Path());
    EXPECT_TRUE(PickSlabSample(file, scene, 0, {32, 24}).has_value());
    EXPECT_FALSE(PickSlabSample(file, scene, 0, {2, 24}).has_value());   // beside the block
    EXPECT_FALSE(PickSlabSample(file, scene, 0, {64, 24}).has_value());  // past the last column
    EXPECT_FALSE(PickSlabSample(file, scene, 0, {-1, 24}).has_value());
}

TEST(VolumeProbe, NearestVoxelAndRealValue) {
    testing::ScratchFolder folder("volume-probe");
    const RequestFile file = ParseRequestDocument(Document(folder, 10, CameraThrough({0, 0, 0})), "p.json",
                                                  folder.Path());
    Scene scene = BuildScene(file);
    const LoadedVolume& block = scene.volumes.at("block");
    const glm::dvec3 world = VoxelToWorld(*block.volume, scene.entries[0].objectToWorld, glm::dvec3(kBright));
    const glm::dvec3 voxel = WorldToVoxel(*block.volume, scene.entries[0].worldToObject, world);
    const auto probe = ProbeVoxel(block, voxel + glm::dvec3(0.4, -0.4, 0.3));
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->index, kBright);
    EXPECT_EQ(probe->value, 3000.0 - block.values.offset);
    EXPECT_FALSE(ProbeVoxel(block, glm::dvec3(-0.6, 3, 3)));
    EXPECT_FALSE(ProbeVoxel(block, glm::dvec3(3, kDims - 0.5, 3)));
    // Halfway between the bright voxel and its neighbour.
    EXPECT_DOUBLE_EQ(*SampleStored(*block.volume, glm::dvec3(kBright) + glm::dvec3(0.5, 0, 0)), 2000.0);
}

}  // namespace
}  // namespace zrio
