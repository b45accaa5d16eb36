#include "pavane/cms/server_registry.h"

#include <limits.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <list>

#include <soci/soci.h>

#include "platform/pavane/cms.h"

#include "pavane/cms/pairing.h"
#include "pavane/store/database.h"
#include "pavane/store/settings_table.h"

namespace pavane {

namespace {

constexpr const char* kHostRole = "host";
constexpr const char* kRecServerRole = "rec_server";
constexpr const char* kSelectServers =
    "select id, serial, name, address, enabled, status, version, standby, taken_over, problem, checked_s,"
    " seen_s from rec_server ";

std::vector<RecServerRecord> ReadServers(int id) {
    std::vector<RecServerRecord> servers;
    RecServerRecord row;
    int enabled = 0;
    int standby = 0;
    int takenOver = 0;
    long long checked_s = 0;
    long long seen_s = 0;
    auto bind = (AppDatabase().Session().prepare << kSelectServers << (id != 0 ? "where id = :id " : "")
                                                 << "order by id",
                 soci::into(row.id), soci::into(row.serial), soci::into(row.name), soci::into(row.address),
                 soci::into(enabled), soci::into(row.status), soci::into(row.version), soci::into(standby),
                 soci::into(takenOver), soci::into(row.problem), soci::into(checked_s), soci::into(seen_s));
    if (id != 0) {
        bind, soci::use(id);
    }
    soci::statement statement(bind);
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        row.enabled = enabled != 0;
        row.standby = standby != 0;
        row.takenOver = takenOver != 0;
        row.checked_s = checked_s;
        row.seen_s = seen_s;
        servers.push_back(row);
    }
    return servers;
}

// True when a statement that was prepared with its values changed a row.
bool Changes(soci::details::prepare_temp_type& bind) {
    soci::statement statement(bind);
    statement.execute(true);
    return statement.get_affected_rows() > 0;
}

void DeleteOf(soci::session& session, const char* table, const char* column, int id) {
    session << "delete from " << table << " where " << column << " = :id", soci::use(id);
}

}  // namespace

CmsRole GetCmsRole() {
    if (GetSetting("cms_enabled", "0") != "1") {
        return CmsRole::kNone;
    }
    const std::string role = GetSetting("cms_role", "");
    if (role == kHostRole) {
        return CmsRole::kHost;
    }
    return role == kRecServerRole ? CmsRole::kRecServer : CmsRole::kNone;
}

void SetCmsRole(CmsRole role) {
    SetSetting("cms_role", role == CmsRole::kHost        ? kHostRole
                           : role == CmsRole::kRecServer ? kRecServerRole
                                                         : "");
    SetSetting("rec_server_status", "0");
    SetSetting("cms_enabled", role == CmsRole::kNone ? "0" : "1");
    if (role != CmsRole::kHost) {  // nobody keeps the states from here on
        const int offline = RV_STATUS_OFFLINE;
        AppDatabase().Session() << "update rec_server set status = :status, problem = 'not_asked'",
            soci::use(offline);
    }
}

// Several processes may ask first at the same time: the first one's serial counts.
std::string OwnSerial() {
    constexpr const char* kName = "own_serial";
    std::string known = GetSetting(kName, "");
    if (!known.empty()) {
        return known;
    }
    const std::string name = kName;
    const std::string made = RandomHex(kSerialBytes);
    AppDatabase().Session() << "insert into setting (name, value) values (:name, :value)"
                               " on conflict (name) do nothing",
        soci::use(name), soci::use(made);
    return GetSetting(kName, made);
}

std::string OwnName() {
    std::array<char, HOST_NAME_MAX + 1> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "recorder";
}

std::vector<RecServerRecord> ListRecServers() { return ReadServers(0); }

std::optional<RecServerRecord> FindRecServer(int id) {
    const std::vector<RecServerRecord> found = id > 0 ? ReadServers(id) : std::vector<RecServerRecord>();
    return found.empty() ? std::nullopt : std::optional(found.front());
}

int StoreRecServer(const RecServerRecord& server, const PairingProof& proof) {
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    int id = 0;
    database.Session() << "insert into rec_server (serial, name, address, version, pair_secret, pinned_key)"
                          " values (:serial, :name, :address, :version, :secret, :key)"
                          " on conflict (serial) do update set name = excluded.name,"
                          " address = excluded.address, version = excluded.version,"
                          " pair_secret = excluded.pair_secret, pinned_key = excluded.pinned_key"
                          " returning id",
        soci::into(id), soci::use(server.serial), soci::use(server.name), soci::use(server.address),
        soci::use(server.version), soci::use(proof.secret), soci::use(proof.pinnedKey);
    transaction.Commit();
    return id;
}

bool RemoveRecServer(int id) {
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    auto bind = (database.Session().prepare << "delete from rec_server where id = :id", soci::use(id));
    if (!Changes(bind)) {
        return false;
    }
    DeleteOf(database.Session(), "recording_share", "owner_rv_id", id);
    DeleteOf(database.Session(), "camera", "owner_rv_id", id);
    transaction.Commit();
    return true;
}

bool SetRecServerEnabled(int id, bool enabled) {
    const int value = enabled ? 1 : 0;
    auto bind = (AppDatabase().Session().prepare << "update rec_server set enabled = :on where id = :id",
                 soci::use(value), soci::use(id));
    return Changes(bind);
}

bool SetRecServerFailover(int id, bool standby, bool takenOver) {
    const int standbyValue = standby ? 1 : 0;
    const int takenOverValue = takenOver ? 1 : 0;
    auto bind = (AppDatabase().Session().prepare
                     << "update rec_server set standby = :standby, taken_over = :taken where id = :id",
                 soci::use(standbyValue), soci::use(takenOverValue), soci::use(id));
    return Changes(bind);
}

void NoteRecServerState(int id, int status, const std::string& problem, const std::string& version,
                        bool answered) {
    const long long now_s = std::time(nullptr);
    const int seen = answered ? 1 : 0;
    const int withVersion = version.empty() ? 0 : 1;
    const std::string host = kHostRole;
    AppDatabase().Session()
        << "update rec_server set status = :status, problem = :problem, checked_s = :now,"
           " seen_s = case when :seen = 1 then :then else seen_s end,"
           " version = case when :with = 1 then :version else version end where id = :id"
           " and exists (select 1 from setting where name = 'cms_role' and value = :host)",
        soci::use(status), soci::use(problem), soci::use(now_s), soci::use(seen), soci::use(now_s),
        soci::use(withVersion), soci::use(version), soci::use(id), soci::use(host);
}

std::optional<HostRecord> PairedHost() {
    HostRecord host;
    long long checked_s = 0;
    long long seen_s = 0;
    soci::session& session = AppDatabase().Session();
    session << "select serial, name, address, problem, checked_s, seen_s from cms_host where id = 1",
        soci::into(host.serial), soci::into(host.name), soci::into(host.address), soci::into(host.problem),
        soci::into(checked_s), soci::into(seen_s);
    if (!session.got_data()) {
        return std::nullopt;
    }
    host.checked_s = checked_s;
    host.seen_s = seen_s;
    return host;
}

void StoreHost(const HostRecord& host, const PairingProof& proof) {
    const std::string ownSerial = OwnSerial();
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    database.Session() << "delete from cms_host";
    database.Session() << "insert into cms_host (id, own_serial, address, pair_secret, pinned_key, serial,"
                          " name) values (1, :own, :address, :secret, :key, :serial, :name)",
        soci::use(ownSerial), soci::use(host.address), soci::use(proof.secret), soci::use(proof.pinnedKey),
        soci::use(host.serial), soci::use(host.name);
    SetCmsRole(CmsRole::kRecServer);
    transaction.Commit();
}

void ForgetHost() {
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    database.Session() << "delete from cms_host";
    SetCmsRole(CmsRole::kNone);
    transaction.Commit();
}

void NoteHostState(const std::string& problem, bool answered) {
    const long long now_s = std::time(nullptr);
    const int seen = answered ? 1 : 0;
    AppDatabase().Session() << "update cms_host set problem = :problem, checked_s = :now,"
                               " seen_s = case when :seen = 1 then :then else seen_s end",
        soci::use(problem), soci::use(now_s), soci::use(seen), soci::use(now_s);
}

}  // namespace pavane
