// The "SECTIONAL_VOLUME" render path: from a host request to finished frame
// buffers of the target image.
#pragma once

#include "host/plugin_interface.h"

namespace zrvolume {

// Always true; problems are reported on standard output or as exceptions.
bool RenderSectionalVolume(zrobjects::ModuleRequest& request);

}  // namespace zrvolume
