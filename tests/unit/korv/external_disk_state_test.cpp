#include "korv/system/external_disk_state.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/wait.h>

#include "korv/system/external_share.h"
#include "tests/unit/korv/external_disk_fixture.h"

namespace {

namespace fs = std::filesystem;

// A process whose command line reads like that of a program at work on a device.
class Worker {
public:
    Worker(const char* program, const char* argument, uid_t user = 0, const char* file = "/bin/sh") {
        EXPECT_EQ(pipe2(m_input.data(), O_CLOEXEC), 0);
        m_child = fork();
        if (m_child == 0) {
            dup2(m_input[0], STDIN_FILENO);
            if (setuid(user) != 0) {
                _exit(1);
            }
            execl(file, program, "-c", "read line", argument, nullptr);
            _exit(1);
        }
        const std::string arguments = "/proc/" + std::to_string(m_child) + "/cmdline";
        std::string name;
        while (name != program) {
            std::getline(std::ifstream(arguments), name, '\0');
        }
    }
    ~Worker() {
        kill(m_child, SIGKILL);
        int status = 0;
        waitpid(m_child, &status, 0);
        close(m_input[0]);
        close(m_input[1]);
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

private:
    std::array<int, 2> m_input{};  // what the process waits for
    pid_t m_child = -1;
};

}  // namespace

TEST_F(ExternalDiskTest, NotesWhatIsGoingOnWithEachDisk) {
    const std::string disk = disks.AddUsbDisk("sdb");
    disks.AddEsataDisk("sdc");
    EXPECT_EQ(StateOf("sdb"), "init");
    disks.Settle("sdb");
    EXPECT_EQ(StateOf("sdb"), "done");
    EXPECT_EQ(StateOf("sdc"), "init");
    {
        const Worker format("mkfs.ext4", "/dev/sdb");
        EXPECT_EQ(StateOf("sdb"), "formatting");
    }
    {
        const Worker check("e2fsck", "/dev/sdb12");
        EXPECT_EQ(StateOf("sdb"), "fsck");
    }
    {
        const Worker other("e2fsck", "/dev/sdba1");
        const Worker reader("dd", "/dev/sdb1");
        EXPECT_EQ(StateOf("sdb"), "done");
    }
    disks.Pull(disk);
    EXPECT_EQ(StateOf("sdb"), "none");
}

TEST_F(ExternalDiskTest, OnlyRootsProgramsAreAtWorkOnADisk) {
    disks.AddUsbDisk("sdb");
    disks.Settle("sdb");
    {
        const Worker pretender("mkfs.ext4", "/dev/sdb", kService);
        EXPECT_EQ(StateOf("sdb"), "done");
        const Worker format("mkfs.ext4", "/dev/sdb");
        EXPECT_EQ(StateOf("sdb"), "formatting");
    }
    // As one that gives its caller root's rights and waits for a password.
    const std::string raising = "/tmp/raising";
    fs::copy_file("/bin/sh", raising, fs::copy_options::overwrite_existing);
    ASSERT_EQ(chmod(raising.c_str(), 04755), 0);
    const Worker waiting("mkfs.ext4", "/dev/sdb", 0, raising.c_str());
    EXPECT_EQ(StateOf("sdb"), "done");
}

TEST_F(ExternalDiskTest, TellsADisksPartitionsFromOtherDisks) {
    for (const char* name : {"loop1", "sdb"}) {
        disks.AddDisk(std::string("pci0/") + name, name, kDeclaredUsb);
        disks.Settle(name);
    }
    const auto works = [](const char* argument, const char* disk) {
        const Worker check("e2fsck", argument);
        return StateOf(disk) == "fsck";
    };
    EXPECT_TRUE(works("/dev/loop1", "loop1"));
    EXPECT_TRUE(works("/dev/loop1p2", "loop1"));
    EXPECT_FALSE(works("/dev/loop12", "loop1"));
    EXPECT_FALSE(works("/dev/loop1p", "loop1"));
    EXPECT_TRUE(works("/dev/sdb12", "sdb"));
    EXPECT_FALSE(works("/dev/sdbp1", "sdb"));
}

TEST_F(ExternalDiskTest, AFolderInThePlaceOfTheStatesKeepsNoDiskBack) {
    disks.AddUsbDisk("sdb");
    disks.Settle("sdb");
    fs::create_directory(korv::kDiskStateFile);
    ASSERT_EQ(chown(korv::kDiskStateFile, kService, kService), 0);
    EXPECT_EQ(StateOf("sdb"), "done");
    EXPECT_TRUE(fs::is_regular_file(korv::kDiskStateFile));
}

// What can't be moved aside: something is mounted there.
TEST_F(ExternalDiskTest, StatesThatCannotBeNotedAreLoggedOnceAndTheDisksAreStillEnumerated) {
    const std::string path = disks.AddUsbDisk("sdb");
    disks.Settle("sdb");
    fs::create_directory(korv::kDiskStateFile);
    ASSERT_EQ(mount("tmpfs", korv::kDiskStateFile, "tmpfs", 0, "size=64k"), 0);
    testing::internal::CaptureStderr();
    std::size_t size = 0;
    EXPECT_EQ(KORVUSBDevEnum(KORV_EXT_DEVICE_USB, nullptr, 0, &size), 1);
    EXPECT_EQ(KORVUSBDevEnum(KORV_EXT_DEVICE_USB, nullptr, 0, &size), 1);
    EXPECT_EQ(KORVUSBDevEnum(KORV_EXT_DEVICE_ESATA, nullptr, 0, &size), 0);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    EXPECT_NE(log.find("the states of external disks can't be noted: "), std::string::npos) << log;
    ASSERT_EQ(umount(korv::kDiskStateFile), 0);
    EXPECT_EQ(StateOf("sdb"), "done");
}

// The states can't be written while a disk that failed is swapped.
TEST_F(ExternalDiskTest, AFailureThatCannotBeForgottenIsForgottenLater) {
    const std::string failed = disks.AddUsbDisk("sdb");
    disks.Settle("sdb");
    EXPECT_EQ(StateOf("sdb"), "done");
    korv::WriteKeyValues(korv::kDiskStateFile, {{"sdb", "fail"}});
    disks.Pull(failed);
    disks.AddUsbDisk("sdb");
    disks.Settle("sdb");
    ASSERT_EQ(mount(korv::kDiskStateFile, korv::kDiskStateFile, nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(StateOf("sdb"), "fail");
    EXPECT_EQ(korv::FindExternalDisk("sdb")->number, 2);
    ASSERT_EQ(umount(korv::kDiskStateFile), 0);
    EXPECT_EQ(StateOf("sdb"), "done");
}

TEST_F(ExternalDiskTest, AFailureThatAnotherProgramNotedStaysUntilTheDiskGoes) {
    const std::string disk = disks.AddUsbDisk("sdb");
    disks.Settle("sdb");
    EXPECT_EQ(StateOf("sdb"), "done");
    korv::WriteKeyValues(korv::kDiskStateFile, {{"sdb", "fail"}, {"sdz", "done"}});
    EXPECT_EQ(StateOf("sdb"), "fail");
    EXPECT_EQ(StateOf("sdz"), "none");
    disks.Pull(disk);
    EXPECT_EQ(StateOf("sdb"), "none");
}

TEST_F(ExternalDiskTest, AFailureIsNotTakenForTheNextDisksOfTheSameName) {
    const std::string failed = disks.AddUsbDisk("sdb");
    disks.AddUsbDisk("sdc");
    disks.Settle("sdb");
    disks.Settle("sdc");
    EXPECT_EQ(StateOf("sdb"), "done");
    korv::WriteKeyValues(korv::kDiskStateFile, {{"sdb", "fail"}, {"sdc", "fail"}});
    // Swapped before anybody looks.
    disks.Pull(failed);
    disks.AddUsbDisk("sdb");
    disks.Settle("sdb");
    EXPECT_EQ(StateOf("sdb"), "done");
    EXPECT_EQ(StateOf("sdc"), "fail");
    // The new one may fail as well.
    korv::WriteKeyValues(korv::kDiskStateFile, {{"sdb", "fail"}, {"sdc", "fail"}});
    EXPECT_EQ(StateOf("sdb"), "fail");
}

TEST_F(ExternalDiskTest, ALookForAShareDoesNotCarryAFailureOn) {
    const std::string failed = disks.AddUsbDisk("sdb");
    disks.Settle("sdb");
    EXPECT_EQ(StateOf("sdb"), "done");
    korv::WriteKeyValues(korv::kDiskStateFile, {{"sdb", "fail"}});
    disks.Pull(failed);
    EXPECT_FALSE(korv::ExternalSharePath("usbshare2"));
    disks.AddUsbDisk("sdb");
    disks.Settle("sdb");
    EXPECT_EQ(StateOf("sdb"), "done");
}

TEST_F(ExternalDiskTest, AFailureThatWasNotedBeforeTheFirstLookCounts) {
    disks.AddUsbDisk("sdb");
    disks.Settle("sdb");
    korv::WriteKeyValues(korv::kDiskStateFile, {{"sdb", "fail"}});
    EXPECT_EQ(StateOf("sdb"), "fail");
}

TEST_F(ExternalDiskTest, WritesTheFileOnlyWhenSomethingChanged) {
    EXPECT_EQ(StateOf("sdb"), "none");
    EXPECT_FALSE(fs::exists(korv::kDiskStateFile));
    disks.AddUsbDisk("sdb");
    StateOf("sdb");
    const auto before = fs::last_write_time(korv::kDiskStateFile);
    StateOf("sdb");
    EXPECT_EQ(fs::last_write_time(korv::kDiskStateFile), before);
}
