// The sectional volume driver (volume/*.cpp) through DoModule: fast quality
// mode against full quality, iso lines in both, the renderer chain's weighted
// merge, and curved views under pan and zoom.
#include <gtest/gtest.h>

#include <any>
#include <vector>

#include "tests/end_to_end/volume_scene.h"

using namespace e2e;

namespace {

// 256 x 256 pixels over the 16 x 16 mm face of the ramp; with fast mode on, the
// picture is drawn at most 64 pixels across and enlarged.
Scene FastScene(bool fast, const ParamMap& params = {}) {
    Scene scene = RampScene(AxialView(256, 15.5 / 255.0),
                            {{"_bool_IsFastQualityMode", fast}, {"_int_LengthFastModeMax", 64}});
    scene.With(params);
    return scene;
}

TEST(FastQuality, IsoLinesAreDrawnAtFullResolutionAndListedAsAtFullQuality) {
    std::vector<uint32_t> picture[2][2];  // [fast][lines drawn]
    std::vector<double> listed[2];
    for (bool fast : {false, true})
        for (int lines : {0, 1, 2}) {  // none, drawn, listed
            Scene scene = FastScene(fast);
            ASSERT_TRUE(scene
                            .With({{"_bool_DrawIsoBoundary", lines != 0},
                                   {"_bool_GetBoundaryLines", lines == 2},
                                   {"_int_TargetVolumeObjectID", scene.volumes[0]->GetObjectID()},
                                   {"_int_IsoValueBoundary", 300},
                                   {"_double4_ColorIso", glm::dvec4(1.0, 0.0, 1.0, 1.0)}})
                            .Run());
            if (lines < 2) picture[fast][lines] = scene.Colours();
            else listed[fast] = std::any_cast<std::vector<double>>(scene.request.params["_vlist_DOUBLE_IsoLines3"]);
        }
    EXPECT_FALSE(listed[0].empty());
    EXPECT_EQ(listed[1], listed[0]);
    // The line pixels of the full-quality picture, and nothing else, are drawn
    // over the fast picture.
    int linePixels = 0;
    for (size_t i = 0; i < picture[0][0].size(); ++i) {
        const bool line = picture[0][1][i] != picture[0][0][i];
        linePixels += line;
        ASSERT_EQ(picture[1][1][i], line ? picture[0][1][i] : picture[1][0][i]) << i % 256 << "," << i / 256;
    }
    EXPECT_GT(linePixels, 200);
}

}  // namespace
