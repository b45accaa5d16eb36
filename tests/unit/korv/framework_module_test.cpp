// Loading of module libraries.
#include <stdexcept>

#include <gtest/gtest.h>

#include "korv/framework/host.h"
#include "korv/framework/module_loader.h"

namespace {

void ExpectRefusal(const std::vector<std::string>& modules, const std::string& named) {
    korv::ApiRegistry registry;
    try {
        korv::LoadModules(modules, registry);
        FAIL() << "loaded";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find(named), std::string::npos) << error.what();
    }
}

TEST(ModuleLoader, RefusesWhatIsNoModuleByName) {
    ExpectRefusal({"/nonexistent/m.so"}, "/nonexistent/m.so");
    ExpectRefusal({"libm.so.6"}, "GetAPITable");
}

TEST(ModuleLoader, StartsNoModuleUnlessAllCanBeLoaded) {
    ExpectRefusal({PROBE_MODULE, "/nonexistent/m.so"}, "/nonexistent/m.so");
    ExpectRefusal({PROBE_MODULE, PROBE_MODULE}, "two method tables");
    EXPECT_EQ(korv::FailedHealthCheck(), "");
}

TEST(ModuleLoader, AddsTheTableAndStartsTheModule) {
    korv::ApiRegistry registry;
    korv::LoadModules({PROBE_MODULE}, registry);
    EXPECT_NE(registry.Find("Probe", 1, "ping").entry, nullptr);
    EXPECT_EQ(korv::FailedHealthCheck(), "probe: probe was started");
}

}  // namespace
