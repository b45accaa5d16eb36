// The recording servers that this host manages.

#include <exception>
#include <list>
#include <string>

#include <soci/soci.h>

#include "platform/pavane/cms.h"

#include "pavane/log_line.h"
#include "pavane/store/database.h"

namespace {

constexpr const char* kSource = "pavane/cms/rec_servers";

struct ServerRow {
    int id = 0;
    std::string serial;
    int enabled = 0;
    int status = 0;
};

}  // namespace

struct SlaveRVAccess {
    static SlaveRV FromRow(const ServerRow& row) {
        SlaveRV server;
        server.m_id = row.id;
        server.m_key = row.serial;
        server.m_enable = row.enabled != 0;
        server.m_status = static_cast<RV_STATUS>(row.status);
        return server;
    }
};

namespace {

struct AllServers : pavane::KeptQuery {
    explicit AllServers(soci::session& session) {
        Prepare((session.prepare << "select id, serial, enabled, status from rec_server order by id",
                 soci::into(row.id), soci::into(row.serial), soci::into(row.enabled),
                 soci::into(row.status)));
    }
    ServerRow row;
};

struct OneServer : pavane::KeptQuery {
    explicit OneServer(soci::session& session) {
        Prepare((session.prepare << "select id, serial, enabled, status from rec_server where id = :id",
                 soci::into(row.id), soci::into(row.serial), soci::into(row.enabled), soci::into(row.status),
                 soci::use(id)));
    }
    int id = 0;
    ServerRow row;
};

// The server `rvId`, or all for 0. Throws.
std::list<SlaveRV> ReadServers(int rvId) {
    std::list<SlaveRV> servers;
    if (rvId != 0) {
        auto& query = pavane::AppDatabase().Kept<OneServer>();
        query.id = rvId;
        if (query.Run()) {
            servers.push_back(SlaveRVAccess::FromRow(query.row));
        }
        return servers;
    }
    auto& query = pavane::AppDatabase().Kept<AllServers>();
    query.Run([&] { servers.push_back(SlaveRVAccess::FromRow(query.row)); });
    return servers;
}

}  // namespace

SlaveRV::SlaveRV() = default;
int SlaveRV::GetId() const { return m_id; }
std::string SlaveRV::GetKey() const { return m_key; }
bool SlaveRV::GetEnable() const { return m_enable; }
RV_STATUS SlaveRV::GetStatus() const { return m_status; }

int SlaveRV::Load(int id) { return GetSlaveRVById(id, *this); }

int SlaveRvGetList(std::list<SlaveRV>& list, int rvId) {
    list.clear();
    try {
        list = ReadServers(rvId);
        return 0;
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to read the recording servers: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        return -1;
    }
}

SlaveRVMgr::SlaveRVMgr(bool load) {
    if (load) {
        SlaveRvGetList(m_servers, 0);  // logs its failure; then there are none
    }
}

const std::list<SlaveRV>& SlaveRVMgr::GetSlaveRVList() const { return m_servers; }

int GetSlaveRVById(int id, SlaveRV& server) {
    std::list<SlaveRV> found;
    if (id <= 0 || SlaveRvGetList(found, id) != 0 || found.empty()) {
        return -1;
    }
    server = found.front();
    return 0;
}

std::list<int> GetSlaveRvIdList(bool enabledOnly, bool onlineOnly, bool withFailover, bool withoutOwner,
                                bool sameVersion) {
    std::list<int> ids;
    try {
        const std::string version = PAVANE_VERSION;
        const int online = RV_STATUS_ONLINE;
        int id = 0;
        auto bind =
            (pavane::AppDatabase().Session().prepare
                 << "select id from rec_server where 0 = 0" << (enabledOnly ? " and enabled = 1" : "")
                 << (withFailover ? "" : " and standby = 0") << (withoutOwner ? " and taken_over = 0" : "")
                 << (onlineOnly ? " and status = :status" : "")
                 << (sameVersion ? " and version = :version" : "") << " order by id",
             soci::into(id));
        if (onlineOnly) {
            bind, soci::use(online);
        }
        if (sameVersion) {
            bind, soci::use(version);
        }
        soci::statement statement(bind);
        for (bool more = statement.execute(true); more; more = statement.fetch()) {
            ids.push_back(id);
        }
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to read the recording servers' ids: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        ids.clear();
    }
    return ids;
}
