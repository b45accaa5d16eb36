#pragma once

#include <json/json.h>

#include "platform/korv/api_runner.h"

#include "korv/framework/api_registry.h"
#include "korv/framework/module_loader.h"
#include "tests/unit/pavane/test_node.h"

// The application's own web APIs, in the module as the framework loads it.
class LoadedApi : public StoreTest {
protected:
    LoadedApi() { EXPECT_TRUE(IsLoaded()); }

    static Json::Value Call(const char* api, const char* method, const Json::Value& params,
                            const char* user = "admin") {
        Json::Value response;
        KORV::APIRunner::Exec(response, api, 1, method, params, user);
        return response;
    }

private:
    static bool IsLoaded() {
        static const bool loaded = (korv::LoadModules({PAVANE_API_MODULE}, korv::Registry()), true);
        return loaded;
    }
};
