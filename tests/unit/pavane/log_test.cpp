#include "platform/pavane/log.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/stat.h>
#include <sys/wait.h>

#include "pavane/recorder/log_config.h"
#include "pavane/recorder/log_entry.h"
#include "pavane/recorder/log_file.h"
#include "pavane/recorder/log_names.h"
#include "tests/unit/pavane/test_node.h"
#include "webapi/include/log_gate.h"

namespace {

std::string LogPath() { return TestNode::Instance().LogDir() + "/pavane.log"; }

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

TEST(Log, AnEntryHoldsItsOriginAndItsText) {
    PVPrintf(LOG_TYPE_DEFAULT, Enum2String<LOG_CATEG>(LOG_CATEG_SHARE),
             Enum2String<LOG_LEVEL>(LOG_LEVEL_DEBUG), "share", 1966, "HandleProcess",
             "Method [%s], number %d\n", "List", 7);
    const std::string pid = std::to_string(getpid());
    EXPECT_TRUE(
        EndsWith(ReadFile(LogPath()),
                 "Z [" + pid + "] [SHARE] [DEBUG] share:1966 HandleProcess: Method [List], number 7\n"))
        << ReadFile(LogPath());
    PVPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, "share", 5, "Act", "plain");
    EXPECT_TRUE(EndsWith(ReadFile(LogPath()), "Z [" + pid + "] share:5 Act: plain\n"));
}

TEST(Log, TheFileIsForTheLogsReadersOnly) {
    PVPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, "share", 1, "f", "x");
    struct stat facts {};
    ASSERT_EQ(stat(LogPath().c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777U, 0640U);
    EXPECT_EQ(facts.st_uid, geteuid());
}

TEST(Log, ControlCharactersCannotMakeALineOrSteerATerminal) {
    const std::string entry = pavane::FormatLogEntry(
        {nullptr, nullptr, "s", 1, "f"}, std::string("a\nb\r\t\x1b[0m\x7f\xC2\x9B\xC3\xA4\0z\n\n", 18));
    EXPECT_TRUE(EndsWith(entry, "f: a\\nb\\r\\t\\x1b[0m\\x7f\\xc2\\x9b\xC3\xA4\\x00z\n")) << entry;
    EXPECT_EQ(std::count(entry.begin(), entry.end(), '\n'), 1);
}

TEST(Log, SecretsInsideJsonAreNotWritten) {
    const auto textOf = [](const std::string& text) {
        const std::string entry = pavane::FormatLogEntry({nullptr, nullptr, "s", 1, "f"}, text);
        return entry.substr(entry.find("f: ") + 3);
    };
    EXPECT_EQ(textOf(R"(param [{"enc_passwd":"a\"b}","name":"x","passwd" : "c"}])"),
              "param [{\"enc_passwd\":\"***\",\"name\":\"x\",\"passwd\" : \"***\"}]\n");
    EXPECT_EQ(textOf(R"("enc_passwd":"cut off)"), "\"enc_passwd\":\"***\"\n");
    EXPECT_EQ(textOf(R"("enc_passwd":"\)"), "\"enc_passwd\":\"***\"\n");
    for (const char* const plain :
         {R"({"name":"passwd"})", R"({"passwd":5})", R"("passwd")", R"("passwd":)"}) {
        EXPECT_EQ(textOf(plain), std::string(plain) + "\n");
    }
}

TEST(Log, ALongTextIsCutAndTheEntrySaysSo) {
    const std::string entry =
        pavane::FormatLogEntry({nullptr, nullptr, "s", 1, "f"}, std::string(pavane::kLogTextLimit + 5, 'x'));
    EXPECT_TRUE(EndsWith(entry, "x ... (5 bytes left out)\n"));
    EXPECT_LT(entry.size(), pavane::kLogTextLimit + 200);
}

TEST(Log, EntriesOfManyProcessesAreNeverMixed) {
    const std::string path = TestNode::Instance().LogDir() + "/many.log";
    constexpr int kProcesses = 6;
    constexpr int kEntries = 200;
    EXPECT_EQ(CountSuccesses(kProcesses,
                             [&path](int i) {
                                 pavane::LogFile file(path);
                                 const std::string line = std::string(500, static_cast<char>('a' + i)) + "\n";
                                 bool ok = true;
                                 for (int n = 0; n < kEntries; ++n) {
                                     ok = file.Write(line) && ok;
                                 }
                                 return ok;
                             }),
              kProcesses);
    const std::string text = ReadFile(path);
    EXPECT_EQ(text.size(), kProcesses * kEntries * 501U);
    for (std::size_t at = 0; at < text.size(); at += 501) {
        ASSERT_EQ(text.find_first_not_of(text[at], at), at + 500);
    }
}

TEST(Log, ARotatedFileIsOpenedAnew) {
    const std::string path = TestNode::Instance().LogDir() + "/rotated.log";
    pavane::LogFile file(path);
    ASSERT_TRUE(file.Write("before\n"));
    std::filesystem::rename(path, path + ".1");
    EXPECT_TRUE(WaitUntil([&] { return file.Write("after\n") && std::filesystem::exists(path); }));
    EXPECT_EQ(ReadFile(path), "after\n");
    // Rotation may also put an empty file in its place.
    std::filesystem::rename(path, path + ".2");
    std::ofstream(path) << "";
    EXPECT_TRUE(WaitUntil([&] { return file.Write("again\n") && std::filesystem::file_size(path) > 0; }));
    EXPECT_EQ(ReadFile(path), "again\n");
    EXPECT_EQ(ReadFile(path + ".1").substr(0, 7), "before\n");
}

TEST(Log, AFileThatCannotBeOpenedLosesTheEntry) {
    pavane::LogFile file(TestNode::Instance().LogDir() + "/no/such/folder.log");
    EXPECT_FALSE(file.Write("x\n"));
}

TEST(Log, AProcessWithLoweredIdsStillWritesAFileOfRoot) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const std::string path = TestNode::Instance().LogDir() + "/lowered.log";
    EXPECT_EQ(CountSuccesses(1,
                             [&path](int) {
                                 constexpr uid_t kNobody = 65534;
                                 pavane::LogFile file(path);
                                 const bool lowered = setresuid(static_cast<uid_t>(-1), kNobody, 0) == 0;
                                 return lowered && file.Write("x\n") && geteuid() == kNobody;
                             }),
              1);
    struct stat facts {};
    ASSERT_EQ(stat(path.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_uid, 0U);
    EXPECT_EQ(facts.st_mode & 07777U, 0640U);
}

TEST(LogNames, ValuesWithoutANameAreUnknown) {
    EXPECT_STREQ(Enum2String<LOG_CATEG>(LOG_CATEG_CMS), "CMS");
    EXPECT_STREQ(Enum2String<LOG_CATEG>(static_cast<LOG_CATEG>(3)), "unknown");
    EXPECT_STREQ(Enum2String<LOG_LEVEL>(LOG_LEVEL_TRACE), "TRACE");
    EXPECT_STREQ(Enum2String<LOG_LEVEL>(static_cast<LOG_LEVEL>(9)), "unknown");
}

TEST(LogNames, NamesAndNumbersAreRead) {
    EXPECT_EQ(pavane::ParseLogCategory("share"), LOG_CATEG_SHARE);
    EXPECT_EQ(pavane::ParseLogCategory("15"), LOG_CATEG_CMS);
    EXPECT_EQ(pavane::ParseLogLevel("Debug"), LOG_LEVEL_DEBUG);
    EXPECT_EQ(pavane::ParseLogLevel("0"), LOG_LEVEL_NONE);
    for (const char* text : {"", "64", "-1", "unknown", "4x", " 4"}) {
        EXPECT_FALSE(pavane::ParseLogCategory(text).has_value()) << text;
    }
    EXPECT_FALSE(pavane::ParseLogLevel("7").has_value());
}

TEST(LogConfig, ALevelSetInOneProcessHoldsInAllThatMapTheFile) {
    ASSERT_TRUE(pavane::OpenLogConfig(pavane::LogConfigPath()));
    EXPECT_EQ(g_pDbgLogCfg->level[LOG_CATEG_SHARE], LOG_LEVEL_ERR);
    EXPECT_FALSE(IsLogAdmitted(LOG_CATEG_SHARE, LOG_LEVEL_DEBUG));
    EXPECT_EQ(CountSuccesses(1,
                             [](int) {
                                 g_pDbgLogCfg = nullptr;  // as in a process that was not forked from this one
                                 return pavane::OpenLogConfig(pavane::LogConfigPath()) &&
                                        pavane::SetLogLevel(LOG_CATEG_SHARE, LOG_LEVEL_DEBUG);
                             }),
              1);
    EXPECT_TRUE(IsLogAdmitted(LOG_CATEG_SHARE, LOG_LEVEL_DEBUG));
    EXPECT_FALSE(IsLogAdmitted(LOG_CATEG_SHARE, LOG_LEVEL_TRACE));
    EXPECT_FALSE(IsLogAdmitted(LOG_CATEG_CMS, LOG_LEVEL_DEBUG));
    EXPECT_TRUE(pavane::SetLogLevel(LOG_CATEG_SHARE, LOG_LEVEL_ERR));
}

TEST(LogConfig, AProcessMayHaveALevelOfItsOwn) {
    ASSERT_TRUE(pavane::OpenLogConfig(pavane::LogConfigPath()));
    EXPECT_FALSE(IsLogAdmitted(LOG_CATEG_CMS, LOG_LEVEL_TRACE));
    EXPECT_TRUE(pavane::SetLogLevelOfProcess(getpid(), LOG_LEVEL_TRACE));
    EXPECT_TRUE(IsLogAdmitted(LOG_CATEG_CMS, LOG_LEVEL_TRACE));
    EXPECT_TRUE(pavane::SetLogLevelOfProcess(getpid(), LOG_LEVEL_NONE));
    EXPECT_EQ(g_pDbgLogCfg->pidCount, 1);
    EXPECT_FALSE(IsLogAdmitted(LOG_CATEG_CMS, LOG_LEVEL_TRACE));
}

TEST(LogConfig, RowsOfDeadProcessesAreUsedAgainAndAFullTableRefuses) {
    ASSERT_TRUE(pavane::OpenLogConfig(pavane::LogConfigPath()));
    g_pDbgLogCfg->pidCount = 0;
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    ASSERT_TRUE(pavane::SetLogLevelOfProcess(child, LOG_LEVEL_DEBUG));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ASSERT_TRUE(pavane::SetLogLevelOfProcess(getpid(), LOG_LEVEL_DEBUG));
    EXPECT_EQ(g_pDbgLogCfg->pidCount, 1);
    for (auto& row : g_pDbgLogCfg->pidLevel) {
        row.pid = getppid();
    }
    g_pDbgLogCfg->pidCount = DbgLogCfg::kMaxPids;
    EXPECT_FALSE(pavane::SetLogLevelOfProcess(getpid(), LOG_LEVEL_DEBUG));
    g_pDbgLogCfg->pidCount = 0;
}

TEST(LogConfig, AFileOfAnotherLayoutIsReplaced) {
    const std::string path = TestNode::Instance().RunDir() + "/other.cfg";
    EXPECT_EQ(CountSuccesses(1,
                             [&path](int) {
                                 FILE* const file = std::fopen(path.c_str(), "w");
                                 std::fputs("short", file);
                                 std::fclose(file);
                                 g_pDbgLogCfg = nullptr;
                                 return pavane::OpenLogConfig(path) &&
                                        g_pDbgLogCfg->level[0] == pavane::kDefaultLogLevel;
                             }),
              1);
    EXPECT_EQ(std::filesystem::file_size(path), sizeof(DbgLogCfg));
}
