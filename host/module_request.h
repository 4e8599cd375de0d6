// The request record the host hands to DoModule: the request's parameters, the
// ordered scene list, and a second key-value map for values the renderers hand
// back or clear.
#pragma once

#include <vector>

#include <glm/glm.hpp>

#include "param_map.h"
#include "zr_visual.h"

namespace zrobjects {

struct SceneEntry {
    ZrVObject* object = nullptr;
    bool enabled = true;
    glm::vec3 colour{1.0f};  // red, green, blue in 0..1
    glm::mat4 objectToWorld{1.0f};
    glm::mat4 worldToObject{1.0f};
    ParamMap params;  // per-object render settings of this entry
};

struct ModuleRequest {
    ParamMap params;
    std::vector<SceneEntry> scene;
    ParamMap results;
};

}  // namespace zrobjects
