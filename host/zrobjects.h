// Everything the render module and the hosts use from the host object library.
#pragma once

#include "host_services.h"
#include "plugin_interface.h"
#include "param_map.h"
#include "zr_camera.h"
#include "zr_image.h"
#include "zr_object.h"
#include "zr_types.h"
#include "zr_visual.h"
