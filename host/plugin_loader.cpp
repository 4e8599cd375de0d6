#include "plugin_loader.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace zrobjects {

namespace {

void* OpenLibrary(const std::string& path, std::string& error) {
#if defined(_WIN32)
    HMODULE handle = LoadLibraryA(path.c_str());
    if (!handle) error = "cannot load " + path + " (error " + std::to_string(GetLastError()) + ")";
    return reinterpret_cast<void*>(handle);
#else
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = dlerror();
        error = "cannot load " + path + ": " + (why ? why : "unknown error");
    }
    return handle;
#endif
}

void CloseLibrary(void* handle) {
#if defined(_WIN32)
    FreeLibrary(reinterpret_cast<HMODULE>(handle));
#else
    dlclose(handle);
#endif
}

template <class Fn>
void Resolve(const PluginModule& module, const char* name, Fn& out, const std::string& path) {
    out = reinterpret_cast<Fn>(module.FindSymbol(name));
    if (!out) throw PluginLoadError(path + " does not export " + name);
}

}  // namespace

const char* PluginFileName() {
#if defined(_WIN32)
    return "zerpha_inbuilt_renderercpu.dll";
#else
    return "zerpha_inbuilt_renderercpu.so";
#endif
}

PluginModule::PluginModule(const std::string& path) {
    std::string error;
    handle_ = OpenLibrary(path, error);
    if (!handle_) throw PluginLoadError(error);
    try {
        Resolve(*this, "CheckModuleParameters", checkModuleParameters, path);
        Resolve(*this, "InitModule", initModule, path);
        Resolve(*this, "DoModule", doModule, path);
        Resolve(*this, "DeInitModule", deInitModule, path);
        Resolve(*this, "GetProgress", getProgress, path);
        Resolve(*this, "InteropCustomWork", interopCustomWork, path);
        Resolve(*this, "GetModuleSpecification", getModuleSpecification, path);
    } catch (...) {
        CloseLibrary(handle_);
        throw;
    }
}

PluginModule::~PluginModule() {
    if (handle_) CloseLibrary(handle_);
}

void* PluginModule::FindSymbol(const char* name) const {
#if defined(_WIN32)
    return reinterpret_cast<void*>(GetProcAddress(reinterpret_cast<HMODULE>(handle_), name));
#else
    return dlsym(handle_, name);
#endif
}

}  // namespace zrobjects
