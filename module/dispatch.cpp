#include "dispatch.h"

#include <cstdio>
#include <string>

#include "common/param_reads.h"
#include "mesh/sectional_mesh_renderer.h"
#include "volume/sectional_volume_renderer.h"

namespace zrmodule {

double& ModuleProgress() {
    static double progress = 0.0;
    return progress;
}

bool DispatchRequest(zrobjects::ModuleRequest& request) {
    ModuleProgress() = 0.0;
    const std::string source =
        zrcommon::ReadParam<std::string>(request.params, "_string_RenderingSourceType", "SECTIONAL_VOLUME");

    bool done = true;
    if (source == "SECTIONAL_VOLUME") {
        done = zrvolume::RenderSectionalVolume(request);
    } else if (source == "SECTIONAL_MESH") {
        done = zrmesh::RenderSectionalMesh(request);
    } else if (source == "VOLUME" || source == "MESH") {
        std::printf("NOT YET CPU RENDERING");
        std::fflush(stdout);
        return false;
    }
    // Any other source type counts as finished on purpose: the host may offer
    // sources this module does not draw.
    if (done) ModuleProgress() = 100.0;
    return done;
}

}  // namespace zrmodule
