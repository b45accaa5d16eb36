#include "pavane/recorder/application_store.h"

#include <soci/soci.h>

#include "pavane/store/database.h"

namespace pavane {

namespace {

int CountOwnShares(Database& database, int id) {
    int count = 0;
    database.Session() << "select count(*) from recording_share where id = :id and owner_rv_id = 0",
        soci::into(count), soci::use(id);
    return count;
}

int CountRows(Database& database, const ApplicationStorage& row) {
    int count = 0;
    database.Session() << "select count(*) from shared_folder_storage where name = :name and"
                          " share_id = :share and application_id = :application",
        soci::into(count), soci::use(row.name), soci::use(row.shareId), soci::use(row.applicationId);
    return count;
}

// SQLite's write transactions are one after another anyway.
void KeepOtherWritersOut(Database& database) {
    if (database.Kind() == DatabaseKind::kPostgresql) {
        database.Session() << "lock table shared_folder_storage in share row exclusive mode";
    }
}

}  // namespace

ApplicationFlagsById ReadApplicationFlags() {
    int id = 0;
    int compatible = 0;
    int enabled = 0;
    soci::statement statement =
        (AppDatabase().Session().prepare << "select id, compatible, enabled from application", soci::into(id),
         soci::into(compatible), soci::into(enabled));
    ApplicationFlagsById flags;
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        flags[id] = {compatible != 0, enabled != 0};
    }
    return flags;
}

ApplicationFlags FlagsOf(const ApplicationFlagsById& flags, int applicationId) {
    const auto found = flags.find(applicationId);
    return found != flags.end() ? found->second : ApplicationFlags{};
}

// One statement, so that two changes at once both hold.
void WriteApplicationFlags(int applicationId, const ApplicationChange& change) {
    const ApplicationFlags asTheyCome;
    const int compatible = change.isCompatible.value_or(asTheyCome.isCompatible) ? 1 : 0;
    const int enabled = change.isEnabled.value_or(asTheyCome.isEnabled) ? 1 : 0;
    const std::string source = "excluded";
    const std::string kept = "application";
    AppDatabase().Session() << "insert into application (id, compatible, enabled) values (:id, :compatible,"
                               " :enabled) on conflict (id) do update set compatible = "
                            << (change.isCompatible.has_value() ? source : kept)
                            << ".compatible, enabled = " << (change.isEnabled.has_value() ? source : kept)
                            << ".enabled",
        soci::use(applicationId), soci::use(compatible), soci::use(enabled);
}

ApplicationStoragePage ListApplicationStorage(int offset, int limit) {
    ApplicationStoragePage page;
    soci::session& session = AppDatabase().Session();
    session << "select count(*) from shared_folder_storage", soci::into(page.total);
    ApplicationStorage row;
    soci::statement statement =
        (session.prepare << "select name, coalesce(share_id, 0), coalesce(application_id, 0)"
                            " from shared_folder_storage order by name, share_id, application_id"
                            " limit :limit offset :offset",
         soci::into(row.name), soci::into(row.shareId), soci::into(row.applicationId), soci::use(limit),
         soci::use(offset));
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        page.rows.push_back(row);
    }
    return page;
}

StorageAddition AddApplicationStorage(const ApplicationStorage& row) {
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    KeepOtherWritersOut(database);
    if (row.shareId != kNoShare && CountOwnShares(database, row.shareId) == 0) {
        return StorageAddition::kNoSuchShare;
    }
    if (CountRows(database, row) > 0) {
        return StorageAddition::kWasThere;
    }
    database.Session() << "insert into shared_folder_storage (name, share_id, application_id)"
                          " values (:name, :share, :application)",
        soci::use(row.name), soci::use(row.shareId), soci::use(row.applicationId);
    transaction.Commit();
    return StorageAddition::kAdded;
}

bool RemoveApplicationStorage(const ApplicationStorage& row) {
    Database& database = AppDatabase();
    soci::statement statement =
        (database.Session().prepare << "delete from shared_folder_storage where name = :name and"
                                       " coalesce(share_id, 0) = :share and"
                                       " coalesce(application_id, 0) = :application",
         soci::use(row.name), soci::use(row.shareId), soci::use(row.applicationId));
    statement.execute(true);
    return statement.get_affected_rows() > 0;
}

}  // namespace pavane
