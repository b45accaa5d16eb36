#include "tests/unit/pavane/test_node.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include <sys/wait.h>

#include "tests/unit/pavane/postgresql_server.h"

namespace {

TestNode* g_node = nullptr;

}  // namespace

TestNode::TestNode(const std::string& database) {
    std::string folder = "/tmp/pavane_unit_XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        throw std::runtime_error("cannot make a folder for the test");
    }
    m_folder = folder;
    // The database server's user has to get through to its own folder.
    std::filesystem::permissions(folder, std::filesystem::perms(0711));
    std::filesystem::create_directory(StateDir());
    std::filesystem::create_directories(RunDir() + "/service");
    std::filesystem::create_directory(LogDir());
    std::string setting = "sqlite";
    if (database == "postgresql") {
        m_server = std::make_unique<PostgresqlServer>(m_folder + "/pg");
        setting = m_server->Connection("postgres");
    }
    std::ofstream(m_folder + "/pavane.yaml")
        << "state_dir: " << StateDir() << "\nrun_dir: " << RunDir() << "\nlog_dir: " << LogDir()
        << "\nservice_user: root\nvolumes: [/volume1]\ndatabase: \"" << setting << "\"\n";
    setenv("KORV_CONFIG", (m_folder + "/pavane.yaml").c_str(), 1);
    g_node = this;
}

TestNode::~TestNode() {
    pavane::CloseAppDatabase();
    g_node = nullptr;
    m_server.reset();
    std::filesystem::remove_all(m_folder);
}

TestNode& TestNode::Instance() { return *g_node; }

pavane::DatabaseAddress TestNode::FreshDatabase() {
    const std::string name = "fresh" + std::to_string(++m_databases);
    if (m_server == nullptr) {
        return {pavane::DatabaseKind::kSqlite, StateDir() + "/" + name + ".db"};
    }
    pavane::AppDatabase().Session() << "create database " << name;
    return {pavane::DatabaseKind::kPostgresql, m_server->Connection(name)};
}

StoreTest::StoreTest() {
    for (const char* table : {"service_link", "recording_share", "camera", "shared_folder_storage",
                              "rec_server", "cms_host", "pair_stamp", "event", "backup_folder", "setting",
                              "application", "archive_task", "service_notice"}) {
        Session() << "delete from " << table;
    }
}

std::string StoreTest::PlanOf(const std::string& statement) {
    std::string plan;
    const bool sqlite = IsSqlite();
    const soci::rowset<soci::row> rows =
        (Session().prepare << (sqlite ? "explain query plan " : "explain ") << statement);
    for (const soci::row& row : rows) {
        plan += row.get<std::string>(sqlite ? 3 : 0) + "\n";
    }
    return plan;
}

BrokenTable::BrokenTable(const std::string& table) : m_table(table) {
    pavane::AppDatabase().Session() << "alter table " << m_table << " rename to " << m_table << "_broken";
}

BrokenTable::~BrokenTable() {
    pavane::AppDatabase().Session() << "alter table " << m_table << "_broken rename to " << m_table;
}

LogWatch::LogWatch() : m_begin(ReadFile(TestNode::Instance().LogDir() + "/pavane.log").size()) {}

std::string LogWatch::Text() const {
    return ReadFile(TestNode::Instance().LogDir() + "/pavane.log").substr(m_begin);
}

int CountSuccesses(int count, const std::function<bool(int)>& work) {
    std::vector<pid_t> children;
    for (int i = 0; i < count; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(work(i) ? 0 : 1);
        }
        children.push_back(pid);
    }
    int successes = 0;
    for (const pid_t pid : children) {
        int status = 0;
        const bool ended = pid > 0 && waitpid(pid, &status, 0) == pid;
        successes += ended && status == 0 ? 1 : 0;
    }
    return successes;
}

bool WaitUntil(const std::function<bool()>& condition) {
    constexpr std::chrono::seconds kPatience(10);
    constexpr std::chrono::milliseconds kPause(20);
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(kPause);
    }
    return condition();
}

std::string ReadFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const char* const database = std::getenv("PAVANE_TEST_DATABASE");
    try {
        const TestNode node(database != nullptr ? database : "sqlite");
        return RUN_ALL_TESTS();
    } catch (const std::exception& failure) {
        std::cerr << "the test's node could not be started: " << failure.what() << "\n";
        return 1;
    }
}
