#include "korv/system/bounded_call.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/syscall.h>
#include <sys/wait.h>

#include "platform/korv/filesystem.h"
#include "platform/korv/share.h"
#include "platform/korv/volume.h"

#include "korv/system/file_descriptor.h"
#include "korv/system/volume.h"
#include "tests/unit/korv/private_machine.h"
#include "tests/unit/korv/silent_file_system.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kAtOnce(500);
constexpr milliseconds kSlack(1500);

class BoundedCallTest : public MachineTest {
protected:
    std::string MakeMountPoint(const std::string& name) {
        std::string path = machine::Volume() + "/" + name;
        fs::create_directory(path);
        return path;
    }
};

template <class Work>
milliseconds TimeOf(const Work& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

// A child that has ended and that nobody has waited for.
bool HasLeftChild() {
    int status = 0;
    return waitpid(-1, &status, WNOHANG) > 0;
}

// Waits until there is one.
pid_t OnlyChildOf(pid_t parent) {
    const std::string file =
        "/proc/" + std::to_string(parent) + "/task/" + std::to_string(parent) + "/children";
    constexpr int kTries = 1000;
    constexpr unsigned kPause_us = 1000;
    for (int i = 0; i < kTries; ++i) {
        pid_t child = 0;
        if (std::ifstream(file) >> child) {
            return child;
        }
        usleep(kPause_us);
    }
    throw std::runtime_error("no child appears");
}

}  // namespace

TEST_F(BoundedCallTest, AsksThisMachinesOwnFileSystemsDirectly) {
    EXPECT_TRUE(korv::IsPathPrompt(machine::Volume()));
    const auto asker = korv::CallBounded("id", machine::Volume(), [] { return std::optional(getpid()); });
    EXPECT_EQ(asker, getpid());
}

TEST_F(BoundedCallTest, AsksOthersInAChildWhoseAnswerArrivesWhole) {
    const std::string path = MakeMountPoint("remote");
    const SilentFileSystem remote(path, SilentFileSystem::Silence::kSize);
    EXPECT_FALSE(korv::IsPathPrompt(path));
    EXPECT_FALSE(korv::IsPathPrompt(path + "/below"));
    EXPECT_TRUE(korv::IsPathPrompt(path + "-not"));
    struct Answer {
        pid_t pid;
        std::array<int, 500> rest;
    };
    const auto answer = korv::CallBounded("all", path, [] {
        Answer made{getpid(), {}};
        made.rest.fill(7);
        return std::optional(made);
    });
    ASSERT_TRUE(answer);
    EXPECT_NE(answer->pid, getpid());
    EXPECT_EQ(answer->rest.front() + answer->rest.back(), 14);
    EXPECT_FALSE(HasLeftChild());
}

TEST_F(BoundedCallTest, GivesNothingWhenTheChildHasNothingToGive) {
    const std::string path = MakeMountPoint("remote");
    const SilentFileSystem remote(path, SilentFileSystem::Silence::kSize);
    EXPECT_FALSE(korv::CallBounded("nothing", path, [] { return std::optional<int>(); }));
    EXPECT_FALSE(HasLeftChild());
}

TEST_F(BoundedCallTest, AnsweringNothingIsAFailureWithinTheDeadlineAndThenAtOnce) {
    const std::string path = MakeMountPoint("dead");
    const SilentFileSystem dead(path, SilentFileSystem::Silence::kEverything);
    bool isThere = true;
    const milliseconds first = TimeOf([&] { isThere = IsFileExist(path); });
    EXPECT_FALSE(isThere);
    EXPECT_GE(first, korv::kAnswerDeadline);
    EXPECT_LT(first, korv::kAnswerDeadline + kSlack);
    EXPECT_TRUE(korv::IsSilent(path));
    EXPECT_FALSE(korv::IsSilent(machine::Volume()));
    EXPECT_LT(TimeOf([&] { isThere = IsFileExist(path); }), kAtOnce);
    EXPECT_FALSE(isThere);
    EXPECT_FALSE(HasLeftChild());
}

TEST_F(BoundedCallTest, AnotherMountInThePlaceOfASilentOneIsAsked) {
    const std::string path = MakeMountPoint("place");
    {
        const SilentFileSystem dead(path, SilentFileSystem::Silence::kEverything);
        EXPECT_TRUE(IsExistDir(path));
        EXPECT_TRUE(korv::IsSilent(path));
        const SilentFileSystem half(path, SilentFileSystem::Silence::kSize);
        EXPECT_FALSE(korv::IsSilent(path));
        const KORVSHARE share{"place", path.c_str()};
        EXPECT_EQ(KLIBShareUserRightGet("alice", &share), KORV_SHARE_RIGHT_READ | KORV_SHARE_RIGHT_WRITE);
    }
}

TEST_F(BoundedCallTest, AChildDoesNotOutliveWhoAsks) {
    const std::string path = MakeMountPoint("dead");
    const SilentFileSystem dead(path, SilentFileSystem::Silence::kEverything);
    const pid_t asker = fork();
    if (asker == 0) {
        korv::CallBounded("long", path, [] { return std::optional(pause()); });
        _exit(0);
    }
    const pid_t child = OnlyChildOf(asker);
    const korv::FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    ASSERT_TRUE(process);
    kill(asker, SIGKILL);
    ASSERT_EQ(waitpid(asker, nullptr, 0), asker);
    pollfd ending{process.Get(), POLLIN, 0};
    EXPECT_EQ(poll(&ending, 1, 2000), 1);
}

TEST_F(BoundedCallTest, WhatDoesNotSayWhetherItIsThereIsAskedNothingElse) {
    const std::string path = MakeMountPoint("dead");
    const SilentFileSystem dead(path, SilentFileSystem::Silence::kEverything);
    const KORVSHARE share{"dead", path.c_str()};
    KORVVOLUME volume{};
    // Nothing says that the folder has gone, and administrators may use every share.
    EXPECT_TRUE(IsExistDir(path + "/below"));
    EXPECT_LT(TimeOf([&] {
                  EXPECT_TRUE(IsExistDir(path));
                  EXPECT_EQ(KORVMountVolInfoGet(path.c_str(), &volume), -1);
                  EXPECT_EQ(SDKFuncData::GetBtrfsFreeMB(path, 0), 0);
                  EXPECT_EQ(KLIBShareUserRightGet("alice", &share), -1);
                  EXPECT_EQ(KLIBShareUserRightGet("boss", &share),
                            KORV_SHARE_RIGHT_READ | KORV_SHARE_RIGHT_WRITE);
              }),
              kAtOnce);
}

TEST_F(BoundedCallTest, ManySilentMountsCostNoMoreThanTwo) {
    constexpr int kMounts = 6;
    std::vector<std::string> paths;
    std::vector<std::unique_ptr<SilentFileSystem>> dead;
    for (int i = 0; i < kMounts; ++i) {
        paths.push_back(MakeMountPoint("dead" + std::to_string(i)));
        dead.push_back(
            std::make_unique<SilentFileSystem>(paths.back(), SilentFileSystem::Silence::kEverything));
    }
    const std::string path = MakeMountPoint("half");
    const SilentFileSystem half(path, SilentFileSystem::Silence::kSize);
    EXPECT_LT(TimeOf([&] {
                  for (const std::string& each : paths) {
                      EXPECT_FALSE(IsFileExist(each));
                      EXPECT_TRUE(korv::IsSilent(each));
                  }
              }),
              2 * korv::kAnswerDeadline + kSlack);
    EXPECT_FALSE(korv::IsSilent(path));
    EXPECT_TRUE(IsExistDir(path));
}

TEST_F(BoundedCallTest, AVolumeWithoutASizeStillHasItsFolderAndRights) {
    const std::string path = MakeMountPoint("half");
    const SilentFileSystem half(path, SilentFileSystem::Silence::kSize);
    KORVVOLUME volume{1, 2};
    const milliseconds first = TimeOf([&] { EXPECT_EQ(KORVMountVolInfoGet(path.c_str(), &volume), -1); });
    EXPECT_GE(first, korv::kAnswerDeadline);
    EXPECT_LT(first, korv::kAnswerDeadline + kSlack);
    EXPECT_EQ(volume.totalBytes, 1U);
    EXPECT_EQ(volume.freeBytes, 2U);
    EXPECT_LT(TimeOf([&] { EXPECT_FALSE(korv::ProbeVolume(path).isMounted); }), kAtOnce);
    EXPECT_TRUE(IsExistDir(path));
    const KORVSHARE share{"half", path.c_str()};
    EXPECT_EQ(KLIBShareUserRightGet("alice", &share), KORV_SHARE_RIGHT_READ | KORV_SHARE_RIGHT_WRITE);
}
