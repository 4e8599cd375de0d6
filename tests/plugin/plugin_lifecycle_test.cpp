// The built plug-in loaded with dlopen, driven through its exports by name.
// What DoModule answers is checked in process (module/dispatch_test.cpp) and
// through these exports by the end-to-end suite.
#include <gtest/gtest.h>

#include <any>
#include <string>
#include <vector>

#include "host/host_services.h"
#include "host/plugin_loader.h"

using namespace zrobjects;

namespace {

PluginModule& Plugin() {
    static PluginModule plugin(ZR_PLUGIN_PATH);
    return plugin;
}

void NotCalled(void*) {}

}  // namespace

TEST(PluginExports, EveryEntryPointResolvesByNameAndNothingElseIsVisible) {
    PluginModule& plugin = Plugin();
    EXPECT_NE(plugin.FindSymbol("DoModule"), nullptr);
    EXPECT_EQ(plugin.FindSymbol("_ZN8zrmodule14ModuleProgressEv"), nullptr);
    EXPECT_EQ(plugin.FindSymbol("_ZN8zrmodule15DispatchRequestERN9zrobjects13ModuleRequestE"), nullptr);
    EXPECT_TRUE(plugin.checkModuleParameters());
}

TEST(PluginExports, MissingLibrariesAreReportedByName) {
    try {
        PluginModule missing("/nonexistent/zerpha_inbuilt_renderercpu.so");
        FAIL();
    } catch (const PluginLoadError& e) {
        EXPECT_NE(std::string(e.what()).find("/nonexistent/zerpha_inbuilt_renderercpu.so"), std::string::npos);
    }
}

TEST(PluginLifecycle, InitLogsTheCoreVersion) {
    TakeLogLines();
    EXPECT_TRUE(Plugin().initModule());
    const auto lines = TakeLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "Plugin: CPU Renderer using Core v(1.21)");
    Plugin().deInitModule();
    Plugin().deInitModule();  // safe with no smoothing kernel held
}

TEST(PluginQueries, SpecificationAppendsWindowsAtTheEnd) {
    std::vector<std::string> entries{"A", "B"};
    Plugin().getModuleSpecification(&entries);
    EXPECT_EQ(entries, (std::vector<std::string>{"A", "B", "WINDOWS"}));
}

TEST(PluginQueries, InteropHandsOutADelegateOnlyIntoANonNullSlot) {
    PluginModule& plugin = Plugin();
    ModuleRequest absent;
    plugin.interopCustomWork(&absent);
    EXPECT_TRUE(absent.params.empty());

    ModuleRequest nullSlot;
    nullSlot.params["_outptr_delegate_EndBgThread"] = static_cast<Delegate*>(nullptr);
    plugin.interopCustomWork(&nullSlot);
    EXPECT_EQ(std::any_cast<Delegate*>(nullSlot.params["_outptr_delegate_EndBgThread"]), nullptr);

    Delegate slot = &NotCalled;
    ModuleRequest withSlot;
    withSlot.params["_outptr_delegate_EndBgThread"] = &slot;
    plugin.interopCustomWork(&withSlot);
    ASSERT_NE(slot, nullptr);
    EXPECT_NE(slot, &NotCalled);
    slot(nullptr);  // the delegate does nothing, whatever it is given
    int data = 3;
    slot(&data);
    EXPECT_EQ(data, 3);

    ModuleRequest wrongType;
    wrongType.params["_outptr_delegate_EndBgThread"] = &data;
    EXPECT_THROW(plugin.interopCustomWork(&wrongType), std::bad_any_cast);
}
