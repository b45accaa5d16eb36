#include "korv/system/schema.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "korv/system/database.h"
#include "korv/system/schema_sql.h"

namespace korv {

namespace {

constexpr int kSchemaVersion = 6;

// Version 2 keeps remote mounts.
constexpr const char* kToVersion2 = R"sql(
create table mount (
    mount_point     text primary key,
    share           text not null,
    token           text not null unique,
    type            text not null,
    source          text not null,
    options         text not null,
    owner           text not null,
    auto_mount      integer not null,
    state           text not null,
    maker_pid       integer not null,
    maker_start     integer not null,
    maker_boot_id   text not null,
    is_folder_made  integer not null,
    guard           integer not null,
    guard_mode      integer not null,
    status          integer not null,
    last_error      integer not null,
    failures        integer not null,
    next_try_s      integer not null
) without rowid;
)sql";

// Version 3 keeps renames, removals and jobs.
constexpr const char* kToVersion3 = R"sql(
create table share_rename (
    token          text primary key,
    name_key       text not null unique,
    name           text not null,
    maker_pid      integer not null,
    maker_start    integer not null,
    maker_boot_id  text not null
) without rowid;
create table share_removal (
    token          text primary key,
    name           text not null,
    vol_path       text not null,
    is_hidden      integer not null,
    next_try_s     integer not null,
    maker_pid      integer not null,
    maker_start    integer not null,
    maker_boot_id  text not null
) without rowid;
create table job (
    id               integer primary key autoincrement,
    kind             text not null,
    share_token      text not null,
    share            text not null,
    state            text not null,
    is_cancel_asked  integer not null default 0,
    error            integer not null default 0,
    percent          integer not null default 0,
    step             integer not null default 0,
    reason           integer not null default 0,
    total_bytes      integer not null default 0,
    copied_bytes     integer not null default 0,
    verified_bytes   integer not null default 0,
    changed_since_s  integer not null default 0,
    next_try_s       integer not null default 0,
    created_s        integer not null,
    ended_s          integer not null default 0,
    runner_pid       integer not null default 0,
    runner_start     integer not null default 0,
    runner_boot_id   text not null default ''
);
create unique index job_under_way on job (share_token) where state in ('waiting', 'progressing');
)sql";

// Version 4 knows when a job has exchanged its folders.
constexpr const char* kToVersion4 = "alter table job add column switched_s integer not null default 0;";

// Version 5 knows which mounts have an account.
constexpr const char* kToVersion5 = "alter table mount add column has_account integer not null default 0;";

// Version 6 knows what shares were called before.
constexpr const char* kToVersion6 = R"sql(
alter table share add column former_name text not null default '';
create index share_former_name on share (former_name) where former_name <> '';
)sql";

int VersionOf(soci::session& session) {
    int version = 0;
    session << "pragma user_version", soci::into(version);
    return version;
}

void Upgrade(soci::session& session, const Schema& schema, int version) {
    while (version < schema.version) {
        const auto step = std::find_if(schema.upgrades.begin(), schema.upgrades.end(),
                                       [version](const SchemaUpgrade& each) { return each.from == version; });
        if (step == schema.upgrades.end()) {
            throw std::runtime_error("the database is of version " + std::to_string(version) +
                                     ", which this program no longer upgrades");
        }
        ExecuteScript(session, step->script);
        ++version;
    }
}

}  // namespace

const Schema& CurrentSchema() {
    static constexpr std::array<SchemaUpgrade, 5> kUpgrades{
        {{1, kToVersion2}, {2, kToVersion3}, {3, kToVersion4}, {4, kToVersion5}, {5, kToVersion6}}};
    static const Schema schema{kSchemaVersion, kSchemaSql, kUpgrades};
    return schema;
}

void ApplySchema(soci::session& session, const Schema& schema) {
    if (VersionOf(session) == schema.version) {
        return;
    }
    WriteTransaction transaction(session);
    const int version = VersionOf(session);
    if (version > schema.version) {
        throw std::runtime_error("the database is of version " + std::to_string(version) +
                                 ", newer than this program's " + std::to_string(schema.version));
    }
    if (version == 0) {
        ExecuteScript(session, schema.fresh);
    } else {
        Upgrade(session, schema, version);
    }
    session << "pragma user_version = " << schema.version;
    transaction.Commit();
}

}  // namespace korv
