// A module that answers a ready text of the size asked for: what the worker, the wire and nginx cost by
// themselves, beside a method that does work. API "KORV.Bench.Ready" v1 "get" {"bytes": n}.

#include <string>

#include <json/json.h>

#include "platform/korv/api_table.h"

namespace {

void Get(KORV::APIRequest* request, KORV::APIResponse* response) {
    static std::string text;
    const Json::UInt bytes = request->GetParam("bytes", 0).asUInt();
    if (text.size() != bytes) {
        text.assign(bytes, 'x');
    }
    response->SetSuccess(text);
}

constexpr KORV::APITableRow kTable[] = {
    {"KORV.Bench.Ready", 1, "get", Get},
    {nullptr, 0, nullptr, nullptr},
};

}  // namespace

extern "C" const KORV::APITableRow* GetAPITable() { return kTable; }
