#include "pavane/recorder/archive_store.h"

#include <ctime>

#include <soci/soci.h>

#include "pavane/store/database.h"

namespace pavane {

namespace {

bool RemoveRow(const char* statementText, int id) {
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    soci::statement statement = (database.Session().prepare << statementText, soci::use(id));
    statement.execute(true);
    const bool wasThere = statement.get_affected_rows() > 0;
    transaction.Commit();
    return wasThere;
}

constexpr int kAllTypes = 0;

struct TasksOfServer : KeptQuery {
    explicit TasksOfServer(soci::session& session) {
        Prepare((session.prepare << "select id, server, name, type, storage_path from archive_task"
                                    " where server = :server order by id",
                 soci::into(task.id), soci::into(task.server), soci::into(task.name), soci::into(task.type),
                 soci::into(task.storagePath), soci::use(server)));
    }
    std::string server;
    ArchiveTask task;
};

}  // namespace

std::list<ArchiveTask> ListArchiveTasks(const std::string& server, int type) {
    std::list<ArchiveTask> tasks;
    auto& query = AppDatabase().Kept<TasksOfServer>();
    query.server = server;
    query.Run([&] {
        if (type == kAllTypes || query.task.type == type) {
            tasks.push_back(query.task);
        }
    });
    return tasks;
}

int SaveArchiveTask(const ArchiveTask& task) {
    int id = 0;
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    database.Session() << "insert into archive_task (server, name, type, storage_path)"
                          " values (:server, :name, :type, :path) on conflict (server, name) do update set"
                          " type = excluded.type, storage_path = excluded.storage_path returning id",
        soci::into(id), soci::use(task.server), soci::use(task.name), soci::use(task.type),
        soci::use(task.storagePath);
    transaction.Commit();
    return id;
}

bool RemoveArchiveTask(int id) { return RemoveRow("delete from archive_task where id = :id", id); }

void AddServiceNotice(const ServiceNotice& notice) {
    const long long now_s = std::time(nullptr);
    const int isAfterwards = notice.isAfterwards ? 1 : 0;
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    database.Session()
        << "insert into service_notice (service, operation, path, new_path, afterwards, time_s)"
           " values (:service, :operation, :path, :newpath, :afterwards, :now)",
        soci::use(notice.service), soci::use(notice.operation), soci::use(notice.path),
        soci::use(notice.newPath), soci::use(isAfterwards), soci::use(now_s);
    transaction.Commit();
}

NoticePage ListServiceNotices(int offset, int limit) {
    NoticePage page;
    ServiceNotice notice;
    int isAfterwards = 0;
    soci::session& session = AppDatabase().Session();
    session << "select count(*) from service_notice", soci::into(page.total);
    soci::statement statement =
        (session.prepare << "select id, service, operation, path, new_path, afterwards, time_s"
                            " from service_notice order by id limit :limit offset :offset",
         soci::into(notice.id), soci::into(notice.service), soci::into(notice.operation),
         soci::into(notice.path), soci::into(notice.newPath), soci::into(isAfterwards),
         soci::into(notice.time_s), soci::use(limit), soci::use(offset));
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        notice.isAfterwards = isAfterwards != 0;
        page.notices.push_back(notice);
    }
    return page;
}

bool RemoveServiceNotice(int id) { return RemoveRow("delete from service_notice where id = :id", id); }

}  // namespace pavane
