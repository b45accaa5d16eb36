#include "pavane/store/folder_rename.h"

#include <soci/soci.h>

namespace pavane {

namespace {

void Exchange(Database& database, const char* update, const std::string& from, const std::string& to) {
    database.Session() << update, soci::use(to), soci::use(from);
}

struct PathColumn {
    std::string table;
    std::string column;
    std::string condition;  // which rows
};

// Changes the paths below `from` to such below `to`. What begins with "<path>/" stands between that text and
// "<path>0", since '0' follows '/', by bytes.
void MoveBelow(Database& database, const PathColumn& where, const std::string& from, const std::string& to) {
    const bool sqlite = database.Kind() == DatabaseKind::kSqlite;
    const std::string first = from + "/";
    const std::string end = from + "0";
    database.Session() << "update " << where.table << " set " << where.column << " = :to || substr("
                       << where.column << ", length(cast(:from as text)) + 1) where " << where.condition
                       << " and " << where.column << (sqlite ? " >= " : " ~>=~ ") << ":first and "
                       << where.column << (sqlite ? " < " : " ~<~ ") << ":end",
        soci::use(to, "to"), soci::use(from, "from"), soci::use(first, "first"), soci::use(end, "end");
}

// No two shares of an owner have one path: where a record has the new one already, the other stays.
constexpr const char* kIsFree =
    " and not exists (select 1 from recording_share as taken"
    " where taken.owner_rv_id = recording_share.owner_rv_id"
    " and taken.path = :to || substr(recording_share.path, length(cast(:from as text)) + 1))";

void FollowPath(Database& database, const FolderPlace& from, const std::string& to) {
    const std::string isOfOwner = "owner_rv_id = " + std::to_string(from.ownerRvId);
    MoveBelow(database, {"recording_share", "path", isOfOwner + kIsFree}, from.path, to);
    MoveBelow(database, {"camera", "recording_path", isOfOwner}, from.path, to);
    if (from.ownerRvId != 0) {
        return;
    }
    MoveBelow(database, {"archive_task", "storage_path", "server = ''"}, from.path, to);
    Exchange(database,
             "update archive_task set storage_path = :to where server = '' and storage_path = :from",
             from.path, to);
    MoveBelow(database, {"setting", "value", "name = 'snapshot_share'"}, from.path, to);
    Exchange(database, "update setting set value = :to where name = 'snapshot_share' and value = :from",
             from.path, to);
}

void FollowName(Database& database, const std::string& from, const std::string& to) {
    Exchange(database,
             "delete from backup_folder where name = :to and :from in (select name from backup_folder)", from,
             to);
    Exchange(database, "update backup_folder set name = :to where name = :from", from, to);
    Exchange(
        database,
        "delete from shared_folder_storage as old where exists (select 1 from shared_folder_storage as new"
        " where new.name = :to and new.share_id = old.share_id"
        " and new.application_id = old.application_id) and old.name = :from",
        from, to);
    Exchange(database, "update shared_folder_storage set name = :to where name = :from", from, to);
}

}  // namespace

void FollowRename(Database& database, const FolderPlace& from, const FolderPlace& to) {
    if (from.path != to.path) {
        FollowPath(database, from, to.path);
    }
    if (from.name != to.name && from.ownerRvId == 0) {
        FollowName(database, from.name, to.name);
    }
}

}  // namespace pavane
