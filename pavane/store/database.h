#pragma once

#include <exception>
#include <memory>
#include <string>
#include <typeindex>
#include <unordered_map>

#include <soci/soci.h>

#include "pavane/store/kept_query.h"

// The application database: one connection per process, SQLite or PostgreSQL.
// Failures are thrown as soci::soci_error; their texts may hold bound values, so DescribeFailure is what goes
// to the log.
namespace pavane {

enum class DatabaseKind { kSqlite, kPostgresql };

// Where a database is.
//   target  SQLite: the file's path; PostgreSQL: a connection string
struct DatabaseAddress {
    DatabaseKind kind;
    std::string target;
};

// The database that this node's configuration names. Throws when there is no configuration.
DatabaseAddress ConfiguredDatabase();

// An open connection. Not safe for use from several threads, nor in a process forked later.
class Database {
public:
    // Opens the database and waits up to 10 s for locks from then on; SQLite: makes a missing file, WAL,
    // foreign keys on. Leaves the tables alone (pavane/store/schema.h). Throws.
    explicit Database(const DatabaseAddress& address);

    DatabaseKind Kind() const { return m_kind; }
    soci::session& Session() { return *m_session; }

    // This connection's one query of the type `Query`, prepared at first use and anew after a failure.
    template <class Query>
    Query& Kept() {
        std::unique_ptr<KeptQuery>& kept = m_kept[typeid(Query)];
        if (kept == nullptr || kept->IsBroken()) {
            kept = std::make_unique<Query>(*m_session);
        }
        return static_cast<Query&>(*kept);
    }

    // How long statements wait for locks that other connections hold: up to 10 s, or not at all.
    void SetPatience(bool waits);

    // False when the server is gone; always true for SQLite.
    bool IsAlive();

private:
    DatabaseKind m_kind;
    std::unique_ptr<soci::session> m_session;
    std::unordered_map<std::type_index, std::unique_ptr<KeptQuery>> m_kept;  // gone before the session
};

// This process's connection to the configured database, opened with its tables made or upgraded at first use,
// and opened anew after a fork or when the server had gone away. Throws.
Database& AppDatabase();

// Closes this process's connection; the next use opens it anew.
void CloseAppDatabase();

// A text about a failure that is fit for the log: the database's own code and what it stands for, never an
// SQL text or a value.
std::string DescribeFailure(const std::exception& failure);

// A transaction that is going to write. SQLite: takes the write lock at once, since one that reads first and
// writes later fails under load. Rolled back unless Commit was called.
class WriteTransaction {
public:
    explicit WriteTransaction(Database& database);
    ~WriteTransaction();
    WriteTransaction(const WriteTransaction&) = delete;
    WriteTransaction& operator=(const WriteTransaction&) = delete;

    void Commit();

private:
    Database& m_database;
    bool m_open = true;
};

}  // namespace pavane
