#include "korv/system/mount_record.h"

#include <soci/soci.h>

#include "korv/system/database.h"

namespace korv {

namespace {

constexpr const char* kMaking = "making";
constexpr const char* kKept = "kept";
constexpr const char* kRemoving = "removing";

// A row as the database types it.
struct Cells {
    std::string mountPoint, share, token, type, source, options, owner, state, makerBootId;
    int isAutomatic = 0, makerPid = 0, isFolderMade = 0, guard = 0, guardMode = 0, status = 0, lastError = 0,
        failures = 0, hasAccount = 0;
    long long makerStart = 0, nextTry_s = 0;
};

const char* TextOf(MountState state) {
    switch (state) {
        case MountState::kMaking:
            return kMaking;
        case MountState::kRemoving:
            return kRemoving;
        default:
            return kKept;
    }
}

MountState StateOf(const std::string& text) {
    if (text == kMaking) {
        return MountState::kMaking;
    }
    return text == kRemoving ? MountState::kRemoving : MountState::kKept;
}

MountRow ToRow(const Cells& cells) {
    MountRow row;
    row.mountPoint = cells.mountPoint;
    row.share = cells.share;
    row.token = cells.token;
    row.type = RemoteTypeOf(cells.type).value_or(RemoteType::kCifs);
    row.source = cells.source;
    row.options = cells.options;
    row.owner = cells.owner;
    row.isAutomatic = cells.isAutomatic != 0;
    row.state = StateOf(cells.state);
    row.maker = {cells.makerPid, cells.makerStart, cells.makerBootId};
    row.isFolderMade = cells.isFolderMade != 0;
    row.guard = static_cast<MountGuard>(cells.guard);
    row.guardMode = static_cast<mode_t>(cells.guardMode);
    row.isNormal = cells.status == 0;
    row.lastError = cells.lastError;
    row.failures = cells.failures;
    row.nextTry_s = cells.nextTry_s;
    row.hasAccount = cells.hasAccount != 0;
    return row;
}

Cells ToCells(const MountRow& row) {
    Cells cells;
    cells.mountPoint = row.mountPoint;
    cells.share = row.share;
    cells.token = row.token;
    cells.type = TextOf(row.type);
    cells.source = row.source;
    cells.options = row.options;
    cells.owner = row.owner;
    cells.isAutomatic = row.isAutomatic ? 1 : 0;
    cells.state = TextOf(row.state);
    cells.makerPid = row.maker.pid;
    cells.makerStart = row.maker.start;
    cells.makerBootId = row.maker.bootId;
    cells.isFolderMade = row.isFolderMade ? 1 : 0;
    cells.guard = static_cast<int>(row.guard);
    cells.guardMode = static_cast<int>(row.guardMode);
    cells.status = row.isNormal ? 0 : 1;
    cells.lastError = row.lastError;
    cells.failures = row.failures;
    cells.nextTry_s = row.nextTry_s;
    cells.hasAccount = row.hasAccount ? 1 : 0;
    return cells;
}

// Where the mount is; a rename of the share changes that under whoever holds the row.
void BindPlace(soci::statement& statement, const Cells& cells) {
    statement.exchange(soci::use(cells.mountPoint, "mount_point"));
    statement.exchange(soci::use(cells.share, "share"));
}

// Binds all other cells by the names of their columns.
void BindFacts(soci::statement& statement, const Cells& cells) {
    statement.exchange(soci::use(cells.token, "token"));
    statement.exchange(soci::use(cells.type, "type"));
    statement.exchange(soci::use(cells.source, "source"));
    statement.exchange(soci::use(cells.options, "options"));
    statement.exchange(soci::use(cells.owner, "owner"));
    statement.exchange(soci::use(cells.isAutomatic, "auto_mount"));
    statement.exchange(soci::use(cells.state, "state"));
    statement.exchange(soci::use(cells.makerPid, "maker_pid"));
    statement.exchange(soci::use(cells.makerStart, "maker_start"));
    statement.exchange(soci::use(cells.makerBootId, "maker_boot_id"));
    statement.exchange(soci::use(cells.isFolderMade, "is_folder_made"));
    statement.exchange(soci::use(cells.guard, "guard"));
    statement.exchange(soci::use(cells.guardMode, "guard_mode"));
    statement.exchange(soci::use(cells.status, "status"));
    statement.exchange(soci::use(cells.lastError, "last_error"));
    statement.exchange(soci::use(cells.failures, "failures"));
    statement.exchange(soci::use(cells.nextTry_s, "next_try_s"));
    statement.exchange(soci::use(cells.hasAccount, "has_account"));
}

// True when a row was changed.
bool Run(const MountRow& row, bool withPlace, const char* text) {
    const Cells cells = ToCells(row);
    soci::statement statement(Database());
    if (withPlace) {
        BindPlace(statement, cells);
    }
    BindFacts(statement, cells);
    statement.alloc();
    statement.prepare(text);
    statement.define_and_bind();
    statement.execute(true);
    return statement.get_affected_rows() == 1;
}

std::vector<MountRow> Select(const std::string& condition, const std::string& value) {
    Cells cells;
    soci::statement statement =
        (Database().prepare
             << "select mount_point, share, token, type, source, options, owner, auto_mount,"
                " state, maker_pid, maker_start, maker_boot_id, is_folder_made, guard,"
                " guard_mode, status, last_error, failures, next_try_s, has_account from mount "
             << condition,
         soci::into(cells.mountPoint), soci::into(cells.share), soci::into(cells.token),
         soci::into(cells.type), soci::into(cells.source), soci::into(cells.options), soci::into(cells.owner),
         soci::into(cells.isAutomatic), soci::into(cells.state), soci::into(cells.makerPid),
         soci::into(cells.makerStart), soci::into(cells.makerBootId), soci::into(cells.isFolderMade),
         soci::into(cells.guard), soci::into(cells.guardMode), soci::into(cells.status),
         soci::into(cells.lastError), soci::into(cells.failures), soci::into(cells.nextTry_s),
         soci::into(cells.hasAccount), soci::use(value, "value"));
    statement.execute();
    std::vector<MountRow> rows;
    while (statement.fetch()) {
        rows.push_back(ToRow(cells));
    }
    return rows;
}

}  // namespace

std::vector<MountRow> ListMountRows() { return Select("where :value = '' order by mount_point", ""); }

std::optional<MountRow> FindMountRow(const std::string& mountPoint) {
    const auto rows = Select("where mount_point = :value", mountPoint);
    return rows.empty() ? std::nullopt : std::optional(rows.front());
}

std::optional<MountRow> FindMountRowByToken(const std::string& token) {
    const auto rows = Select("where token = :value", token);
    return rows.empty() ? std::nullopt : std::optional(rows.front());
}

bool AddMountRow(const MountRow& row) {
    return Run(row, true,
               "insert or ignore into mount (mount_point, share, token, type, source, options, owner,"
               " auto_mount, state, maker_pid, maker_start, maker_boot_id, is_folder_made, guard,"
               " guard_mode, status, last_error, failures, next_try_s, has_account) values (:mount_point, "
               ":share, :token,"
               " :type, :source, :options, :owner, :auto_mount, :state, :maker_pid, :maker_start,"
               " :maker_boot_id, :is_folder_made, :guard, :guard_mode, :status, :last_error, :failures,"
               " :next_try_s, :has_account)");
}

bool SaveMountRow(const MountRow& row) {
    return Run(
        row, false,
        "update mount set type = :type, source = :source, options = :options,"
        " owner = :owner, auto_mount = :auto_mount, state = :state, maker_pid = :maker_pid,"
        " maker_start = :maker_start, maker_boot_id = :maker_boot_id, is_folder_made = :is_folder_made,"
        " guard = :guard, guard_mode = :guard_mode, status = :status, last_error = :last_error,"
        " failures = :failures, next_try_s = :next_try_s, has_account = :has_account where token = :token");
}

void SaveMountStatus(const MountRow& row) {
    const Cells cells = ToCells(row);
    Database() << "update mount set status = :status, last_error = :last_error, failures = :failures,"
                  " next_try_s = :next_try_s where token = :token",
        soci::use(cells.status), soci::use(cells.lastError), soci::use(cells.failures),
        soci::use(cells.nextTry_s), soci::use(cells.token);
}

void SaveMountStatus(const MountRow& row, const MountRow& before) {
    const Cells cells = ToCells(row);
    const Cells old = ToCells(before);
    Database() << "update mount set status = :status, last_error = :last_error, failures = :failures,"
                  " next_try_s = :next_try_s where token = :token and status = :old_status"
                  " and last_error = :old_error and failures = :old_failures and next_try_s = :old_try_s",
        soci::use(cells.status), soci::use(cells.lastError), soci::use(cells.failures),
        soci::use(cells.nextTry_s), soci::use(cells.token), soci::use(old.status), soci::use(old.lastError),
        soci::use(old.failures), soci::use(old.nextTry_s);
}

void ForgetMountFailures() { Database() << "update mount set failures = 0, next_try_s = 0"; }

void DropMountRow(const std::string& token) {
    Database() << "delete from mount where token = :token", soci::use(token);
}

}  // namespace korv
