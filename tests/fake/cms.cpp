// Central management: roles, recording servers, sends between servers, pairing.

#include "platform/pavane/cms.h"

#include "tests/fake/director.h"
#include "tests/fake/records.h"

using fake::Args;
using fake::Ask;

namespace {

int TakeReply(const Json::Value& scripted, Json::Value& reply) {
    reply = scripted["reply"];
    return scripted["result"].asInt();
}

int TakeServer(const Json::Value& scripted, SlaveRV& server) {
    const int result = scripted["result"].asInt();
    if (result == 0) {
        server = fake::ToSlaveRV(scripted["server"]);
    }
    return result;
}

}  // namespace

bool IsCmsHost() { return Ask("IsCmsHost", Args()).asBool(); }
bool IsCmsPaired() { return Ask("IsCmsPaired", Args()).asBool(); }
bool IsEnableCms() { return Ask("IsEnableCms", Args()).asBool(); }
int GetRecServerOwnStatus() { return Ask("GetRecServerOwnStatus", Args()).asInt(); }

SlaveRV::SlaveRV() = default;
int SlaveRV::Load(int id) { return TakeServer(Ask("SlaveRV::Load", Args(id)), *this); }
int SlaveRV::GetId() const { return m_id; }
std::string SlaveRV::GetKey() const { return m_key; }
bool SlaveRV::GetEnable() const { return m_enable; }
RV_STATUS SlaveRV::GetStatus() const { return m_status; }

int SlaveRvGetList(std::list<SlaveRV>& list, int rvId) {
    const Json::Value reply = Ask("SlaveRvGetList", Args(rvId));
    list.clear();
    for (const Json::Value& fields : reply["servers"]) {
        list.push_back(fake::ToSlaveRV(fields));
    }
    return reply["result"].asInt();
}

std::list<int> GetSlaveRvIdList(bool enabledOnly, bool onlineOnly, bool withFailover, bool withoutOwner,
                                bool sameVersion) {
    std::list<int> ids;
    for (const Json::Value& id :
         Ask("GetSlaveRvIdList", Args(enabledOnly, onlineOnly, withFailover, withoutOwner, sameVersion))) {
        ids.push_back(id.asInt());
    }
    return ids;
}

int GetSlaveRVById(int id, SlaveRV& server) { return TakeServer(Ask("GetSlaveRVById", Args(id)), server); }

bool IsRvOnlineSts(RV_STATUS status) { return Ask("IsRvOnlineSts", Args(static_cast<int>(status))).asBool(); }
bool IsRvOnline(int rvId) { return Ask("IsRvOnline", Args(rvId)).asBool(); }
bool IsRunTimeFailoverRv(int rvId) { return Ask("IsRunTimeFailoverRv", Args(rvId)).asBool(); }

int SendWebAPIToHost(const Json::Value& request, bool binary, Json::Value& reply, int wait_s,
                     void (*progress)(), int retries) {
    const Json::Value given = progress != nullptr ? Json::Value("set") : Json::Value();
    return TakeReply(Ask("SendWebAPIToHost", Args(request, binary, wait_s, given, retries)), reply);
}

int SendWebAPIToRecServerByJson(int rvId, const Json::Value& request, bool binary, Json::Value& reply) {
    return TakeReply(Ask("SendWebAPIToRecServerByJson", Args(rvId, request, binary)), reply);
}

bool IsAuthPairMatch(const std::string& pairKey, const std::string& stamp) {
    return Ask("IsAuthPairMatch", Args(pairKey, stamp)).asBool();
}

bool SlaveRVAuthentication::IsAuthByPairMatch(const std::string& pairKey, const std::string& stamp) {
    return Ask("SlaveRVAuthentication::IsAuthByPairMatch", Args(pairKey, stamp)).asBool();
}
