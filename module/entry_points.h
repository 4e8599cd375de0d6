// The seven C entry points through which the host drives the module.
#pragma once

#include <string>
#include <vector>

#include "host/module_request.h"

#if defined(_WIN32)
#define ZR_EXPORT extern "C" __declspec(dllexport)
#else
#define ZR_EXPORT extern "C" __attribute__((visibility("default")))
#endif

ZR_EXPORT bool CheckModuleParameters();
ZR_EXPORT bool InitModule();
ZR_EXPORT bool DoModule(zrobjects::ModuleRequest* request);
ZR_EXPORT void DeInitModule();
ZR_EXPORT double GetProgress();
ZR_EXPORT void InteropCustomWork(zrobjects::ModuleRequest* request);
ZR_EXPORT void GetModuleSpecification(std::vector<std::string>* entries);

// Function types of the exports, for hosts that load the module at run time.
using CheckModuleParametersFn = bool (*)();
using InitModuleFn = bool (*)();
using DoModuleFn = bool (*)(zrobjects::ModuleRequest*);
using DeInitModuleFn = void (*)();
using GetProgressFn = double (*)();
using InteropCustomWorkFn = void (*)(zrobjects::ModuleRequest*);
using GetModuleSpecificationFn = void (*)(std::vector<std::string>*);
