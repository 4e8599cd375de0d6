// The plug-in's C interface, the one header the module and every host include:
// the request record the host hands to DoModule (the request's parameters, the
// ordered scene list, and a second key-value map for values the renderers hand
// back or clear) and the seven entry points the plug-in exports under these
// unmangled names. Hosts that load the plug-in at run time resolve each name to
// its function type; the module defines them with ZR_BUILDING_PLUGIN set, which
// exports them.
#pragma once

#include <string>
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

#if !defined(ZR_BUILDING_PLUGIN)
#define ZR_PLUGIN_ENTRY extern "C"
#elif defined(_WIN32)
#define ZR_PLUGIN_ENTRY extern "C" __declspec(dllexport)
#else
#define ZR_PLUGIN_ENTRY extern "C" __attribute__((visibility("default")))
#endif

ZR_PLUGIN_ENTRY bool CheckModuleParameters();
ZR_PLUGIN_ENTRY bool InitModule();
ZR_PLUGIN_ENTRY bool DoModule(zrobjects::ModuleRequest* request);
ZR_PLUGIN_ENTRY void DeInitModule();
ZR_PLUGIN_ENTRY double GetProgress();
ZR_PLUGIN_ENTRY void InteropCustomWork(zrobjects::ModuleRequest* request);
ZR_PLUGIN_ENTRY void GetModuleSpecification(std::vector<std::string>* entries);

// Function types of the exports, for hosts that load the plug-in at run time.
using CheckModuleParametersFn = bool (*)();
using InitModuleFn = bool (*)();
using DoModuleFn = bool (*)(zrobjects::ModuleRequest*);
using DeInitModuleFn = void (*)();
using GetProgressFn = double (*)();
using InteropCustomWorkFn = void (*)(zrobjects::ModuleRequest*);
using GetModuleSpecificationFn = void (*)(std::vector<std::string>*);
