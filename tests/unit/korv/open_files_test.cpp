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

// A process that has "cam/a.mp4" of a folder open for as long as the object lives.
class Reader {
public:
    // `prepare` is called in the process first.
    Reader(const std::string& folder, const std::function<bool()>& prepare) {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        m_pid = fork();
        if (m_pid == 0) {
            const bool isOpen = prepare() && Open(folder);
            const char answer = isOpen ? 'y' : 'n';
            if (write(ends[1], &answer, 1) == 1) {
                pause();
            }
            _exit(0);
        }
        close(ends[1]);
        char answer = 'n';
        m_isOpen = read(ends[0], &answer, 1) == 1 && answer == 'y';
        close(ends[0]);
    }
    ~Reader() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    bool IsOpen() const { return m_isOpen; }

private:
    static bool Open(const std::string& folder) {
        std::filesystem::create_directories(folder + "/cam");
        std::ofstream(folder + "/cam/a.mp4") << "x";
        return open((folder + "/cam/a.mp4").c_str(), O_RDONLY) >= 0;
    }

    pid_t m_pid = -1;
    bool m_isOpen = false;
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
        ASSERT_TRUE(reader.IsOpen());
        EXPECT_TRUE(korv::IsFileOpenBeneath(m_folder));
        EXPECT_FALSE(korv::IsFileOpenBeneath(machine::Volume() + "/re"));
    }
    EXPECT_FALSE(korv::IsFileOpenBeneath(m_folder));
}

TEST_F(OpenFilesTest, TellsAFileThatAContainerHasOpen) {
    const Reader reader(m_folder, &HasNamespace);
    ASSERT_TRUE(reader.IsOpen());
    EXPECT_TRUE(korv::IsFileOpenBeneath(m_folder));
}

TEST_F(OpenFilesTest, LeavesOutAnotherFolderThatAContainerHasAtThePlace) {
    const Reader reader(m_folder, [] {
        return HasNamespace() && mount("none", machine::Volume().c_str(), "tmpfs", 0, "") == 0;
    });
    ASSERT_TRUE(reader.IsOpen());
    EXPECT_FALSE(std::filesystem::exists(m_folder + "/cam")) << "it is the container's own";
    EXPECT_FALSE(korv::IsFileOpenBeneath(m_folder));
}

TEST_F(OpenFilesTest, TellsAFileThatAContainerReachesByAnotherWay) {
    const std::string otherWay = "/proc/" + std::to_string(getpid()) + "/root" + m_folder;
    const Reader reader(otherWay, [] {
        return HasNamespace() && mount("none", machine::Volume().c_str(), "tmpfs", 0, "") == 0;
    });
    ASSERT_TRUE(reader.IsOpen());
    EXPECT_TRUE(std::filesystem::exists(m_folder + "/cam")) << "it is this one";
    EXPECT_TRUE(korv::IsFileOpenBeneath(m_folder));
}

}  // namespace
