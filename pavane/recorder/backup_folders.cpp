#include "pavane/recorder/backup_folders.h"

#include <ctime>
#include <exception>

#include <soci/soci.h>

#include "platform/pavane/services.h"

#include "pavane/log_line.h"
#include "pavane/store/database.h"

void UpdateBackupInfo(const std::list<std::string>& added, const std::list<std::string>& removed) {
    try {
        const long long now_s = std::time(nullptr);
        pavane::Database& database = pavane::AppDatabase();
        pavane::WriteTransaction transaction(database);
        for (const std::string& name : added) {
            database.Session() << "insert into backup_folder (name, added_s) values (:name, :now)"
                                  " on conflict (name) do nothing",
                soci::use(name), soci::use(now_s);
        }
        for (const std::string& name : removed) {
            database.Session() << "delete from backup_folder where name = :name", soci::use(name);
        }
        transaction.Commit();
    } catch (const std::exception& failure) {
        PV_LOG_LINE("pavane/recorder/backup_folders", "Failed to record the folders to back up: %s\n",
                    pavane::DescribeFailure(failure).c_str());
    }
}

namespace pavane {

std::list<BackupFolder> ListBackupFolders() {
    std::list<BackupFolder> folders;
    std::string name;
    long long added_s = 0;
    soci::statement statement =
        (AppDatabase().Session().prepare << "select name, added_s from backup_folder order by name",
         soci::into(name), soci::into(added_s));
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        folders.push_back({name, added_s});
    }
    return folders;
}

}  // namespace pavane
