#include "pavane/store/database.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <soci/postgresql/soci-postgresql.h>
#include <soci/sqlite3/soci-sqlite3.h>
#include <sys/stat.h>

#include "platform/korv/configuration.h"

#include "include/folder_owner_scope.h"
#include "pavane/store/schema.h"

namespace pavane {

namespace {

constexpr const char* kSqliteSetting = "sqlite";
constexpr const char* kSqliteFile = "/pavane.db";
constexpr std::chrono::seconds kLockPatience(10);

sqlite_api::sqlite3* SqliteHandle(soci::session& session) {
    return static_cast<soci::sqlite3_session_backend*>(session.get_backend())->conn_;
}

PGconn* PostgresqlHandle(soci::session& session) {
    return static_cast<soci::postgresql_session_backend*>(session.get_backend())->conn_;
}

// SQLite would let everybody read it.
void MakeFile(const std::string& path) {
    constexpr mode_t kFileMode = 0600;
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode);
    if (fd < 0) {
        if (errno == EEXIST) {
            return;
        }
        throw std::system_error(errno, std::generic_category(), "cannot make the database file");
    }
    close(fd);
}

bool IsBusy(const soci::soci_error& failure) {
    const auto* const sqlite = dynamic_cast<const soci::sqlite3_soci_error*>(&failure);
    return sqlite != nullptr && sqlite->result() == SQLITE_BUSY;
}

// The switch doesn't wait for other connections that make it at the same time.
void SwitchToWal(soci::session& session) {
    constexpr std::chrono::milliseconds kPause(20);
    const auto deadline = std::chrono::steady_clock::now() + kLockPatience;
    while (true) {
        try {
            std::string mode;
            session << "pragma journal_mode = wal", soci::into(mode);
            return;
        } catch (const soci::soci_error& failure) {
            if (!IsBusy(failure) || std::chrono::steady_clock::now() > deadline) {
                throw;
            }
        }
        std::this_thread::sleep_for(kPause);
    }
}

// Paths are compared byte for byte; only so may LIKE use the index of the recording paths.
void PrepareSqlite(soci::session& session) {
    session << "pragma foreign_keys = on";
    session << "pragma case_sensitive_like = on";
    SwitchToWal(session);
    // The first look makes the files beside the database.
    int version = 0;
    session << "pragma user_version", soci::into(version);
}

void PreparePostgresql(soci::session& session) {
    session << "set client_min_messages = warning";
    session << "set client_encoding = 'UTF8'";
    session << "set standard_conforming_strings = on";
}

std::string SqliteConnection(const std::string& path) {
    return "db=\"" + path + "\" timeout=" + std::to_string(kLockPatience.count());
}

using Clock = std::chrono::steady_clock;

struct ProcessConnection {
    pid_t opener = 0;
    Clock::time_point used;
    std::unique_ptr<Database> database;
};

ProcessConnection& Connection() {
    static ProcessConnection connection;
    return connection;
}

// A server may have been restarted while nobody asked it anything; what was used just now is taken as alive
// unless the last use failed.
bool IsLost(Database& database, Clock::duration idle) {
    constexpr std::chrono::seconds kTrusted(1);
    if (database.Kind() == DatabaseKind::kSqlite) {
        return false;
    }
    return PQstatus(PostgresqlHandle(database.Session())) != CONNECTION_OK ||
           (idle > kTrusted && !database.IsAlive());
}

struct BeginImmediate : KeptQuery {
    explicit BeginImmediate(soci::session& session) { Prepare((session.prepare << "begin immediate")); }
};

struct Begin : KeptQuery {
    explicit Begin(soci::session& session) { Prepare((session.prepare << "begin")); }
};

struct Commitment : KeptQuery {
    explicit Commitment(soci::session& session) { Prepare((session.prepare << "commit")); }
};

}  // namespace

DatabaseAddress ConfiguredDatabase() {
    const KORV::Configuration& configuration = KORV::GetConfiguration();
    if (configuration.database.empty() || configuration.database == kSqliteSetting) {
        return {DatabaseKind::kSqlite, configuration.stateDir + kSqliteFile};
    }
    return {DatabaseKind::kPostgresql, configuration.database};
}

Database::Database(const DatabaseAddress& address) : m_kind(address.kind) {
    if (m_kind == DatabaseKind::kSqlite) {
        // The files beside the database are made with the connection, and stay while it is open.
        const FolderOwnerScope owner(std::filesystem::path(address.target).parent_path());
        MakeFile(address.target);
        m_session = std::make_unique<soci::session>(soci::sqlite3, SqliteConnection(address.target));
        PrepareSqlite(*m_session);
    } else {
        m_session = std::make_unique<soci::session>(soci::postgresql, address.target);
        PreparePostgresql(*m_session);
    }
    SetPatience(true);
}

void Database::SetPatience(bool waits) {
    const auto patience_ms = waits ? std::chrono::milliseconds(kLockPatience).count() : 0;
    if (m_kind == DatabaseKind::kSqlite) {
        sqlite_api::sqlite3_busy_timeout(SqliteHandle(*m_session), static_cast<int>(patience_ms));
    } else {
        // 0 would mean to wait for ever.
        *m_session << "set lock_timeout = " << (waits ? patience_ms : 1);
    }
}

bool Database::IsAlive() { return m_kind == DatabaseKind::kSqlite || m_session->is_connected(); }

Database& AppDatabase() {
    ProcessConnection& connection = Connection();
    if (connection.database != nullptr && connection.opener != getpid()) {
        // The parent's connection: closing it here would end it there as well, so it is left alone.
        static_cast<void>(connection.database.release());
    }
    const Clock::time_point now = Clock::now();
    if (connection.database != nullptr && IsLost(*connection.database, now - connection.used)) {
        connection.database.reset();
    }
    connection.used = now;
    if (connection.database == nullptr) {
        auto opened = std::make_unique<Database>(ConfiguredDatabase());
        BringUpToDate(*opened, CurrentSchema());
        connection.database = std::move(opened);
        connection.opener = getpid();
    }
    return *connection.database;
}

void CloseAppDatabase() { Connection().database.reset(); }

std::string DescribeFailure(const std::exception& failure) {
    if (const auto* const sqlite = dynamic_cast<const soci::sqlite3_soci_error*>(&failure)) {
        return "SQLite " + std::to_string(sqlite->result()) + ", " +
               sqlite_api::sqlite3_errstr(sqlite->result());
    }
    if (const auto* const postgresql = dynamic_cast<const soci::postgresql_soci_error*>(&failure)) {
        return "PostgreSQL SQLSTATE " + postgresql->sqlstate();
    }
    if (dynamic_cast<const soci::soci_error*>(&failure) != nullptr) {
        return "the database library refused";
    }
    return failure.what();
}

WriteTransaction::WriteTransaction(Database& database) : m_database(database) {
    if (m_database.Kind() == DatabaseKind::kSqlite) {
        m_database.Kept<BeginImmediate>().Run();
    } else {
        m_database.Kept<Begin>().Run();
    }
}

// The database has already rolled back after some failures; then there is nothing left to do.
WriteTransaction::~WriteTransaction() {
    if (!m_open) {
        return;
    }
    if (m_database.Kind() == DatabaseKind::kSqlite) {
        sqlite_api::sqlite3* const handle = SqliteHandle(m_database.Session());
        if (sqlite_api::sqlite3_get_autocommit(handle) == 0) {
            sqlite_api::sqlite3_exec(handle, "rollback", nullptr, nullptr, nullptr);
        }
        return;
    }
    PGconn* const handle = PostgresqlHandle(m_database.Session());
    if (PQtransactionStatus(handle) != PQTRANS_IDLE) {
        PQclear(PQexec(handle, "rollback"));
    }
}

void WriteTransaction::Commit() {
    m_database.Kept<Commitment>().Run();
    m_open = false;
}

}  // namespace pavane
