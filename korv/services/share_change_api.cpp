#include "korv/services/share_change_api.h"

#include <charconv>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "korv/framework/log.h"
#include "korv/services/request_values.h"
#include "korv/services/share_error.h"
#include "korv/services/share_recovery.h"
#include "korv/system/job_store.h"
#include "korv/system/move_job.h"
#include "korv/system/samba_export.h"
#include "korv/system/share_name.h"
#include "korv/system/share_removal.h"
#include "korv/system/share_rename.h"
#include "korv/system/share_store.h"

namespace korv {

namespace {

void Export() {
    if (const std::string trouble = ExportSharesToSamba(); !trouble.empty()) {
        LogLine("the shares have changed but are not exported: " + trouble);
    }
}

// 0, or the code of what went wrong, which is logged with `what`.
int CodeOf(const ChangeOutcome& outcome, const std::string& what) {
    if (!outcome.reason.empty()) {
        LogLine(what + ": " + outcome.reason);
    }
    return ErrorOf(outcome.end);
}

// What the share is to become; what `info` doesn't name stays.
ShareRow Wanted(const ShareRow& share, const Json::Value& info) {
    ShareRow wanted = share;
    wanted.name = StringOf(info, "name", share.name);
    wanted.description = StringOf(info, "desc", share.description);
    wanted.isHidden = BoolOf(info, "hidden", share.isHidden);
    wanted.volPath = StringOf(info, "vol_path", share.volPath);
    return wanted;
}

// 0 when it may become that. Shares stay on their volume.
int Refusal(const ShareRow& share, const ShareRow& wanted) {
    if (wanted.volPath != share.volPath) {
        return kShareVolumeUnusable;
    }
    return IsValidShareName(wanted.name) ? 0 : kShareNameRefused;
}

// Whether the share's data have to move for what `info` says about encryption. What a job under way will
// bring about needs no other.
bool IsMoveWanted(const ShareRow& share, const Json::Value& info) {
    const bool isNow = share.encryption != ShareEncryption::kNone;
    const bool isWanted = BoolOf(info, "encryption", isNow);
    const auto job = FindJobUnderWay(share.token);
    const bool isToBe = job ? job->kind == JobKind::kEncrypt : isNow;
    return isWanted != isToBe;
}

// What can be seen to be impossible is refused before anything is changed.
ChangeOutcome Change(const ShareRow& share, const ShareRow& wanted, const Json::Value& info,
                     std::string& taskId) {
    const std::string password = StringOf(info, "enc_passwd", "");
    const bool isMoveWanted = IsMoveWanted(share, info);
    if (isMoveWanted && FindJobUnderWay(share.token)) {
        return {ChangeEnd::kBusy, "its data are being moved the other way"};
    }
    ChangeOutcome outcome = isMoveWanted ? CheckMove(share, password) : ChangeOutcome{ChangeEnd::kDone, ""};
    if (outcome.end != ChangeEnd::kDone) {
        return outcome;
    }
    outcome = ChangeShare(share, wanted);
    if (outcome.end != ChangeEnd::kDone || !isMoveWanted) {
        return outcome;
    }
    ShareRow changed = share;
    changed.name = wanted.name;
    long long id = 0;
    outcome = StartMove(changed, password, id);
    if (outcome.end != ChangeEnd::kDone) {
        outcome.reason += ChangeShare(changed, share).reason;
    }
    taskId = std::to_string(id);
    return outcome;
}

// The job that a request names by "task_id" or by the "name" of its share; otherwise the error is answered.
std::optional<JobRow> FindWantedJob(const Json::Value& params, KORV::APIResponse& response) {
    std::optional<JobRow> job;
    if (params.isMember("task_id")) {
        job = FindJob(ParseJobId(StringOf(params, "task_id", "")));
    } else if (const auto share = FindShare(StringOf(params, "name", ""))) {
        job = FindJobUnderWay(share->token);
    } else {
        response.SetError(kShareUnknown, Json::Value());
        return std::nullopt;
    }
    if (!job) {
        response.SetError(kJobUnknown, Json::Value());
    }
    return job;
}

// The names to delete, each once. One name or an array of them.
std::vector<std::string> NamesOf(const Json::Value& params) {
    const Json::Value& given = params["name"];
    std::vector<std::string> names;
    if (given.isString()) {
        return {given.asString()};
    }
    if (!given.isArray()) {
        Json::throwLogicError("name is neither a text nor an array");
    }
    std::set<std::string> seen;
    for (const Json::Value& each : given) {
        if (!each.isString()) {
            Json::throwLogicError("name holds something that is no text");
        }
        if (seen.insert(each.asString()).second) {
            names.push_back(each.asString());
        }
    }
    return names;
}

int Delete(const std::string& name) {
    const auto share = FindShare(name);
    if (!share) {
        return kShareUnknown;
    }
    return CodeOf(RemoveShare(*share), "the share " + share->Path() + " was not removed");
}

}  // namespace

long long ParseJobId(const std::string& text) {
    long long id = 0;
    const auto end = std::from_chars(text.data(), text.data() + text.size(), id);
    return end.ec == std::errc() && end.ptr == text.data() + text.size() ? id : 0;
}

int ErrorOf(ChangeEnd end) {
    switch (end) {
        case ChangeEnd::kDone:
            return 0;
        case ChangeEnd::kNameTaken:
            return kShareNameTaken;
        case ChangeEnd::kBusy:
            return kShareInUse;
        case ChangeEnd::kEncryptionRefused:
            return kShareEncryptionRefused;
        case ChangeEnd::kVolumeUnusable:
            return kShareVolumeUnusable;
        case ChangeEnd::kNoSpace:
            return kShareNoSpace;
        case ChangeEnd::kFailed:
            break;
    }
    return kShareFailed;
}

void SetShare(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!AdmitAdministrator(*request, *response)) {
        return;
    }
    const Json::Value params = ParamsOf(*request);
    const std::string name = StringOf(params, "name", "");
    const Json::Value info = ObjectOf(params, "shareinfo");
    RecoverDeadMakers();
    const auto share = FindShare(name);
    if (!share) {
        response->SetError(kShareUnknown, Json::Value());
        return;
    }
    const ShareRow wanted = Wanted(*share, info);
    int code = Refusal(*share, wanted);
    std::string taskId;
    if (code == 0) {
        code =
            CodeOf(Change(*share, wanted, info, taskId), "the share " + share->Path() + " was not changed");
    }
    if (code != 0) {
        response->SetError(code, Json::Value());
        return;
    }
    Export();
    Json::Value data(Json::objectValue);
    data["name"] = wanted.name;
    if (!taskId.empty()) {
        data["task_id"] = taskId;
    }
    response->SetSuccess(data);
}

// Clients look for "progressing" one level deeper than for the other states, and only that one is there.
void GetMoveStatus(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!AdmitAdministrator(*request, *response)) {
        return;
    }
    const auto job = FindWantedJob(ParamsOf(*request), *response);
    if (!job) {
        return;
    }
    const auto share = FindShareByToken(job->shareToken);
    Json::Value data(Json::objectValue);
    data["task_id"] = std::to_string(job->id);
    data["name"] = share ? share->name : job->share;
    data["status"] = NameOf(job->state);
    data["finish"] = job->IsOver();
    data["percent"] = job->percent;
    data["error"] = ErrorOf(job->error);
    if (job->state == JobState::kProgressing) {
        data["data"]["status"] = NameOf(job->state);
    }
    response->SetSuccess(data);
}

void DeleteShares(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!AdmitAdministrator(*request, *response)) {
        return;
    }
    const std::vector<std::string> names = NamesOf(ParamsOf(*request));
    RecoverDeadMakers();
    Json::Value data(Json::objectValue);
    data["failed"] = Json::Value(Json::arrayValue);
    int firstCode = 0;
    for (const std::string& name : names) {
        if (const int code = Delete(name); code != 0) {
            firstCode = firstCode == 0 ? code : firstCode;
            Json::Value failed(Json::objectValue);
            failed["name"] = name;
            failed["code"] = code;
            data["failed"].append(failed);
        }
    }
    Export();
    if (firstCode != 0) {
        response->SetError(firstCode, data);
    } else {
        response->SetSuccess(Json::Value());
    }
}

}  // namespace korv
