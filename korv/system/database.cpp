#include "korv/system/database.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include <soci/sqlite3/soci-sqlite3.h>
#include <sys/stat.h>

#include "platform/korv/configuration.h"

#include "include/folder_owner_scope.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/schema.h"

namespace korv {

namespace {

constexpr const char* kDatabaseFile = "korv.db";
constexpr std::chrono::seconds kLockPatience(10);
constexpr std::chrono::milliseconds kRetryPause(20);
constexpr mode_t kFileMode = S_IRUSR | S_IWUSR;

sqlite_api::sqlite3* Handle(soci::session& session) {
    return static_cast<soci::sqlite3_session_backend*>(session.get_backend())->conn_;
}

bool IsBusy(const soci::soci_error& error) {
    const auto* sqliteError = dynamic_cast<const soci::sqlite3_soci_error*>(&error);
    return sqliteError != nullptr && sqliteError->result() == SQLITE_BUSY;
}

// SQLite would let everybody read it.
void MakeFile(const std::string& path) {
    const FileDescriptor file(
        open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode));
    if (!file && errno != EEXIST) {
        throw std::system_error(errno, std::generic_category(), "cannot make the database file");
    }
}

struct Connection {
    pid_t opener = 0;
    std::unique_ptr<soci::session> session;
};

Connection& ProcessConnection() {
    static Connection connection;
    return connection;
}

// The switch to WAL doesn't wait for other connections that are switching too.
void SwitchToWal(soci::session& session) {
    const auto deadline = std::chrono::steady_clock::now() + kLockPatience;
    while (true) {
        try {
            std::string mode;
            session << "pragma journal_mode = wal", soci::into(mode);
            return;
        } catch (const soci::soci_error& error) {
            if (!IsBusy(error) || std::chrono::steady_clock::now() > deadline) {
                throw;
            }
        }
        std::this_thread::sleep_for(kRetryPause);
    }
}

}  // namespace

soci::session& Database() {
    Connection& connection = ProcessConnection();
    if (connection.session == nullptr) {
        auto session = std::make_unique<soci::session>();
        OpenDatabase(*session, KORV::GetConfiguration().stateDir + "/" + kDatabaseFile);
        connection.session = std::move(session);
        connection.opener = getpid();
    }
    if (connection.opener != getpid()) {
        throw std::logic_error("the database was open when this process was forked");
    }
    return *connection.session;
}

void CloseDatabase() { ProcessConnection().session.reset(); }

void OpenDatabase(soci::session& session, const std::string& path) {
    // The files beside the database are made with the connection, and stay while it is open.
    const FolderOwnerScope owner(std::filesystem::path(path).parent_path());
    MakeFile(path);
    session.open(soci::sqlite3, "db=\"" + path + "\" timeout=" + std::to_string(kLockPatience.count()));
    session << "pragma foreign_keys = on";
    SwitchToWal(session);
    ApplySchema(session, CurrentSchema());
}

WriteTransaction::WriteTransaction(soci::session& session) : m_session(session) {
    m_session << "begin immediate";
}

WriteTransaction::~WriteTransaction() {
    // SQLite has already rolled back after some errors; then there is nothing left to do.
    if (m_open && sqlite_api::sqlite3_get_autocommit(Handle(m_session)) == 0) {
        sqlite_api::sqlite3_exec(Handle(m_session), "rollback", nullptr, nullptr, nullptr);
    }
}

void WriteTransaction::Commit() {
    m_session << "commit";
    m_open = false;
}

void ExecuteScript(soci::session& session, const std::string& script) {
    const int result = sqlite_api::sqlite3_exec(Handle(session), script.c_str(), nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) {
        throw soci::sqlite3_soci_error(sqlite_api::sqlite3_errmsg(Handle(session)), result);
    }
}

bool IsOutOfSpace(soci::session& session, const std::exception& error) {
    const auto* sqliteError = dynamic_cast<const soci::sqlite3_soci_error*>(&error);
    if (sqliteError == nullptr) {
        return false;
    }
    if (sqliteError->result() == SQLITE_FULL) {
        return true;
    }
    const int systemError = sqlite_api::sqlite3_system_errno(Handle(session));
    return sqliteError->result() == SQLITE_IOERR && (systemError == ENOSPC || systemError == EDQUOT);
}

}  // namespace korv
