#pragma once

#include <string>

#include <sys/types.h>

// A PostgreSQL server of this program's own: data and socket in one folder, no TCP. Stopped and removed with
// the object, or when the program dies.
class PostgresqlServer {
public:
    // `folder` must not exist. Throws std::runtime_error when the server can't be started.
    explicit PostgresqlServer(const std::string& folder);
    ~PostgresqlServer();
    PostgresqlServer(const PostgresqlServer&) = delete;
    PostgresqlServer& operator=(const PostgresqlServer&) = delete;

    std::string Connection(const std::string& database) const;

private:
    std::string m_folder;
    pid_t m_pid = -1;
};
