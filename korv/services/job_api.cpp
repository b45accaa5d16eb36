// The web API "KORV.Core.Job": long work on shares.

#include <map>
#include <string>

#include "platform/korv/api_table.h"

#include "korv/framework/builtin_tables.h"
#include "korv/services/request_values.h"
#include "korv/services/share_change_api.h"
#include "korv/services/share_error.h"
#include "korv/system/job_store.h"
#include "korv/system/move_job.h"
#include "korv/system/share_store.h"

namespace {

constexpr const char* kApi = "KORV.Core.Job";

// The names of the shares there are, by token.
std::map<std::string, std::string> ShareNames() {
    std::map<std::string, std::string> names;
    for (const korv::ShareRow& share : korv::ListShares()) {
        names[share.token] = share.name;
    }
    return names;
}

Json::Value JobData(const korv::JobRow& job, const std::map<std::string, std::string>& names) {
    const auto name = names.find(job.shareToken);
    Json::Value data(Json::objectValue);
    data["id"] = std::to_string(job.id);
    data["kind"] = korv::NameOf(job.kind);
    data["share"] = name != names.end() ? name->second : job.share;
    data["state"] = korv::NameOf(job.state);
    data["percent"] = job.percent;
    data["finish"] = job.IsOver();
    data["cancelling"] = job.isCancelAsked && !job.IsOver();
    data["error"] = korv::ErrorOf(job.error);
    data["total_bytes"] = Json::UInt64(job.move.total_bytes);
    data["created_s"] = Json::Int64(job.created_s);
    data["ended_s"] = Json::Int64(job.ended_s);
    return data;
}

void List(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!korv::AdmitAdministrator(*request, *response)) {
        return;
    }
    const std::map<std::string, std::string> names = ShareNames();
    Json::Value jobs(Json::arrayValue);
    for (const korv::JobRow& job : korv::ListJobs()) {
        jobs.append(JobData(job, names));
    }
    Json::Value data(Json::objectValue);
    data["total"] = jobs.size();
    data["jobs"] = std::move(jobs);
    response->SetSuccess(data);
}

void Cancel(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!korv::AdmitAdministrator(*request, *response)) {
        return;
    }
    const std::string id = korv::StringOf(korv::ParamsOf(*request), "id", "");
    switch (korv::CancelJob(korv::ParseJobId(id))) {
        case korv::CancelEnd::kDone:
            response->SetSuccess(Json::Value());
            break;
        case korv::CancelEnd::kUnknown:
            response->SetError(korv::kJobUnknown, Json::Value());
            break;
        case korv::CancelEnd::kTooLate:
            response->SetError(korv::kJobTooLate, Json::Value());
            break;
    }
}

}  // namespace

const KORV::APITableRow* korv::JobTable() {
    static constexpr KORV::APITableRow kTable[] = {
        {kApi, 1, "list", List},
        {kApi, 1, "cancel", Cancel},
        {nullptr, 0, nullptr, nullptr},
    };
    return kTable;
}
