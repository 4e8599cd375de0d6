// The plug-in's seven exported entry points.
#define ZR_BUILDING_PLUGIN
#include "host/plugin_interface.h"

#include <cstdint>

#include "common/param_reads.h"
#include "host/host_services.h"
#include "mesh/smoothing_kernel.h"
#include "module/dispatch.h"
#include "platform/morphology.h"

namespace {

constexpr const char* kCoreVersion = "1.21";

// The module runs no background thread, so there is nothing to stop.
void EndBackgroundThread(void*) {}

}  // namespace

bool CheckModuleParameters() { return true; }

bool InitModule() {
    zrobjects::LogInfo(std::string("Plugin: CPU Renderer using Core v(") + kCoreVersion + ")");
    int32_t instructionInfo = 0;
    zrobjects::GetCPUInstructionInfo(&instructionInfo);  // asked for, deliberately unused
    MoFiInitializeDx11();
    return true;
}

bool DoModule(zrobjects::ModuleRequest* request) { return zrmodule::DispatchRequest(*request); }

void DeInitModule() {
    MoFiDeinitializeDx11();
    zrmesh::ReleaseSmoothingKernel();
}

double GetProgress() { return zrmodule::ModuleProgress(); }

void InteropCustomWork(zrobjects::ModuleRequest* request) {
    auto slot = zrcommon::ReadPointer<zrobjects::Delegate*>(request->params, "_outptr_delegate_EndBgThread");
    if (slot) *slot = &EndBackgroundThread;
}

void GetModuleSpecification(std::vector<std::string>* entries) { entries->push_back("WINDOWS"); }
