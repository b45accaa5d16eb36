#include "korv/system/share_move.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>

#include "tests/unit/korv/moved_share.h"

namespace {

namespace fs = std::filesystem;

using korv::CipherFolder;
using korv::MoveEnd;
using korv::MoveState;
using korv::MoveStep;
using korv::MoveWish;

constexpr std::chrono::milliseconds kPatience(200);
constexpr int kSteps = 9;  // of a move that ends well

TEST_P(ShareMove, KeepsEverything) {
    MakeShare(60);
    std::vector<int> percents;
    const auto result = Run([&](const MoveState& state) { percents.push_back(state.Percent()); });
    EXPECT_EQ(result.end, MoveEnd::kDone) << result.reason;
    EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end()));
    ExpectMoved();
}

TEST_P(ShareMove, KeepsHoles) {
    MakeShare(3);
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    struct stat status {};
    ASSERT_EQ(stat((m_share + "/special/sparse").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 8'000'000);
    EXPECT_LT(status.st_blocks * 512, 200'000);
}

TEST_P(ShareMove, ACancellationAtAnyStepBeforeTheSwitchLeavesTheSourceAlone) {
    for (int step = 0; step < static_cast<int>(MoveStep::kSwitch); ++step) {
        ShareMove::SetUp();
        *m_journal = Journal();
        MakeShare(20);
        const auto result = Run({}, [&] {
            return static_cast<int>(m_journal->state.step) >= step ? MoveWish::kCancel : MoveWish::kGoOn;
        });
        EXPECT_EQ(result.end, MoveEnd::kCancelled) << step;
        EXPECT_EQ(m_journal->state.step, MoveStep::kUndone) << step;
        ExpectUntouched();
        Unmount(m_share);
    }
}

TEST_P(ShareMove, GoesOnAfterItWasPausedAtAnyStep) {
    MakeShare(20);
    for (int step = 0; step < static_cast<int>(MoveStep::kFollow); ++step) {
        Run({}, [&] {
            return static_cast<int>(m_journal->state.step) >= step ? MoveWish::kPause : MoveWish::kGoOn;
        });
    }
    EXPECT_EQ(Run({}, {}, "").end, MoveEnd::kDone);
    ExpectMoved();
}

TEST_P(ShareMove, LosesNothingWhenItIsKilledAtAnySavedState) {
    MakeShare(20);
    int killed = 0;
    while (true) {
        const MoveStep before = m_journal->state.step;
        const auto dieAfterIt = [before](const MoveState& state) {
            if (state.step != before) {
                kill(getpid(), SIGKILL);
            }
        };
        const int status = machine::InChild([&] { return static_cast<int>(Run(dieAfterIt).end); });
        if (WIFEXITED(status)) {
            EXPECT_EQ(WEXITSTATUS(status), static_cast<int>(MoveEnd::kDone));
            break;
        }
        ++killed;
    }
    EXPECT_EQ(killed, kSteps);
    ExpectMoved();
}

TEST_P(ShareMove, LosesNothingWhenItIsKilledAtAnyTime) {
    MakeShare(40);
    int killed = 0;
    int patience_us = 1000;
    while (true) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(static_cast<int>(Run().end));
        }
        usleep(static_cast<useconds_t>(patience_us));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        if (WIFEXITED(status)) {
            EXPECT_EQ(WEXITSTATUS(status), static_cast<int>(MoveEnd::kDone));
            break;
        }
        ASSERT_LT(++killed, 500);
        patience_us += 1000 + patience_us / 8;
    }
    EXPECT_GT(killed, 5);
    ExpectMoved();
}

TEST_P(ShareMove, CarriesOverWhatChangesMeanwhile) {
    MakeShare(30);
    MoveStep last = MoveStep::kMeasure;
    const auto change = [&](const MoveState& state) {
        if (state.step == last || state.step > MoveStep::kSwitch) {
            return;
        }
        last = state.step;
        const std::string mark = std::to_string(static_cast<int>(state.step));
        std::ofstream(m_share + "/cam0/new" + mark) << "new " << mark;
        std::ofstream(m_share + "/cam0/grows", std::ios::app) << mark;
        fs::create_directories(m_share + "/made" + mark + "/sub");
        fs::remove(m_share + "/cam1/day" + mark + "/" + mark + ".mp4");
        fs::rename(m_share + "/cam2", m_share + "/renamed");
        fs::rename(m_share + "/renamed", m_share + "/cam2");
        fs::permissions(m_share + "/special/setuid",
                        static_cast<fs::perms>(0600 + static_cast<int>(state.step)));
        // The folder hands rights down, which not all of its files keep.
        std::ofstream(m_share + "/cam1/inherits" + mark) << "kept";
        const std::string plain = m_share + "/cam1/plain" + mark;
        std::ofstream(plain.c_str()) << "without";
        EXPECT_EQ(removexattr(plain.c_str(), "system.posix_acl_access"), 0);
        m_before = manifest::Of(m_share);
    };
    EXPECT_EQ(Run(change).end, MoveEnd::kDone);
    EXPECT_EQ(last, MoveStep::kSwitch);
    ExpectMoved();
}

TEST_P(ShareMove, RefusesToBeginWithoutSpace) {
    MakeShare(5);
    auto limits = Limits();
    limits.spare_bytes = std::uint64_t{1} << 60;
    const korv::MoveObserver observer{[this](const MoveState& state) { m_journal->state = state; }, {}, {}};
    korv::EncryptPlaces encrypt(m_volume, "rec", kToken, kPassword);
    korv::DecryptPlaces decrypt(m_volume, "rec", kToken);
    korv::MovePlaces& places =
        GetParam() == Direction::kToCipher ? static_cast<korv::MovePlaces&>(encrypt) : decrypt;
    EXPECT_EQ(korv::RunMove(places, {}, observer, limits).end, MoveEnd::kNoSpace);
    ExpectUntouched();
}

TEST_P(ShareMove, RefusesASourceWithAMountInIt) {
    MakeShare(5);
    ASSERT_EQ(mount("tmpfs", (m_share + "/cam0").c_str(), "tmpfs", 0, ""), 0);
    EXPECT_EQ(Run().end, MoveEnd::kMountInside);
    ASSERT_EQ(umount((m_share + "/cam0").c_str()), 0);
    ExpectUntouched();
}

void FillDisk(const std::string& ballast) {
    const int file = open(ballast.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string block(4096, 'x');
    while (write(file, block.data(), block.size()) > 0) {
    }
    close(file);
}

TEST_P(ShareMove, ADiskThatFillsUpAtAnyStepLeavesTheSourceAlone) {
    m_volume = machine::BtrfsVolume();
    m_share = m_volume + "/rec";
    m_cipher = CipherFolder(CipherFolder::PathFor(m_volume, kToken), m_share);
    for (MoveStep step : {MoveStep::kPrepare, MoveStep::kCopy, MoveStep::kVerify, MoveStep::kCatchUp}) {
        ASSERT_EQ(mount("tmpfs", m_volume.c_str(), "tmpfs", 0, "size=64m,mode=0755"), 0);
        *m_journal = Journal();
        MakeShare(30);
        const auto fill = [&](const MoveState& state) {
            const std::string ballast = m_volume + "/ballast";
            if (state.step == MoveStep::kUndo) {
                fs::remove(ballast);
            } else if (state.step == step && !fs::exists(ballast)) {
                std::ofstream(m_share + "/cam0/late") << std::string(200'000, 'l');
                m_before = manifest::Of(m_share);
                FillDisk(ballast);
            }
        };
        const auto result = Run(fill);
        EXPECT_EQ(result.end, MoveEnd::kNoSpace) << static_cast<int>(step) << " " << result.reason;
        ExpectUntouched();
        Unmount(m_share);
        Unmount(m_volume);
    }
}

TEST_P(ShareMove, AStateThatCannotBeSavedStopsItAndItGoesOn) {
    MakeShare(10);
    MoveStep failed = MoveStep::kMeasure;
    const auto failing = [&](const MoveState& state) {
        if (state.step != failed) {
            failed = state.step;
            throw std::system_error(ENOSPC, std::generic_category(), "the database is full");
        }
    };
    int failures = 0;
    while (m_journal->state.step != MoveStep::kDone) {
        try {
            EXPECT_EQ(Run(failing).end, MoveEnd::kDone);
        } catch (const std::system_error&) {
            ++failures;
        }
    }
    EXPECT_EQ(failures, kSteps);
    ExpectMoved();
}

TEST_P(ShareMove, WhatCannotBeRemovedAfterwardsIsTold) {
    if (GetParam() == Direction::kToPlain) {
        GTEST_SKIP() << "the encrypted files are nobody else's";
    }
    MakeShare(5);
    const std::string file = m_share + "/cam0/second";
    const int opened = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    int flags = FS_IMMUTABLE_FL;
    ASSERT_EQ(ioctl(opened, FS_IOC_SETFLAGS, &flags), 0);
    EXPECT_EQ(Run().end, MoveEnd::kBlocked);
    EXPECT_EQ(m_journal->state.step, MoveStep::kRemoveSource);
    flags = 0;
    ASSERT_EQ(ioctl(opened, FS_IOC_SETFLAGS, &flags), 0);
    close(opened);
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    ExpectMoved();
}

INSTANTIATE_TEST_SUITE_P(To, ShareMove, testing::Values(Direction::kToCipher, Direction::kToPlain), NameOf);

// Does something when the last pass is over, just before the folders are exchanged.
class HurriedPlaces : public korv::EncryptPlaces {
public:
    HurriedPlaces(const std::string& volume, const std::string& token, const std::string& password,
                  std::function<void()> work)
        : EncryptPlaces(volume, "rec", token, password), m_work(std::move(work)) {}
    void Switch() override {
        if (!HasSwitched()) {
            m_work();
        }
        EncryptPlaces::Switch();
    }

private:
    std::function<void()> m_work;
};

class Encryption : public ShareMove {
protected:
    korv::MoveResult RunHurried(const std::function<void()>& work) {
        HurriedPlaces places(m_volume, kToken, kPassword, work);
        return RunIn(places);
    }

    int CarryingFolders() const {
        const fs::directory_iterator entries(m_share);
        return static_cast<int>(std::count_if(begin(entries), end(entries), [](const auto& entry) {
            return entry.path().filename().string().starts_with(".korv-carried-");
        }));
    }
};
class Decryption : public ShareMove {};

TEST_P(Encryption, CarriesOverWhatAFileThatStaysOpenGets) {
    MakeShare(5);
    usleep(2'100'000);  // what was written in the second before the last pass counts as written later
    std::ofstream film(m_share + "/cam0/film");
    film << "before, " << std::flush;
    usleep(1'100'000);  // a folder in which something is made in the second of the switch may be another one
    int shown = 0;
    m_sendAway = [&] {
        if (m_journal->state.step == MoveStep::kFollow && ++shown == 1) {
            film << "after" << std::flush;
            EXPECT_TRUE(fs::remove(m_share + "/cam0/second"));
        }
    };
    const auto result = Run();
    EXPECT_EQ(result.end, MoveEnd::kSourceBusy);
    film << "wards" << std::flush;
    film.close();
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    std::ifstream copy(m_share + "/cam0/film");
    const std::string text((std::istreambuf_iterator<char>(copy)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, "before, afterwards");
    EXPECT_FALSE(fs::exists(m_share + "/cam0/second"));
}

// What is renamed keeps its old times.
TEST_P(Encryption, LosesNothingThatIsRenamedBehindTheLastPass) {
    MakeShare(30);
    fs::create_directories(m_volume + "/elsewhere/deep/er");
    std::ofstream(m_volume + "/elsewhere/deep/er/film") << "film";
    fs::create_directories(m_share + "/quiet/inner");
    for (const char* name : {"/quiet/inner/renamed", "/quiet/inner/removed", "/quiet/inner/stays"}) {
        std::ofstream(m_share + name) << "old";
    }
    std::ofstream(m_share + "/cam0/kept") << "newer";
    std::ofstream(m_share + "/cam0/older") << "older";
    const timespec old[2] = {{1'600'000'000, 0}, {1'600'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (m_share + "/cam0/older").c_str(), old, 0), 0);
    struct stat inner {};
    usleep(3'100'000);  // so that only the renames touch anything after the last pass's time
    const auto result = RunHurried([&] {
        usleep(3'100'000);
        fs::rename(m_share + "/cam1", m_share + "/aaa");
        fs::rename(m_share + "/cam2", m_share + "/zzz");
        fs::create_directory(m_share + "/cam2");
        fs::rename(m_volume + "/elsewhere", m_share + "/cam2/moved");
        fs::rename(m_share + "/cam0/older", m_share + "/cam0/kept");
        fs::remove(m_share + "/special/first");
        fs::rename(m_share + "/quiet/inner/renamed", m_share + "/quiet/inner/differently");
        fs::remove(m_share + "/quiet/inner/removed");
        ASSERT_EQ(stat((m_share + "/quiet/inner").c_str(), &inner), 0);
        m_before = manifest::Of(m_share);
    });
    EXPECT_EQ(result.end, MoveEnd::kDone) << result.reason;
    EXPECT_EQ(Text(m_share + "/cam2/moved/deep/er/film"), "film");
    // A file that is carried over changes its folder where people see it.
    const timespec seen[2] = {inner.st_atim, inner.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, (m_share + "/quiet/inner").c_str(), seen, 0), 0);
    EXPECT_EQ(Text(m_share + "/cam0/kept"), "older");
    ExpectMoved();
}

TEST_P(Encryption, CopiesAnewWhatItWasCarryingOverWhenItWasKilled) {
    MakeShare(5);
    const std::string film(std::size_t{32} << 20, 'f');
    std::ofstream writer(m_share + "/cam0/film");
    writer << "begins" << std::flush;
    const auto finishFilm = [&](const MoveState& state) {
        if (state.step == MoveStep::kFollow && writer.is_open()) {
            writer << film;
            writer.close();
        }
    };
    const auto dieWhileCarrying = [&] {
        if (CarryingFolders() > 0) {
            kill(getpid(), SIGKILL);
        }
        return MoveWish::kGoOn;
    };
    const int status =
        machine::InChild([&] { return static_cast<int>(Run(finishFilm, dieWhileCarrying).end); });
    ASSERT_TRUE(WIFSIGNALED(status));
    writer.close();
    EXPECT_EQ(CarryingFolders(), 1);
    EXPECT_EQ(Text(m_share + "/cam0/film").size(), 6U) << "never seen half";
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    EXPECT_EQ(Text(m_share + "/cam0/film").size(), film.size() + 6);
    EXPECT_EQ(CarryingFolders(), 0);
}

// Through a mapping content comes without a new time.
TEST_P(Encryption, CarriesOverWhatComesThroughAMappingLast) {
    MakeShare(5);
    const std::string path = m_share + "/cam0/mapped";
    std::ofstream(path) << std::string(8192, 'a');
    const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
    char* const content =
        static_cast<char*>(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    close(file);
    ASSERT_NE(content, MAP_FAILED);
    content[0] = 'b';
    EXPECT_EQ(Run().end, MoveEnd::kSourceBusy);
    content[1] = 'c';
    ASSERT_EQ(munmap(content, 8192), 0);
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    EXPECT_EQ(Text(path).substr(0, 3), "bca");
}

// Whoever works on in the old folder writes into folders that people rename in the new one.
TEST_P(Encryption, CarriesOverAFileWhoseFolderIsCalledOtherwiseNow) {
    MakeShare(5);
    usleep(2'100'000);
    std::ofstream film(m_share + "/cam0/film");
    film << "before, " << std::flush;
    m_sendAway = [&] {
        if (m_journal->state.step == MoveStep::kFollow && fs::exists(m_share + "/cam0/film")) {
            fs::rename(m_share + "/cam0", m_share + "/renamed");
        }
    };
    EXPECT_EQ(Run().end, MoveEnd::kSourceBusy);
    film << "after" << std::flush;
    film.close();
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    EXPECT_EQ(Text(m_share + "/cam0/film"), "before, after");
    EXPECT_EQ(Text(m_share + "/renamed/film"), "before, ");
}

// Names that an account can give in the share's own folder are of no use against what root makes there.
TEST_P(Encryption, LeavesAnAccountsOwnFoldersOfSuchNamesAlone) {
    MakeShare(5);
    fs::create_directory(m_share + "/.korv-carried-mine");
    std::ofstream(m_share + "/.korv-carried-mine/entry") << "mine";
    m_before = manifest::Of(m_share);
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    ExpectMoved();
}

// A shell, a container or a file server in the old folder still makes files there.
TEST_P(Encryption, WaitsForThoseWhoWorkInTheOldFolder) {
    MakeShare(5);
    int way[2];
    ASSERT_EQ(pipe2(way, O_CLOEXEC), 0);
    const pid_t worker = fork();
    if (worker == 0) {
        char go = 0;
        const bool isThere = chdir((m_share + "/cam0").c_str()) == 0 && read(way[0], &go, 1) == 1;
        std::ofstream("late") << "late";
        _exit(isThere && mkdir("new", 0700) == 0 ? 0 : 1);
    }
    while (fs::read_symlink("/proc/" + std::to_string(worker) + "/cwd") != m_share + "/cam0") {
        usleep(1000);
    }
    EXPECT_EQ(Run().end, MoveEnd::kSourceBusy);
    EXPECT_EQ(m_journal->state.step, MoveStep::kFollow);
    ASSERT_EQ(write(way[1], "x", 1), 1);
    int status = 0;
    ASSERT_EQ(waitpid(worker, &status, 0), worker);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    close(way[0]);
    close(way[1]);
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    EXPECT_EQ(Text(m_share + "/cam0/late"), "late");
    EXPECT_TRUE(fs::is_directory(m_share + "/cam0/new"));
}

TEST_P(Encryption, WaitsWhileAPartOfTheOldFolderIsMountedElsewhere) {
    MakeShare(5);
    const std::string elsewhere = m_volume + "/elsewhere";
    fs::create_directory(elsewhere);
    ASSERT_EQ(mount((m_share + "/cam0").c_str(), elsewhere.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(Run().end, MoveEnd::kSourceBusy);
    fs::create_directories(elsewhere + "/made/inside");
    std::ofstream(elsewhere + "/made/inside/late") << "late";
    ASSERT_EQ(umount(elsewhere.c_str()), 0);
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    EXPECT_EQ(Text(m_share + "/cam0/made/inside/late"), "late");
}

TEST_P(Encryption, WaitsForTheHolderOfAWriteLease) {
    MakeShare(5);
    const std::string file = m_share + "/cam0/second";
    const pid_t holder = fork();
    if (holder == 0) {
        sigset_t breaks;
        sigemptyset(&breaks);
        sigaddset(&breaks, SIGIO);
        sigprocmask(SIG_BLOCK, &breaks, nullptr);
        const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
        if (fcntl(fd, F_SETLEASE, F_WRLCK) != 0) {
            _exit(1);
        }
        fs::create_directory(m_volume + "/leased");
        int signal = 0;
        sigwait(&breaks, &signal);
        _exit(fcntl(fd, F_SETLEASE, F_UNLCK) == 0 ? 0 : 1);
    }
    while (!fs::exists(m_volume + "/leased") && waitpid(holder, nullptr, WNOHANG) == 0) {
        usleep(1000);
    }
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    int status = 0;
    ASSERT_EQ(waitpid(holder, &status, 0), holder);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    ExpectMoved();
}

TEST_P(Encryption, MakesHalfMadeEncryptedFilesAnew) {
    MakeShare(5);
    Run({}, [&] { return m_journal->state.step == MoveStep::kCopy ? MoveWish::kPause : MoveWish::kGoOn; });
    ASSERT_EQ(m_journal->state.step, MoveStep::kCopy);
    m_journal->state.step = MoveStep::kPrepare;
    Unmount(m_volume + "/.korv/view/token");
    fs::remove_all(m_cipher.CipherPath());
    ASSERT_EQ(m_cipher.Init(kPassword), korv::CipherEnd::kDone);
    fs::remove(m_cipher.CipherPath() + "/gocryptfs.diriv");
    EXPECT_FALSE(m_cipher.IsComplete());
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    ExpectMoved();
}

// What killing everything leaves: no view, and no password to show it again.
TEST_P(Encryption, WaitsForThePasswordWhenTheViewIsLost) {
    MakeShare(5);
    Run({}, [&] { return m_journal->state.step == MoveStep::kVerify ? MoveWish::kPause : MoveWish::kGoOn; });
    Unmount(m_volume + "/.korv/view/token");
    EXPECT_EQ(Run({}, {}, "").end, MoveEnd::kLocked);
    EXPECT_EQ(Run({}, {}, "wrong").end, MoveEnd::kLocked);
    EXPECT_EQ(manifest::Difference(m_before, manifest::Of(m_share)), "");
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    ExpectMoved();
}

TEST_P(Encryption, WaitsForTheShareToBeUnlockedAfterTheSwitch) {
    MakeShare(5);
    const auto failAtFollow = [](const MoveState& state) {
        if (state.step == MoveStep::kFollow) {
            throw std::system_error(EIO, std::generic_category(), "power failure");
        }
    };
    EXPECT_THROW(Run(failAtFollow), std::system_error);
    Unmount(m_volume + "/.korv/view/token");
    EXPECT_EQ(Run({}, {}, "").end, MoveEnd::kLocked);
    ASSERT_EQ(m_cipher.Mount(kPassword), korv::CipherEnd::kDone);
    EXPECT_EQ(Run({}, {}, "").end, MoveEnd::kDone);
    ExpectMoved();
}

TEST_P(Encryption, ABadPasswordMakesNothing) {
    MakeShare(5);
    EXPECT_EQ(Run({}, {}, "").end, MoveEnd::kFailed);
    ExpectUntouched();
}

TEST_P(Decryption, WaitsForThoseWhoHaveFilesOpen) {
    MakeShare(5);
    const int user = open((m_share + "/special/first").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(Run().end, MoveEnd::kSourceBusy);
    EXPECT_EQ(m_journal->state.step, MoveStep::kSwitch);
    EXPECT_EQ(manifest::Difference(m_before, manifest::Of(m_share)), "");
    close(user);
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    ExpectMoved();
}

TEST_P(Decryption, NeedsAnUnlockedShare) {
    MakeShare(5);
    ASSERT_EQ(m_cipher.Unmount(kPatience, false), korv::CipherEnd::kDone);
    EXPECT_EQ(Run().end, MoveEnd::kLocked);
    ASSERT_EQ(m_cipher.Mount(kPassword), korv::CipherEnd::kDone);
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    ExpectMoved();
}

INSTANTIATE_TEST_SUITE_P(To, Encryption, testing::Values(Direction::kToCipher), NameOf);
INSTANTIATE_TEST_SUITE_P(To, Decryption, testing::Values(Direction::kToPlain), NameOf);

}  // namespace
