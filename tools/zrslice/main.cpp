// zrslice: the command-line host. Loads the render plug-in, builds a scene,
// runs requests through DoModule and reports what came back.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "host/image_builder.h"
#include "host/plugin_loader.h"
#include "host/zrobjects.h"

namespace {

std::string DefaultPluginPath(const char* argv0) {
    std::error_code ec;
    auto self = std::filesystem::canonical("/proc/self/exe", ec);
    const auto dir = ec ? std::filesystem::path(argv0).parent_path() : self.parent_path();
    return (dir / zrobjects::PluginFileName()).string();
}

// Runs the plug-in through the host's lifecycle on an empty section view.
int RunLifecycle(const std::string& pluginPath) {
    zrobjects::PluginModule plugin(pluginPath);
    plugin.initModule();
    for (const auto& line : zrobjects::GetLogLines()) std::printf("log: %s\n", line.c_str());

    std::vector<std::string> specification;
    plugin.getModuleSpecification(&specification);
    std::printf("specification: %s\n", specification.empty() ? "" : specification.back().c_str());

    auto image = zrobjects::MakeSectionImage({});
    zrobjects::ModuleRequest request;
    request.params["_ZrIObject*_RenderOut"] = image.get();
    request.params["_string_RenderingSourceType"] = std::string("SECTIONAL_VOLUME");
    const bool ok = plugin.doModule(&request);
    std::printf("DoModule: %s, progress %.1f\n", ok ? "true" : "false", plugin.getProgress());
    plugin.deInitModule();
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::string plugin = argc > 2 && std::string(argv[1]) == "--plugin" ? argv[2] : DefaultPluginPath(argv[0]);
        return RunLifecycle(plugin);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "zrslice: %s\n", e.what());
        return 1;
    }
}
