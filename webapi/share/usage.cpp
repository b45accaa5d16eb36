// "ListShareUsage": which applications keep data in which shared folders.

#include <array>
#include <list>
#include <map>
#include <string>
#include <utility>

#include <json/json.h>

#include "platform/pavane/application.h"
#include "platform/pavane/cms.h"
#include "platform/pavane/json.h"
#include "platform/pavane/rec_share.h"
#include "platform/pavane/shared_folder_storage.h"

#include "webapi/share/share_handler.h"

namespace {

constexpr int kAllShares = -1;
constexpr int kAllServers = -1;

// Asks for each share once.
class ShareStatusCache {
public:
    bool IsInOrder(int shareId) {
        const auto [row, isNew] = m_inOrder.try_emplace(shareId, false);
        if (isNew) {
            row->second = CheckRecShareStatus(shareId) == 0;
        }
        return row->second;
    }

private:
    std::map<int, bool> m_inOrder;
};

// What an entry says of its application; made once however many rows an application has.
class ApplicationTexts {
public:
    // A JSON null for an application that can't run; no value at all (nullptr) for one that isn't known.
    const Json::Value* Of(int applicationId) const {
        const auto index = static_cast<unsigned int>(applicationId);
        return index < m_texts.size() ? &m_texts[index] : nullptr;
    }

    ApplicationTexts() {
        const auto traits = ApplicationTraits();
        for (std::size_t i = 0; i < traits.size(); ++i) {
            if (traits[i].IsCompatible()) {
                m_texts[i]["enabled"] = traits[i].IsEnabled();
                m_texts[i]["name"] =
                    PVJson::JsonConverter<MultilangString, void>::ToJson(traits[i].GetName());
            }
        }
    }

private:
    std::array<Json::Value, kApplicationCount> m_texts;
};

// JsonCpp copies other keys for every entry.
const Json::StaticString kApp("app");
const Json::StaticString kApplicationId("application_id");
const Json::StaticString kName("name");
const Json::StaticString kRvId("rvId");
const Json::StaticString kShareId("share_id");

std::string ConditionFor(int shareId) {
    return shareId == kAllShares ? "" : " WHERE share_id = " + std::to_string(shareId) + " ";
}

}  // namespace

bool ShareHandler::HandleLocalListShareUsage(Json::Value& result, int shareId) {
    std::list<SharedFolderStorage> rows;
    if (SharedFolderStorage::m_DBAccess.Enum(rows, ConditionFor(shareId), "", "") != 0) {
        return false;
    }
    const ApplicationTexts applications;
    ShareStatusCache status;
    Json::Value& usage = result["usage"];
    for (const SharedFolderStorage& row : rows) {
        if (shareId == kAllShares && row.shareId >= 0 && status.IsInOrder(row.shareId)) {
            continue;
        }
        const Json::Value* application = applications.Of(row.applicationId);
        if (application != nullptr && application->isNull()) {
            continue;
        }
        Json::Value entry(Json::objectValue);
        entry[kName] = row.name;
        entry[kShareId] = row.shareId;
        entry[kApplicationId] = Json::Int64{row.applicationId};
        entry[kRvId] = 0;
        if (application != nullptr) {
            entry[kApp] = *application;
        }
        usage.append(std::move(entry));
    }
    return true;
}

bool ShareHandler::HandleRemoteListShareUsage(Json::Value& result, int rvId, int shareId) {
    if (rvId == kAllServers) {
        const SlaveRVMgr servers(true);
        for (const SlaveRV& server : servers.GetSlaveRVList()) {
            if (server.GetEnable() && IsRvOnlineSts(server.GetStatus()) &&
                !HandleRemoteListShareUsage(result, server.GetId(), shareId)) {
                return false;
            }
        }
        return true;
    }
    Json::Value wanted(Json::objectValue);
    wanted["shareId"] = shareId;
    PVJson::CopyProps(wanted, GetJsonAPIInfo("KORV.Pavane.Share", "ListShareUsage", 1));
    Json::Value reply;
    if (SendWebAPIToRecServerByJson(rvId, wanted, false, reply) != 0) {
        PV_LOG_SHARE_ERR("HandleRemoteListShareUsage", "Failed to send webapi to slave [%d]\n", rvId);
        SetErrorCode(PV_WEBAPI_ERR_OPERATION_FAILED, "", "");
        return false;
    }
    for (Json::Value entry : reply["data"]["usage"]) {
        entry["rvId"] = rvId;
        result["usage"].append(entry);
    }
    return true;
}

bool ShareHandler::CollectShareUsage(Json::Value& result, int shareId) {
    constexpr int kOwnerAnywhere = -1;
    if (shareId != kAllShares) {
        RecShare share;
        if (share.Load(shareId) != 0) {
            return false;
        }
        const int owner = share.GetOwnerRvId();
        if (owner == 0) {
            return HandleLocalListShareUsage(result, shareId);
        }
        if (owner != kOwnerAnywhere) {
            return HandleRemoteListShareUsage(result, owner, share.GetIdOnRec());
        }
        shareId = share.GetIdOnRec();
    }
    if (shareId != kAllShares) {
        return true;
    }
    return HandleLocalListShareUsage(result, kAllShares) &&
           (!IsCmsHost() || HandleRemoteListShareUsage(result, kAllServers, kAllShares));
}

void ShareHandler::HandleListShareUsage() {
    const int shareId = request->GetParam("shareId", kAllShares).asInt();
    Json::Value result(Json::objectValue);
    result["usage"] = Json::Value(Json::arrayValue);
    if (CollectShareUsage(result, shareId)) {
        response->SetSuccess(result);
        return;
    }
    SetErrorCode(PV_WEBAPI_ERR_OPERATION_FAILED, "", "");
    WriteErrorResponse(Json::Value());
}
