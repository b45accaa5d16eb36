// A module library for framework_module_test.cpp.
#include "platform/korv/api_table.h"
#include "platform/korv/host.h"

namespace {

void Ping(KORV::APIRequest* /*request*/, KORV::APIResponse* response) { response->SetSuccess("pong"); }

const KORV::APITableRow kTable[] = {{"Probe", 1, "ping", Ping}, {nullptr, 0, nullptr, nullptr}};

}  // namespace

extern "C" const KORV::APITableRow* GetAPITable() { return kTable; }

extern "C" void OnModuleLoaded() {
    KORV::RegisterHealthCheck("probe", [] { return std::string("probe was started"); });
}
