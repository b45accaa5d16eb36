#include "tests/unit/pavane/postgresql_server.h"

#include <fcntl.h>
#include <libpq-fe.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "tests/unit/pavane/test_node.h"

namespace {

constexpr const char* kAccount = "postgres";

// The server refuses to run as root.
uid_t ServerUser() {
    const passwd* const account = geteuid() == 0 ? getpwnam(kAccount) : nullptr;
    return account != nullptr ? account->pw_uid : geteuid();
}

std::string BinaryFolder() {
    std::string newest;
    for (const auto& version : std::filesystem::directory_iterator("/usr/lib/postgresql")) {
        newest = std::max(newest, version.path().string());
    }
    return newest + "/bin/";
}

// Runs the program as the server's user, its output in `log`.
pid_t Start(std::vector<std::string> arguments, const std::string& log) {
    std::vector<char*> raw;
    for (std::string& argument : arguments) {
        raw.push_back(argument.data());
    }
    raw.push_back(nullptr);
    const pid_t parent = getpid();
    const uid_t user = ServerUser();
    const pid_t pid = fork();
    if (pid == 0) {
        const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        if (out < 0 || dup2(out, STDOUT_FILENO) < 0 || dup2(out, STDERR_FILENO) < 0 || setuid(user) != 0) {
            _exit(1);
        }
        // After the change of user, which would clear it.
        prctl(PR_SET_PDEATHSIG, SIGQUIT);
        if (getppid() == parent) {
            execv(raw[0], raw.data());
        }
        _exit(1);
    }
    return pid;
}

}  // namespace

PostgresqlServer::PostgresqlServer(const std::string& folder) : m_folder(folder) {
    std::filesystem::create_directory(folder);
    if (chown(folder.c_str(), ServerUser(), static_cast<gid_t>(-1)) != 0) {
        throw std::runtime_error("cannot give the folder to the server's user");
    }
    const std::string log = folder + ".log";
    int status = 0;
    const pid_t maker = Start({BinaryFolder() + "initdb", "--no-sync", "--auth=trust", "--username=postgres",
                               "--encoding=UTF8", "--locale=C.UTF-8", "--pgdata=" + folder + "/data"},
                              log);
    if (waitpid(maker, &status, 0) != maker || status != 0) {
        throw std::runtime_error("initdb failed: " + ReadFile(log));
    }
    m_pid = Start({BinaryFolder() + "postgres", "-D", folder + "/data", "-k", folder, "-c",
                   "listen_addresses=", "-c", "fsync=off", "-c", "autovacuum=off"},
                  log);
    if (!WaitUntil([this] { return PQping(Connection("postgres").c_str()) == PQPING_OK; })) {
        throw std::runtime_error("the server does not answer: " + ReadFile(log));
    }
}

PostgresqlServer::~PostgresqlServer() {
    if (m_pid > 0) {
        kill(m_pid, SIGINT);
        waitpid(m_pid, nullptr, 0);
    }
}

std::string PostgresqlServer::Connection(const std::string& database) const {
    return "host=" + m_folder + " user=postgres dbname=" + database;
}
