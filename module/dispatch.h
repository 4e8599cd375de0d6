// Routes one request to the renderer its source type names.
#pragma once

#include "host/plugin_interface.h"

namespace zrmodule {

// The module-wide progress of the last request: 0 while a request runs or after
// one failed, 100 after one succeeded. Plain double, read without a lock.
double& ModuleProgress();

// Runs one request and sets the progress; see DoModule.
bool DispatchRequest(zrobjects::ModuleRequest& request);

}  // namespace zrmodule
