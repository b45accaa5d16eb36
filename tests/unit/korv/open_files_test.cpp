#include "korv/system/open_files.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <sys/mount.h>
#include <sys/wait.h>

#include "tests/unit/korv/private_machine.h"

namespace {

// A process that stays until it is destroyed, and works where `prepare` left it.
class Worker {
public:
    explicit Worker(const std::function<bool()>& prepare) {
        std::array<int, 2> ready{};
        EXPECT_EQ(pipe2(ready.data(), O_CLOEXEC), 0);
        m_pid = fork();
        if (m_pid == 0) {
            const char mark = prepare() ? 'y' : 'n';
            _exit(write(ready[1], &mark, 1) == 1 ? pause() : 1);
        }
        char mark = 'n';
        m_isReady = read(ready[0], &mark, 1) == 1 && mark == 'y';
        close(ready[0]);
        close(ready[1]);
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    bool IsReady() const { return m_isReady; }

private:
    pid_t m_pid = -1;
    bool m_isReady = false;
};

// One that has "cam/a.mp4" of a folder open; `prepare` is called in it first.
class Reader : public Worker {
public:
    Reader(const std::string& folder, const std::function<bool()>& prepare)
        : Worker([&] { return prepare() && Open(folder); }) {}

private:
    static bool Open(const std::string& folder) {
        std::filesystem::create_directories(folder + "/cam");
        std::ofstream(folder + "/cam/a.mp4") << "x";
        return open((folder + "/cam/a.mp4").c_str(), O_RDONLY) >= 0;
    }
};

bool HasNamespace() { return unshare(CLONE_NEWNS) == 0; }

class OpenFilesTest : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        std::filesystem::create_directory(m_folder);
    }

    std::string m_folder = machine::Volume() + "/rec";
};

TEST_F(OpenFilesTest, TellsAFileThatIsOpen) {
    EXPECT_FALSE(korv::IsFileOpenBeneath(m_folder));
    {
        const Reader reader(m_folder, [] { return true; });
        ASSERT_TRUE(reader.IsReady());
        EXPECT_TRUE(korv::IsFileOpenBeneath(m_folder));
        EXPECT_FALSE(korv::IsFileOpenBeneath(machine::Volume() + "/re"));
    }
    EXPECT_FALSE(korv::IsFileOpenBeneath(m_folder));
}

TEST_F(OpenFilesTest, TellsAFileThatAContainerHasOpen) {
    const Reader reader(m_folder, &HasNamespace);
    ASSERT_TRUE(reader.IsReady());
    EXPECT_TRUE(korv::IsFileOpenBeneath(m_folder));
}

TEST_F(OpenFilesTest, LeavesOutAnotherFolderThatAContainerHasAtThePlace) {
    const Reader reader(m_folder, [] {
        return HasNamespace() && mount("none", machine::Volume().c_str(), "tmpfs", 0, "") == 0;
    });
    ASSERT_TRUE(reader.IsReady());
    EXPECT_FALSE(std::filesystem::exists(m_folder + "/cam")) << "it is the container's own";
    EXPECT_FALSE(korv::IsFileOpenBeneath(m_folder));
}

TEST_F(OpenFilesTest, TellsAFileThatAContainerReachesByAnotherWay) {
    const std::string otherWay = "/proc/" + std::to_string(getpid()) + "/root" + m_folder;
    const Reader reader(otherWay, [] {
        return HasNamespace() && mount("none", machine::Volume().c_str(), "tmpfs", 0, "") == 0;
    });
    ASSERT_TRUE(reader.IsReady());
    EXPECT_TRUE(std::filesystem::exists(m_folder + "/cam")) << "it is this one";
    EXPECT_TRUE(korv::IsFileOpenBeneath(m_folder));
}

class HeldFolderTest : public OpenFilesTest {
protected:
    void SetUp() override {
        OpenFilesTest::SetUp();
        std::filesystem::create_directories(m_folder + "/cam/day");
    }
    bool IsHeld() const { return korv::IsFolderHeld(machine::Volume(), "rec"); }
};

TEST_F(HeldFolderTest, IsNotHeldByWhoReadsAFileOrWorksBesideIt) {
    EXPECT_FALSE(IsHeld());
    std::ofstream(m_folder + "/cam/film") << "film";
    std::filesystem::create_directory(m_folder + "2");
    const Worker worker([this] {
        return open((m_folder + "/cam/film").c_str(), O_RDONLY | O_CLOEXEC) >= 0 &&
               chdir((m_folder + "2").c_str()) == 0;
    });
    ASSERT_TRUE(worker.IsReady());
    EXPECT_FALSE(IsHeld());
}

TEST_F(HeldFolderTest, IsHeldByWhoWorksThereHasAFolderOpenOrIsLockedIntoIt) {
    const std::array<std::function<bool()>, 4> ways{
        [this] { return chdir(m_folder.c_str()) == 0; },
        [this] { return chdir((m_folder + "/cam/day").c_str()) == 0; },
        [this] { return open((m_folder + "/cam").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) >= 0; },
        [this] { return chroot((m_folder + "/cam").c_str()) == 0; }};
    for (const auto& way : ways) {
        const Worker worker(way);
        ASSERT_TRUE(worker.IsReady());
        EXPECT_TRUE(IsHeld());
    }
    EXPECT_FALSE(IsHeld());
}

TEST_F(HeldFolderTest, IsHeldByAFolderThatHasBeenRemovedSince) {
    const Worker worker([this] { return chdir((m_folder + "/cam/day").c_str()) == 0; });
    ASSERT_TRUE(worker.IsReady());
    std::filesystem::remove(m_folder + "/cam/day");
    EXPECT_TRUE(IsHeld());
}

TEST_F(HeldFolderTest, IsHeldByAMountOfAPartOfItAlsoInAContainer) {
    std::filesystem::create_directory(machine::Volume() + "/elsewhere");
    const auto bind = [this] {
        return mount((m_folder + "/cam").c_str(), (machine::Volume() + "/elsewhere").c_str(), nullptr,
                     MS_BIND, nullptr) == 0;
    };
    {
        const Worker container([&bind] { return HasNamespace() && bind(); });
        ASSERT_TRUE(container.IsReady());
        EXPECT_TRUE(IsHeld());
    }
    EXPECT_FALSE(IsHeld());
    ASSERT_TRUE(bind());
    EXPECT_TRUE(IsHeld());
    ASSERT_EQ(umount((machine::Volume() + "/elsewhere").c_str()), 0);
    EXPECT_FALSE(IsHeld());
}

}  // namespace
