#include "sectional_volume_renderer.h"

#include "volume/output_finishing.h"
#include "volume/render_mode_dispatch.h"
#include "volume/render_settings.h"
#include "volume/render_targets.h"
#include "volume/section_geometry.h"
#include "volume/volume_selection.h"

namespace zrvolume {

bool RenderSectionalVolume(zrobjects::ModuleRequest& request) {
    const VolumeRenderSettings settings = ReadVolumeRenderSettings(request);
    const RenderTargets targets = PrepareRenderTargets(settings, *settings.image);
    const std::vector<SelectedVolume> volumes = SelectVolumes(request);
    const SectionGeometry geometry =
        BuildSectionGeometry(settings, *settings.image, targets.width, targets.height, volumes);
    const DispatchOutcome outcome = DrawSelectedVolumes(settings, targets, geometry, volumes);
    // Iso lines are drawn at full resolution: into the target before it is
    // composed, or in fast mode into the enlarged picture.
    if (!geometry.reduced) DrawIsoBoundaries(request, settings, volumes, geometry.view, targets.targetIndex);
    ComposeFinalImage(request, settings, targets, geometry, outcome);
    if (geometry.reduced) DrawIsoBoundaries(request, settings, volumes, geometry.view, 0);
    return true;
}

}  // namespace zrvolume
