// Per-volume kernel choice of the sectional volume path: the thin-plane rule
// and its carry-over, the table choice, mask and multi-table flags, shading
// coefficients, clip state, the float-volume path and every render mode.
#pragma once

#include <vector>

#include "volume/render_settings.h"
#include "volume/render_targets.h"
#include "volume/section_geometry.h"
#include "volume/volume_selection.h"

namespace zrvolume {

// Largest float: the running minimum of the voxel pitches before any volume.
inline constexpr float kNoVoxelPitch = 3.4028235e+38f;

struct DispatchOutcome {
    float voxelPitchMin = kNoVoxelPitch;  // smallest pitch over the visited volumes
};

// Draws every selected volume in turn into the target buffer. A plane thinner
// than a volume's finest voxel pitch draws mode 0 for that volume and every
// later one of the request.
DispatchOutcome DrawSelectedVolumes(const VolumeRenderSettings& settings, const RenderTargets& targets,
                                    const SectionGeometry& geometry, const std::vector<SelectedVolume>& volumes);

}  // namespace zrvolume
