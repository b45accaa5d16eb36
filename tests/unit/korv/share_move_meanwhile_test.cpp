// What people and programs do to a share at the wrong moment of a move.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <sys/stat.h>
#include <sys/wait.h>

#include "korv/system/share_move.h"
#include "tests/unit/korv/moved_share.h"

namespace {

namespace fs = std::filesystem;

using korv::MoveEnd;
using korv::MoveState;
using korv::MoveStep;
using korv::MoveWish;

class MoveMeanwhile : public ShareMove {};
class EncryptionMeanwhile : public ShareMove {
protected:
    // The one entry beside `name` that is named after it.
    std::string NamedAfter(const std::string& name) const {
        const fs::path path = m_share + "/" + name;
        for (const auto& entry : fs::directory_iterator(path.parent_path())) {
            if (entry.path().filename().string().starts_with(path.filename().string() + ".")) {
                return entry.path();
            }
        }
        return "";
    }
};

// As a volume that is away.
class BlindPlaces : public korv::EncryptPlaces {
public:
    using EncryptPlaces::EncryptPlaces;
    bool HasSwitched() override {
        if (isBlind) {
            throw std::system_error(ENODEV, std::generic_category(), "nothing is mounted");
        }
        return EncryptPlaces::HasSwitched();
    }

    bool isBlind = false;
};

TEST_P(EncryptionMeanwhile, StaysAtTheSwitchWhileNobodyCanTellWhetherItWasDone) {
    MakeShare(5);
    BlindPlaces places(m_volume, "rec", kToken, kPassword);
    const auto result =
        RunIn(places, [&](const MoveState& state) { places.isBlind = state.step == MoveStep::kSwitch; });
    EXPECT_EQ(result.end, MoveEnd::kFailed);
    EXPECT_EQ(m_journal->state.step, MoveStep::kSwitch);
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    ExpectMoved();
}

TEST_P(EncryptionMeanwhile, EndsWhereEncryptedFilesHaveNoPlace) {
    MakeShare(5);
    for (const std::string& inTheWay : {std::string("/.korv"), std::string("/.korv/cipher")}) {
        *m_journal = Journal();
        fs::remove_all(m_volume + "/.korv");
        fs::create_directories(fs::path(m_volume + inTheWay).parent_path());
        std::ofstream(m_volume + inTheWay) << "somebody's";
        const auto result = Run();
        EXPECT_EQ(result.end, MoveEnd::kFailed) << inTheWay;
        EXPECT_NE(result.reason, "") << inTheWay;
        EXPECT_EQ(m_journal->state.step, MoveStep::kUndone) << inTheWay;
        EXPECT_EQ(Text(m_volume + inTheWay), "somebody's");
        EXPECT_EQ(manifest::Difference(m_before, manifest::Of(m_share)), "");
    }
}

// Works in a folder until it is told to do something there.
class Worker {
public:
    Worker(const std::string& folder, const std::function<void()>& work) {
        EXPECT_EQ(pipe2(m_way, O_CLOEXEC), 0);
        m_pid = fork();
        if (m_pid == 0) {
            char go = 0;
            const bool isThere = chdir(folder.c_str()) == 0 && read(m_way[0], &go, 1) == 1;
            work();
            _exit(isThere ? 0 : 1);
        }
        while (fs::read_symlink("/proc/" + std::to_string(m_pid) + "/cwd") != folder) {
            usleep(1000);
        }
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    void GoOn() {
        int status = 0;
        EXPECT_EQ(write(m_way[1], "x", 1), 1);
        EXPECT_EQ(waitpid(m_pid, &status, 0), m_pid);
        EXPECT_EQ(WEXITSTATUS(status), 0);
        close(m_way[0]);
        close(m_way[1]);
    }

private:
    int m_way[2] = {-1, -1};
    pid_t m_pid = -1;
};

TEST_P(EncryptionMeanwhile, KeepsBothWhereAnEntryBecameAnotherKindInBothFolders) {
    MakeShare(5);
    Worker worker(m_share + "/cam0", [] {
        std::ofstream("file") << "of the old folder";
        fs::create_directories("folder/inner");
        std::ofstream("folder/inner/film") << "of the old folder";
        fs::create_symlink("nowhere", "link");
    });
    EXPECT_EQ(Run().end, MoveEnd::kSourceBusy);
    const std::string folder = m_share + "/cam0/";
    fs::create_directory(folder + "file");
    std::ofstream(folder + "folder") << "of people";
    fs::create_directory(folder + "link");
    worker.GoOn();
    const auto result = Run();
    EXPECT_EQ(result.end, MoveEnd::kDone) << result.reason;
    EXPECT_TRUE(fs::is_directory(folder + "file"));
    EXPECT_EQ(Text(NamedAfter("cam0/file")), "of the old folder");
    EXPECT_EQ(Text(folder + "folder"), "of people");
    EXPECT_EQ(Text(NamedAfter("cam0/folder") + "/inner/film"), "of the old folder");
    EXPECT_TRUE(fs::is_directory(folder + "link"));
    EXPECT_EQ(fs::read_symlink(NamedAfter("cam0/link")), "nowhere");
    EXPECT_NE(result.reason, "") << "nobody was told";
}

TEST_P(EncryptionMeanwhile, KeepsWhatIsWrittenLateWherePeopleHaveReplacedIt) {
    MakeShare(5);
    fs::create_directory(m_share + "/cam0/deep");
    usleep(2'100'000);
    std::ofstream film(m_share + "/cam0/film");
    std::ofstream deep(m_share + "/cam0/deep/film");
    film << "before, " << std::flush;
    deep << "before, " << std::flush;
    m_sendAway = [&] {
        if (m_journal->state.step == MoveStep::kFollow && fs::is_regular_file(m_share + "/cam0/film")) {
            fs::remove(m_share + "/cam0/film");
            fs::create_directory(m_share + "/cam0/film");
            fs::remove_all(m_share + "/cam0/deep");
            std::ofstream(m_share + "/cam0/deep") << "of people";
        }
    };
    EXPECT_EQ(Run().end, MoveEnd::kSourceBusy);
    film << "after" << std::flush;
    deep << "after" << std::flush;
    film.close();
    deep.close();
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    EXPECT_TRUE(fs::is_directory(m_share + "/cam0/film"));
    EXPECT_EQ(Text(NamedAfter("cam0/film")), "before, after");
    EXPECT_EQ(Text(m_share + "/cam0/deep"), "of people");
    EXPECT_EQ(Text(NamedAfter("cam0/deep") + "/film"), "before, after");
}

// What root wrote there would be hidden by the mount, and would keep the share from being unlocked.
TEST_P(EncryptionMeanwhile, NothingCanBeWrittenAtTheSharesPlaceWhileItSettles) {
    MakeShare(5);
    bool hasSettled = false;
    const auto result = Run([&](const MoveState& state) {
        if (state.step == MoveStep::kSettle) {
            hasSettled = true;
            EXPECT_TRUE(fs::is_empty(m_share));
            EXPECT_NE(mkdir((m_share + "/backup").c_str(), 0700), 0);
        }
    });
    EXPECT_EQ(result.end, MoveEnd::kDone) << result.reason;
    EXPECT_TRUE(hasSettled);
    ExpectMoved();
}

// Only a password that people give unlocks the share then.
TEST_P(EncryptionMeanwhile, CanBeUnlockedWhenEverythingDiedWhileItSettled) {
    MakeShare(5);
    const int status = machine::InChild([&] {
        return static_cast<int>(Run([](const MoveState& state) {
                                    if (state.step == MoveStep::kSettle) {
                                        kill(getpid(), SIGKILL);
                                    }
                                }).end);
    });
    ASSERT_TRUE(WIFSIGNALED(status));
    Unmount(m_volume + "/.korv/view/token");
    EXPECT_EQ(Run({}, {}, "").end, MoveEnd::kLocked);
    ASSERT_EQ(m_cipher.Mount(kPassword), korv::CipherEnd::kDone);
    EXPECT_EQ(Run({}, {}, "").end, MoveEnd::kDone);
    ExpectMoved();
}

TEST_P(EncryptionMeanwhile, ACarriedFileKeepsItsNames) {
    MakeShare(5);
    std::ofstream film(m_share + "/cam0/film");
    fs::create_hard_link(m_share + "/cam0/film", m_share + "/cam1/other");
    fs::create_hard_link(m_share + "/cam0/film", m_share + "/cam1/replaced");
    film << "before, " << std::flush;
    m_sendAway = [&] {
        if (m_journal->state.step == MoveStep::kFollow && fs::hard_link_count(m_share + "/cam0/film") == 3) {
            fs::remove(m_share + "/cam1/replaced");
            std::ofstream(m_share + "/cam1/replaced") << "of people";
            const timespec later[2] = {{0, UTIME_OMIT}, {time(nullptr) + 1000, 0}};
            EXPECT_EQ(utimensat(AT_FDCWD, (m_share + "/cam1/replaced").c_str(), later, 0), 0);
        }
    };
    EXPECT_EQ(Run().end, MoveEnd::kSourceBusy);
    EXPECT_TRUE(fs::equivalent(m_share + "/cam0/film", m_share + "/cam1/other"));
    film << "after" << std::flush;
    film.close();
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    EXPECT_EQ(Text(m_share + "/cam0/film"), "before, after");
    EXPECT_TRUE(fs::equivalent(m_share + "/cam0/film", m_share + "/cam1/other"));
    EXPECT_EQ(Text(m_share + "/cam1/replaced"), "of people");
    m_before = manifest::Of(m_share);
    ExpectMoved();
}

// The look for writers in it walks as deep.
TEST_P(EncryptionMeanwhile, EndsWhenPeopleRemoveADeepFolder) {
    constexpr int kLevels = 45;
    constexpr unsigned kDeadline_s = 60;
    MakeShare(3);
    std::string path = m_share + "/chain";
    for (int level = 1; level < kLevels; ++level) {
        path += "/d";
    }
    fs::create_directories(path);
    usleep(2'100'000);  // what was made in the second before the last pass counts as made later
    m_sendAway = [&] {
        if (m_journal->state.step == MoveStep::kFollow) {
            fs::remove_all(m_share + "/chain");
        }
    };
    const int status = machine::InChild([&] {
        alarm(kDeadline_s);
        return static_cast<int>(Run().end);
    });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == static_cast<int>(MoveEnd::kDone)) << status;
    EXPECT_FALSE(fs::exists(m_share + "/chain"));
}

INSTANTIATE_TEST_SUITE_P(To, EncryptionMeanwhile, testing::Values(Direction::kToCipher), NameOf);

// A walk keeps only some folders open and finds the way up from deeper ones by what they lie in.
TEST_P(MoveMeanwhile, RepeatsAPassUnderWhichADeepFolderWasMovedAway) {
    constexpr int kLevels = 45;
    constexpr int kDeep = 38;
    MakeShare(3);
    for (const auto& entry : fs::directory_iterator(m_share)) {
        fs::remove_all(entry.path());
    }
    std::string path = m_share + "/chain";
    for (int level = 1; level < kLevels; ++level) {
        path += "/d";
    }
    fs::create_directories(path);
    std::ofstream(path + "/film") << "film";
    fs::create_directory(m_share + "/elsewhere");
    MoveStep step = MoveStep::kDone;
    int entries = 0;
    int moves = 0;
    const auto moveWhenDeep = [&] {
        if (m_journal->state.step != step) {
            step = m_journal->state.step;
            entries = 0;
        }
        if (entries < kDeep && step <= MoveStep::kCatchUp) {
            usleep(21'000);  // so that the next entry is asked for, too
            if (++entries == kDeep) {
                const bool isAway = fs::exists(m_share + "/elsewhere/chain");
                fs::rename(m_share + (isAway ? "/elsewhere/chain" : "/chain"),
                           m_share + (isAway ? "/chain" : "/elsewhere/chain"));
                m_before = manifest::Of(m_share);
                ++moves;
            }
        }
        return MoveWish::kGoOn;
    };
    const auto result = Run({}, moveWhenDeep);
    EXPECT_EQ(result.end, MoveEnd::kDone) << result.reason;
    EXPECT_GE(moves, 3);
    ExpectMoved();
}

INSTANTIATE_TEST_SUITE_P(To, MoveMeanwhile, testing::Values(Direction::kToCipher, Direction::kToPlain),
                         NameOf);

class DecryptionMeanwhile : public ShareMove {};

TEST_P(DecryptionMeanwhile, SendsNobodyAwayWhileAProgramOfThisMachineUsesTheShare) {
    MakeShare(5);
    int sent = 0;
    m_sendAway = [&] { ++sent; };
    Worker worker(m_share + "/cam0", [] {});
    EXPECT_EQ(Run().end, MoveEnd::kSourceBusy);
    EXPECT_EQ(m_journal->state.step, MoveStep::kSwitch);
    EXPECT_EQ(sent, 0);
    worker.GoOn();
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    EXPECT_EQ(sent, 1);
    ExpectMoved();
}

TEST_P(DecryptionMeanwhile, SendsSambasClientsAwayWhenOnlyTheyUseTheShare) {
    MakeShare(5);
    const std::string server = m_volume + "/smbd";
    fs::copy_file("/bin/sleep", server);
    const std::string folder = m_share + "/cam0";
    const pid_t smbd = fork();
    if (smbd == 0) {
        _exit(chdir(folder.c_str()) == 0 ? execl(server.c_str(), "smbd", "600", nullptr) : 1);
    }
    const std::string process = "/proc/" + std::to_string(smbd);
    while (fs::read_symlink(process + "/exe") != server) {
        usleep(1000);
    }
    m_sendAway = [&] {
        if (m_journal->state.step == MoveStep::kSwitch) {
            kill(smbd, SIGKILL);
        }
    };
    const auto result = Run();
    kill(smbd, SIGKILL);
    EXPECT_EQ(waitpid(smbd, nullptr, 0), smbd);
    EXPECT_EQ(result.end, MoveEnd::kDone) << result.reason;
    ExpectMoved();
}

INSTANTIATE_TEST_SUITE_P(To, DecryptionMeanwhile, testing::Values(Direction::kToPlain), NameOf);

}  // namespace
