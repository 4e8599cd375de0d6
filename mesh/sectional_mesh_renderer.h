// The "SECTIONAL_MESH" render path: cut lines of every visible triangle mesh
// with the view plane, drawn into the target image or returned as lists.
#pragma once

#include "host/module_request.h"

namespace zrmesh {

// False only when the image has no camera.
bool RenderSectionalMesh(zrobjects::ModuleRequest& request);

}  // namespace zrmesh
