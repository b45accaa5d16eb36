// What uses the shares: applications, cameras, and the walk over recording servers.

#include "platform/pavane/application.h"
#include "platform/pavane/camera.h"
#include "platform/pavane/cms.h"
#include "platform/pavane/rec_share.h"

#include "tests/fake/director.h"
#include "tests/fake/records.h"

using fake::Args;
using fake::Ask;

const std::string& Camera::GetName() const { return m_name; }
const std::string& Camera::GetIp() const { return m_ip; }
int Camera::GetOccupied() const { return m_occupiedMB; }
bool Camera::IsRotatedBySpace() const { return m_isRotatedBySpace; }
int Camera::GetRotationBySpace() const { return m_rotationBySpaceMB; }

int LoadAllUsingCam(std::list<Camera>& cameras, int shareId, bool withStatus) {
    const Json::Value reply =
        Ask("LoadAllUsingCam", Args(shareId, withStatus, static_cast<int>(cameras.size())));
    for (const Json::Value& fields : reply["cameras"]) {
        cameras.push_back(fake::ToCamera(fields));
    }
    return reply["result"].asInt();
}

int CheckRecShareStatus(int id) { return Ask("CheckRecShareStatus", Args(id)).asInt(); }

std::array<ApplicationTrait, kApplicationCount> ApplicationTraits() {
    std::array<ApplicationTrait, kApplicationCount> traits;
    const Json::Value reply = Ask("ApplicationTraits", Args());
    for (const Json::Value& fields : reply) {
        std::map<std::string, std::string> names;
        const Json::Value& given = fields["name"];
        for (const std::string& language : given.getMemberNames()) {
            names[language] = given[language].asString();
        }
        traits.at(fields["id"].asUInt()) =
            ApplicationTrait(MultilangString(names), fields.get("compatible", true).asBool(),
                             fields.get("enabled", true).asBool());
    }
    return traits;
}

SlaveRVMgr::SlaveRVMgr(bool load) {
    for (const Json::Value& fields : Ask("SlaveRVMgr::SlaveRVMgr", Args(load))) {
        m_servers.push_back(fake::ToSlaveRV(fields));
    }
}

const std::list<SlaveRV>& SlaveRVMgr::GetSlaveRVList() const { return m_servers; }
