// "ListShareUsage": which applications keep data in which shared folders.

#include <list>
#include <map>
#include <string>

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

std::string ConditionFor(int shareId) {
    return shareId == kAllShares ? "" : " WHERE share_id = " + std::to_string(shareId) + " ";
}

}  // namespace

bool ShareHandler::HandleLocalListShareUsage(Json::Value& result, int shareId) {
    std::list<SharedFolderStorage> rows;
    if (SharedFolderStorage::m_DBAccess.Enum(rows, ConditionFor(shareId), "", "") != 0) {
        return false;
    }
    const auto traits = ApplicationTraits();
    ShareStatusCache status;
    for (const SharedFolderStorage& row : rows) {
        if (shareId == kAllShares && row.shareId >= 0 && status.IsInOrder(row.shareId)) {
            continue;
        }
        Json::Value entry(Json::objectValue);
        entry["name"] = row.name;
        entry["share_id"] = row.shareId;
        entry["application_id"] = Json::Int64{row.applicationId};
        entry["rvId"] = 0;
        if (static_cast<unsigned int>(row.applicationId) < traits.size()) {
            const ApplicationTrait& trait = traits[static_cast<std::size_t>(row.applicationId)];
            if (!trait.IsCompatible()) {
                continue;
            }
            entry["app"]["enabled"] = trait.IsEnabled();
            entry["app"]["name"] = PVJson::JsonConverter<MultilangString, void>::ToJson(trait.GetName());
        }
        result["usage"].append(entry);
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
