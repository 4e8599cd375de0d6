// The volumes a request draws, with each one's placement and clip state.
#pragma once

#include <vector>

#include <glm/glm.hpp>

#include "common/matrix_record.h"
#include "common/slice_clip.h"
#include "host/plugin_interface.h"

namespace zrvolume {

struct SelectedVolume {
    zrobjects::ZrVObjectVolume* volume = nullptr;
    const zrobjects::SceneEntry* entry = nullptr;
    glm::mat4 voxelToWorld{1.0f};  // entry world matrix x object-to-reference
    glm::mat4 worldToVoxel{1.0f};  // reference-to-object x entry inverse world matrix
};

// Every scene entry holding a defined, enabled volume, in scene order. More
// than one prints the multi-volume warning; all of them are drawn.
std::vector<SelectedVolume> SelectVolumes(const zrobjects::ModuleRequest& request);

// The entry's clip plane and box carried into the volume's voxel space; both
// off when the volume's own "_bool_ClipFree" is set.
zrcommon::SliceClipState BuildClipState(const SelectedVolume& selected);

}  // namespace zrvolume
