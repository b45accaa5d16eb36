#include "cli/session_file.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

using cli::Session;
using cli::SessionFile;

class SessionFileTest : public testing::Test {
protected:
    SessionFileTest() {
        std::string folder = testing::TempDir() + "cli-session-XXXXXX";
        m_folder = mkdtemp(folder.data()) != nullptr ? folder : throw std::runtime_error("no folder");
        m_path = m_folder + "/pavane/session.json";
    }
    ~SessionFileTest() override { std::filesystem::remove_all(m_folder); }

    static mode_t ModeOf(const std::string& path) {
        struct stat status {};
        return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
    }

    std::string m_folder;
    std::string m_path;
};

TEST_F(SessionFileTest, NobodyElseCanReadTheFileOrItsFolder) {
    const mode_t before = umask(0);
    SessionFile(m_path).Store("http://a", {"admin", "cookie", "csrf"});
    umask(before);
    EXPECT_EQ(ModeOf(m_path), 0600U);
    EXPECT_EQ(ModeOf(m_folder + "/pavane"), 0700U);
}

TEST_F(SessionFileTest, AReadableFileBecomesPrivateWithTheNextSession) {
    std::filesystem::create_directory(m_folder + "/pavane");
    std::ofstream(m_path) << "{}";
    chmod(m_path.c_str(), 0644);
    SessionFile(m_path).Store("http://a", {"admin", "cookie", "csrf"});
    EXPECT_EQ(ModeOf(m_path), 0600U);
}

TEST_F(SessionFileTest, ASessionIsFoundByItsServerOnly) {
    const SessionFile file(m_path);
    file.Store("http://a", {"admin", "cookie-a", "csrf-a"});
    file.Store("http://b/", {"viewer", "cookie-b", "csrf-b"});
    EXPECT_EQ(file.Load("http://a/").cookie, "cookie-a");
    EXPECT_EQ(file.Load("http://a").csrf, "csrf-a");
    EXPECT_EQ(file.Load("http://b").account, "viewer");
    EXPECT_EQ(file.Load("http://c").cookie, "");
}

TEST_F(SessionFileTest, AForgottenSessionIsGoneAndTheOthersStay) {
    const SessionFile file(m_path);
    file.Store("http://a", {"admin", "cookie-a", "csrf-a"});
    file.Store("http://b", {"admin", "cookie-b", "csrf-b"});
    file.Forget("http://a");
    EXPECT_EQ(file.Load("http://a").cookie, "");
    EXPECT_EQ(file.Load("http://b").cookie, "cookie-b");
    std::ifstream stream(m_path);
    const std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text.find("cookie-a"), std::string::npos);
}

TEST_F(SessionFileTest, ADamagedFileIsRefusedAndKept) {
    std::filesystem::create_directory(m_folder + "/pavane");
    std::ofstream(m_path) << "{\"http://a\": ";
    EXPECT_THROW(static_cast<void>(SessionFile(m_path).Load("http://a")), std::runtime_error);
    EXPECT_THROW(SessionFile(m_path).Store("http://a", {}), std::runtime_error);
    EXPECT_EQ(std::filesystem::file_size(m_path), 13U);
}

TEST_F(SessionFileTest, NoUnfinishedFileIsLeftBehind) {
    SessionFile(m_path).Store("http://a", {"admin", "cookie", "csrf"});
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder + "/pavane")) {
        EXPECT_EQ(entry.path(), m_path);
        ++files;
    }
    EXPECT_EQ(files, 1U);
}

}  // namespace
