#pragma once

#include <exception>
#include <string>

#include <soci/soci.h>

// The NAS side's own database, <stateDir>/korv.db (tables: schema.sql).
// Errors are thrown as soci::soci_error; their texts may hold bound values, so never pass them to a client
// and think before logging them.
namespace korv {

// This process's connection, opened at first use: WAL, foreign keys on, 10 s of patience for locks. The
// schema is made or upgraded then. Works under the service user's ids and as root; files made as root are
// given to the state folder's owner. Not for use from several threads. Throws std::logic_error in a child
// that was forked while its parent had the connection open: SQLite's lock keeping doesn't survive that.
soci::session& Database();

// Closes this process's connection, which a process does before it forks. The next use opens it anew.
void CloseDatabase();

// Opens the database file `path` as above into `session`; made when it is missing.
void OpenDatabase(soci::session& session, const std::string& path);

// A transaction that takes the write lock at its start, since one that reads first and writes later fails
// under load. Rolled back when it is destroyed without Commit.
class WriteTransaction {
public:
    explicit WriteTransaction(soci::session& session);
    ~WriteTransaction();
    WriteTransaction(const WriteTransaction&) = delete;
    WriteTransaction& operator=(const WriteTransaction&) = delete;

    void Commit();

private:
    soci::session& m_session;
    bool m_open = true;
};

// Runs every statement of `script`, which uses no bound values.
void ExecuteScript(soci::session& session, const std::string& script);

// True when `error`, just thrown by `session`, says that the disk or the quota is used up.
bool IsOutOfSpace(soci::session& session, const std::exception& error);

}  // namespace korv
