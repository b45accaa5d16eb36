#include "korv/system/share_change_store.h"

#include <soci/soci.h>

#include "korv/system/database.h"
#include "korv/system/share_name.h"

namespace korv {

void AddShareRename(const ShareRenameRow& row) {
    const std::string key = ShareNameKey(row.name);
    Database() << "insert into share_rename (token, name_key, name, maker_pid, maker_start, maker_boot_id)"
                  " values (:token, :name_key, :name, :pid, :start, :boot_id)",
        soci::use(row.token), soci::use(key), soci::use(row.name), soci::use(row.maker.pid),
        soci::use(row.maker.start), soci::use(row.maker.bootId);
}

void SaveShareRenameMaker(const std::string& token, const ProcessIdentity& maker) {
    Database() << "update share_rename set maker_pid = :pid, maker_start = :start, maker_boot_id = :boot_id"
                  " where token = :token",
        soci::use(maker.pid), soci::use(maker.start), soci::use(maker.bootId), soci::use(token);
}

void DropShareRename(const std::string& token) {
    Database() << "delete from share_rename where token = :token", soci::use(token);
}

std::vector<ShareRenameRow> ListShareRenames() {
    ShareRenameRow row;
    soci::statement statement =
        (Database().prepare << "select token, name, maker_pid, maker_start, maker_boot_id from share_rename",
         soci::into(row.token), soci::into(row.name), soci::into(row.maker.pid), soci::into(row.maker.start),
         soci::into(row.maker.bootId));
    statement.execute();
    std::vector<ShareRenameRow> rows;
    while (statement.fetch()) {
        rows.push_back(row);
    }
    return rows;
}

void SaveShareRemoval(const ShareRemovalRow& row) {
    const int isHidden = row.isHidden;
    Database() << "insert or replace into share_removal"
                  " (token, name, vol_path, is_hidden, next_try_s, maker_pid, maker_start, maker_boot_id)"
                  " values (:token, :name, :vol_path, :is_hidden, :next_try, :pid, :start, :boot_id)",
        soci::use(row.token), soci::use(row.name), soci::use(row.volPath), soci::use(isHidden),
        soci::use(row.nextTry_s), soci::use(row.maker.pid), soci::use(row.maker.start),
        soci::use(row.maker.bootId);
}

void SaveShareRemovalMaker(const std::string& token, const ProcessIdentity& maker) {
    Database() << "update share_removal set maker_pid = :pid, maker_start = :start, maker_boot_id = :boot_id"
                  " where token = :token",
        soci::use(maker.pid), soci::use(maker.start), soci::use(maker.bootId), soci::use(token);
}

void PostponeShareRemoval(const std::string& token, bool isHidden, long long until_s) {
    const int wasHidden = isHidden;
    Database() << "update share_removal set next_try_s = :until where token = :token"
                  " and is_hidden = :was_hidden",
        soci::use(until_s), soci::use(token), soci::use(wasHidden);
}

void DropShareRemoval(const std::string& token) {
    Database() << "delete from share_removal where token = :token", soci::use(token);
}

std::vector<ShareRemovalRow> ListShareRemovals() {
    ShareRemovalRow row;
    int isHidden = 0;
    soci::statement statement =
        (Database().prepare << "select token, name, vol_path, is_hidden, next_try_s, maker_pid, maker_start,"
                               " maker_boot_id from share_removal order by token",
         soci::into(row.token), soci::into(row.name), soci::into(row.volPath), soci::into(isHidden),
         soci::into(row.nextTry_s), soci::into(row.maker.pid), soci::into(row.maker.start),
         soci::into(row.maker.bootId));
    statement.execute();
    std::vector<ShareRemovalRow> rows;
    while (statement.fetch()) {
        row.isHidden = isHidden != 0;
        rows.push_back(row);
    }
    return rows;
}

bool IsShareBeingRenamedOrRemoved(const std::string& token) {
    int count = 0;
    Database() << "select (select count(*) from share_rename where token = :token)"
                  " + (select count(*) from share_removal where token = :token)",
        soci::use(token, "token"), soci::into(count);
    return count != 0;
}

bool IsShareChanging(const std::string& token) {
    int count = 0;
    Database() << "select (select count(*) from share_rename where token = :token)"
                  " + (select count(*) from share_removal where token = :token)"
                  " + (select count(*) from job where share_token = :token"
                  "    and state in ('waiting', 'progressing'))",
        soci::use(token, "token"), soci::into(count);
    return count != 0;
}

// Lengths are counted in bytes on both sides of the slash, whatever characters names hold.
void RenameMountRows(const std::string& oldPath, const ShareRow& renamed) {
    const std::string newPath = renamed.Path();
    const std::string prefix = oldPath + "/";
    const auto length = static_cast<long long>(prefix.size());
    Database() << "update mount set share = :share, mount_point = :new_path ||"
                  " cast(substr(cast(mount_point as blob), :length) as text)"
                  " where substr(cast(mount_point as blob), 1, :length) = cast(:prefix as blob)",
        soci::use(renamed.name, "share"), soci::use(newPath, "new_path"), soci::use(length, "length"),
        soci::use(prefix, "prefix");
}

bool HasMountRows(const std::string& name) {
    int count = 0;
    Database() << "select count(*) from mount where share = :share", soci::use(name), soci::into(count);
    return count != 0;
}

}  // namespace korv
