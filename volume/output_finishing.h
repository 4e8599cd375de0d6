// The last steps of a sectional volume request: iso-boundary lines of one
// chosen volume (drawn, or returned as lists in the request), composition of the
// target into render-out 0 (copy, enlargement, merge, or enlargement and merge)
// and the image's descriptor.
#pragma once

#include <vector>

#include "host/plugin_interface.h"
#include "volume/render_mode_dispatch.h"
#include "volume/render_settings.h"
#include "volume/render_targets.h"
#include "volume/section_geometry.h"
#include "volume/volume_selection.h"

namespace zrvolume {

// Byte order of a colour word converted from four 0..1 doubles: red in byte 0.
uint32_t ColourWord(const glm::dvec4& rgba);

// The iso-boundary lines of the target volume over `plane` (the full-quality
// plane: lines are always drawn at full resolution), drawn into the usage-1
// buffer `bufferIndex` and, when asked, returned into the request.
void DrawIsoBoundaries(zrobjects::ModuleRequest& request, const VolumeRenderSettings& settings,
                       const std::vector<SelectedVolume>& volumes, const SlicePlane& plane, int bufferIndex);

void ComposeFinalImage(const zrobjects::ModuleRequest& request, const VolumeRenderSettings& settings,
                       const RenderTargets& targets, const SectionGeometry& geometry,
                       const DispatchOutcome& outcome);

inline constexpr const char* kVolumeRendererDescriptor = "CPU Unified Renderer By Orrik 2019.07.22";

}  // namespace zrvolume
