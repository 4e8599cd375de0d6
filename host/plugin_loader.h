// Loads the render plug-in at run time as a host does (dlopen / LoadLibrary)
// and resolves its seven entry points by name.
#pragma once

#include <stdexcept>
#include <string>

#include "host/plugin_interface.h"

namespace zrobjects {

class PluginLoadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class PluginModule {
public:
    // Throws PluginLoadError naming the file or the missing export.
    explicit PluginModule(const std::string& path);
    ~PluginModule();
    PluginModule(const PluginModule&) = delete;
    PluginModule& operator=(const PluginModule&) = delete;

    // Looks up any exported symbol; null when absent.
    void* FindSymbol(const char* name) const;

    CheckModuleParametersFn checkModuleParameters = nullptr;
    InitModuleFn initModule = nullptr;
    DoModuleFn doModule = nullptr;
    DeInitModuleFn deInitModule = nullptr;
    GetProgressFn getProgress = nullptr;
    InteropCustomWorkFn interopCustomWork = nullptr;
    GetModuleSpecificationFn getModuleSpecification = nullptr;

private:
    void* handle_ = nullptr;
};

// File name of the plug-in next to the running program's build tree.
const char* PluginFileName();

}  // namespace zrobjects
