#pragma once

#include <functional>
#include <list>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <sys/types.h>

#include "pavane/store/database.h"

// A node of its own for one test program: folders, a configuration and a database that nobody else uses.
class PostgresqlServer;

class TestNode {
public:
    // `database` is "sqlite" or "postgresql"; the latter starts a server that only this program reaches.
    explicit TestNode(const std::string& database);
    ~TestNode();
    TestNode(const TestNode&) = delete;
    TestNode& operator=(const TestNode&) = delete;

    static TestNode& Instance();

    std::string Folder() const { return m_folder; }
    std::string StateDir() const { return m_folder + "/state"; }
    std::string RunDir() const { return m_folder + "/run"; }
    std::string LogDir() const { return m_folder + "/log"; }

    // An empty database of the same kind beside the configured one.
    pavane::DatabaseAddress FreshDatabase();

private:
    std::string m_folder;
    std::unique_ptr<PostgresqlServer> m_server;
    int m_databases = 0;
};

// A test that begins with empty tables.
class StoreTest : public testing::Test {
protected:
    StoreTest();
    soci::session& Session() { return pavane::AppDatabase().Session(); }
    bool IsSqlite() { return pavane::AppDatabase().Kind() == pavane::DatabaseKind::kSqlite; }
    // The plan that the database makes for a statement, as one text.
    std::string PlanOf(const std::string& statement);
};

// While one stands, statements on `table` fail as on a damaged database.
class BrokenTable {
public:
    explicit BrokenTable(const std::string& table);
    ~BrokenTable();
    BrokenTable(const BrokenTable&) = delete;
    BrokenTable& operator=(const BrokenTable&) = delete;

private:
    std::string m_table;
};

// What was logged since it was made.
class LogWatch {
public:
    LogWatch();
    std::string Text() const;

private:
    std::size_t m_begin;
};

// Runs `work` in `count` processes at once; the number of them whose `work` gave true.
int CountSuccesses(int count, const std::function<bool(int)>& work);

// Waits until `condition` holds, at most ten seconds. False when it never did.
bool WaitUntil(const std::function<bool()>& condition);

std::string ReadFile(const std::string& path);
