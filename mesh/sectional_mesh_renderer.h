// The "SECTIONAL_MESH" render path: the lines along which the view plane (or, in
// non-linear mode, the curved section surface) cuts the visible triangle meshes
// of the scene, drawn into the target image with their clip tests and optional
// smoothing, a depth of 0.0 marked under every line pixel; or, with
// "_bool_GetCrossLines", the cut lines handed back to the image object as lists
// of screen segments. Point sets are drawn as discs. Works alone or as one
// renderer of a chain ("_bool_IsFirstRenderer", "_bool_IsFinalRenderer" and the
// image's "_bool_SkipSrOnPlaneRenderer").
#pragma once

#include "host/plugin_interface.h"

namespace zrmesh {

// False only when the image has no camera. A parameter of the wrong type throws
// std::bad_any_cast.
bool RenderSectionalMesh(zrobjects::ModuleRequest& request);

}  // namespace zrmesh
