#include "korv/system/share_store.h"

#include <soci/soci.h>

#include "korv/system/database.h"
#include "korv/system/share_name.h"

namespace korv {

namespace {

constexpr const char* kUserKind = "user";
constexpr const char* kGroupKind = "group";
// share_grant.rights
constexpr int kReadWriteBit = 1;
constexpr int kReadOnlyBit = 2;

// Columns that share and share_creation have in common.
constexpr const char* kShareColumns =
    "name, vol_path, token, description, is_hidden, encryption, enable_share_cow, enable_fileindex,"
    " disable_modify, created_s";

// One row of either table as the database types it; the maker and is_moving are 0 where the table has none.
struct ShareCells {
    std::string name, volPath, token, description, makerBootId;
    int isHidden = 0, encryption = 0, isCow = 0, isFileIndexed = 0, isModifyDisabled = 0, isMoving = 0;
    int makerPid = 0;
    long long created_s = 0, makerStart = 0;

    ShareCreationRow Row() const {
        ShareCreationRow row;
        row.share = {name,
                     volPath,
                     token,
                     description,
                     isHidden != 0,
                     static_cast<ShareEncryption>(encryption),
                     isCow != 0,
                     isFileIndexed != 0,
                     isModifyDisabled != 0,
                     isMoving != 0,
                     created_s};
        row.maker = {makerPid, makerStart, makerBootId};
        return row;
    }
};

// Runs "select <share columns> <rest>"; `value` stands for every ":value" in it.
std::vector<ShareCreationRow> Select(const std::string& rest, const std::string& value) {
    ShareCells cells;
    soci::statement statement =
        (Database().prepare << "select " << kShareColumns << ", " << rest, soci::into(cells.name),
         soci::into(cells.volPath), soci::into(cells.token), soci::into(cells.description),
         soci::into(cells.isHidden), soci::into(cells.encryption), soci::into(cells.isCow),
         soci::into(cells.isFileIndexed), soci::into(cells.isModifyDisabled), soci::into(cells.created_s),
         soci::into(cells.isMoving), soci::into(cells.makerPid), soci::into(cells.makerStart),
         soci::into(cells.makerBootId), soci::use(value, "value"));
    statement.execute();
    std::vector<ShareCreationRow> rows;
    while (statement.fetch()) {
        rows.push_back(cells.Row());
    }
    return rows;
}

constexpr const char* kFromShare = "is_moving, 0, 0, '' from share ";
constexpr const char* kFromCreation = "0, maker_pid, maker_start, maker_boot_id from share_creation ";
// What makes a condition of the value that Select always binds, where every row is wanted.
constexpr const char* kEveryRow = "where :value = '' order by name";

// Inserts the cells of `row` that both tables have, and `rest`, which names further columns and values.
void InsertShare(const std::string& table, const ShareCreationRow& row, const std::string& moreColumns,
                 const std::string& moreValues) {
    const ShareRow& share = row.share;
    const std::string key = ShareNameKey(share.name);
    const int isHidden = share.isHidden, isCow = share.isCow, isFileIndexed = share.isFileIndexed,
              isModifyDisabled = share.isModifyDisabled, encryption = static_cast<int>(share.encryption);
    soci::statement statement(Database());
    statement.exchange(soci::use(key, "name_key"));
    statement.exchange(soci::use(share.name, "name"));
    statement.exchange(soci::use(share.volPath, "vol_path"));
    statement.exchange(soci::use(share.token, "token"));
    statement.exchange(soci::use(share.description, "description"));
    statement.exchange(soci::use(isHidden, "is_hidden"));
    statement.exchange(soci::use(encryption, "encryption"));
    statement.exchange(soci::use(isCow, "enable_share_cow"));
    statement.exchange(soci::use(isFileIndexed, "enable_fileindex"));
    statement.exchange(soci::use(isModifyDisabled, "disable_modify"));
    statement.exchange(soci::use(share.created_s, "created_s"));
    if (!moreColumns.empty()) {
        statement.exchange(soci::use(row.maker.pid, "maker_pid"));
        statement.exchange(soci::use(row.maker.start, "maker_start"));
        statement.exchange(soci::use(row.maker.bootId, "maker_boot_id"));
    }
    statement.alloc();
    statement.prepare("insert into " + table + " (name_key, " + kShareColumns + moreColumns +
                      ") values (:name_key, :name, :vol_path, :token, :description, :is_hidden, :encryption,"
                      " :enable_share_cow, :enable_fileindex, :disable_modify, :created_s" +
                      moreValues + ")");
    statement.define_and_bind();
    statement.execute(true);
}

}  // namespace

std::vector<ShareRow> ListShares() {
    std::vector<ShareRow> shares;
    for (ShareCreationRow& row : Select(std::string(kFromShare) + kEveryRow, "")) {
        shares.push_back(std::move(row.share));
    }
    return shares;
}

std::optional<ShareRow> FindShare(const std::string& name) {
    std::vector<ShareCreationRow> rows = Select(std::string(kFromShare) + "where name = :value", name);
    return rows.empty() ? std::nullopt : std::optional(std::move(rows.front().share));
}

std::optional<ShareRow> FindShareOfAnyCase(const std::string& name) {
    if (!IsValidShareName(name)) {
        return std::nullopt;
    }
    std::vector<ShareCreationRow> rows =
        Select(std::string(kFromShare) + "where name_key = :value", ShareNameKey(name));
    return rows.empty() ? std::nullopt : std::optional(std::move(rows.front().share));
}

std::optional<ShareRow> FindShareByToken(const std::string& token) {
    std::vector<ShareCreationRow> rows = Select(std::string(kFromShare) + "where token = :value", token);
    return rows.empty() ? std::nullopt : std::optional(std::move(rows.front().share));
}

bool IsShareNameTaken(const std::string& name, const std::string& exceptToken) {
    const std::string key = ShareNameKey(name);
    int count = 0;
    Database() << "select (select count(*) from share where name_key = :key and token <> :token)"
                  " + (select count(*) from share_creation where name_key = :key)"
                  " + (select count(*) from share_rename where name_key = :key and token <> :token)",
        soci::use(key, "key"), soci::use(exceptToken, "token"), soci::into(count);
    return count != 0;
}

void AddShareCreation(const ShareCreationRow& row) {
    InsertShare("share_creation", row, ", maker_pid, maker_start, maker_boot_id",
                ", :maker_pid, :maker_start, :maker_boot_id");
}

void DropShareCreation(const std::string& token) {
    Database() << "delete from share_creation where token = :token", soci::use(token);
}

std::vector<ShareCreationRow> ListShareCreations() {
    return Select(std::string(kFromCreation) + kEveryRow, "");
}

std::optional<ShareCreationRow> FindShareCreation(const std::string& token) {
    const std::vector<ShareCreationRow> rows =
        Select(std::string(kFromCreation) + "where token = :value", token);
    return rows.empty() ? std::nullopt : std::optional(rows.front());
}

void AbandonShareCreation(const std::string& token) {
    Database() << "update share_creation set maker_pid = 0 where token = :token", soci::use(token);
}

std::vector<RenamedShare> ListRenamedShares() {
    RenamedShare row;
    std::string formerName;
    int isHidden = 0;
    soci::statement statement =
        (Database().prepare << "select former_name, vol_path, name, token, description, is_hidden from share"
                               " where former_name <> ''",
         soci::into(formerName), soci::into(row.share.volPath), soci::into(row.share.name),
         soci::into(row.share.token), soci::into(row.share.description), soci::into(isHidden));
    statement.execute();
    std::vector<RenamedShare> rows;
    while (statement.fetch()) {
        row.formerPath = row.share.volPath + "/" + formerName;
        row.share.isHidden = isHidden != 0;
        rows.push_back(row);
    }
    return rows;
}

namespace {

// Who was called so before and has left the place to `share`.
void TakeFormerName(const ShareRow& share) {
    Database() << "update share set former_name = '' where former_name = :name and vol_path = :volume",
        soci::use(share.name), soci::use(share.volPath);
}

}  // namespace

void AddShare(const ShareRow& share) {
    TakeFormerName(share);
    InsertShare("share", {share, {}}, "", "");
}

void SaveShareFacts(const ShareRow& share) {
    const std::string key = ShareNameKey(share.name);
    const int isHidden = share.isHidden;
    TakeFormerName(share);
    Database() << "update share set former_name = case when name <> :name then name else former_name end,"
                  " name_key = :key, name = :name, description = :description, is_hidden = :hidden"
                  " where token = :token",
        soci::use(share.name, "name"), soci::use(key, "key"), soci::use(share.description, "description"),
        soci::use(isHidden, "hidden"), soci::use(share.token, "token");
}

void SaveShareEncryption(const std::string& token, ShareEncryption encryption) {
    const int value = static_cast<int>(encryption);
    Database() << "update share set encryption = :encryption where token = :token", soci::use(value),
        soci::use(token);
}

void SaveShareMoving(const std::string& token, bool isMoving) {
    const int value = isMoving;
    Database() << "update share set is_moving = :moving where token = :token", soci::use(value),
        soci::use(token);
}

void DropShare(const std::string& token) {
    Database() << "delete from share where token = :token", soci::use(token);
}

void AddShareGrant(ShareGrantRow& row) {
    const std::string key = ShareNameKey(row.shareName);
    const std::string kind = row.isGroup ? kGroupKind : kUserKind;
    const int rights = row.isReadOnly ? kReadOnlyBit : kReadWriteBit;
    Database() << "insert into share_grant"
                  " (name_key, kind, principal, rights, maker_pid, maker_start, maker_boot_id)"
                  " values (:name_key, :kind, :principal, :rights, :pid, :start, :boot_id)",
        soci::use(key), soci::use(kind), soci::use(row.principal), soci::use(rights),
        soci::use(row.maker.pid), soci::use(row.maker.start), soci::use(row.maker.bootId);
    Database() << "select last_insert_rowid()", soci::into(row.id);
}

void DropShareGrant(long long id) { Database() << "delete from share_grant where id = :id", soci::use(id); }

std::vector<ShareGrantRow> ListShareGrants() {
    ShareGrantRow row;
    std::string kind;
    int rights = 0;
    soci::statement statement =
        (Database().prepare << "select g.id, s.name, g.kind, g.principal, g.rights, g.maker_pid,"
                               " g.maker_start, g.maker_boot_id"
                               " from share_grant g join share s on s.name_key = g.name_key order by g.id",
         soci::into(row.id), soci::into(row.shareName), soci::into(kind), soci::into(row.principal),
         soci::into(rights), soci::into(row.maker.pid), soci::into(row.maker.start),
         soci::into(row.maker.bootId));
    statement.execute();
    std::vector<ShareGrantRow> rows;
    while (statement.fetch()) {
        row.isGroup = kind == kGroupKind;
        row.isReadOnly = rights == kReadOnlyBit;
        rows.push_back(row);
    }
    return rows;
}

}  // namespace korv
