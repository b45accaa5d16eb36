#include "korv/system/cipher_folder.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "korv/system/child_process.h"
#include "korv/system/exported_key.h"
#include "korv/system/file_descriptor.h"
#include "tests/unit/korv/private_machine.h"

namespace {

namespace fs = std::filesystem;

using korv::CipherEnd;
using korv::CipherFolder;
using korv::CipherState;

constexpr std::chrono::milliseconds kPatience(200);
constexpr const char* kSalt = "salt of the tests";

std::string Read(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The running process whose command line names `text`; 0 = none.
int FindProcess(const std::string& text) {
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string line = Read(entry.path() / "cmdline");
        if (line.find(text) != std::string::npos && line.find("gocryptfs") != std::string::npos) {
            return std::stoi(entry.path().filename());
        }
    }
    return 0;
}

// A folder in which nothing can be made, renamed or removed while this is there, not even by root.
class RemovedWriting {
public:
    explicit RemovedWriting(const std::string& folder)
        : m_folder(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), m_isRemoved(Set(true)) {}
    ~RemovedWriting() { Set(false); }
    RemovedWriting(const RemovedWriting&) = delete;
    RemovedWriting& operator=(const RemovedWriting&) = delete;
    bool IsRemoved() const { return m_isRemoved; }

private:
    bool Set(bool isRemoved) const {
        int flags = 0;
        if (ioctl(m_folder.Get(), FS_IOC_GETFLAGS, &flags) != 0) {
            return false;
        }
        flags = isRemoved ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
        return ioctl(m_folder.Get(), FS_IOC_SETFLAGS, &flags) == 0;
    }

    korv::FileDescriptor m_folder;
    bool m_isRemoved;
};

class Cipher : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        fs::create_directory(m_folder.MountPath());
    }
    void TearDown() override {
        while (m_folder.Unmount(kPatience, true) == CipherEnd::kDone) {
        }
        MachineTest::TearDown();
    }

    CipherFolder m_folder{CipherFolder::PathFor(machine::Volume(), "token"), machine::Volume() + "/rec"};
};

TEST_F(Cipher, KeepsWhatIsWrittenEncryptedAndGivesItBack) {
    EXPECT_EQ(m_folder.State(), CipherState::kAbsent);
    ASSERT_EQ(m_folder.Init("a secret"), CipherEnd::kDone);
    EXPECT_EQ(m_folder.State(), CipherState::kLocked);
    ASSERT_EQ(m_folder.Mount("a secret"), CipherEnd::kDone);
    EXPECT_EQ(m_folder.State(), CipherState::kUnlocked);
    std::ofstream(m_folder.MountPath() + "/film") << "plain text";
    EXPECT_EQ(m_folder.Mount("a secret"), CipherEnd::kMounted);
    ASSERT_EQ(m_folder.Unmount(kPatience, false), CipherEnd::kDone);
    EXPECT_EQ(m_folder.Unmount(kPatience, false), CipherEnd::kNotMounted);
    EXPECT_EQ(m_folder.State(), CipherState::kLocked);
    EXPECT_TRUE(fs::is_empty(m_folder.MountPath()));
    for (const auto& entry : fs::recursive_directory_iterator(m_folder.CipherPath())) {
        EXPECT_NE(entry.path().filename(), "film");
        EXPECT_EQ(Read(entry.path()).find("plain text"), std::string::npos);
    }
    ASSERT_EQ(m_folder.Mount("a secret"), CipherEnd::kDone);
    EXPECT_EQ(Read(m_folder.MountPath() + "/film"), "plain text");
}

TEST_F(Cipher, IsHiddenFromEveryoneButRoot) {
    ASSERT_EQ(m_folder.Init("a secret"), CipherEnd::kDone);
    EXPECT_EQ(fs::status(machine::Volume() + "/.korv").permissions(), fs::perms::owner_all);
}

TEST_F(Cipher, ShowsTheSecretToNobody) {
    ASSERT_EQ(m_folder.Init("Very-Secret"), CipherEnd::kDone);
    ASSERT_EQ(m_folder.Mount("Very-Secret"), CipherEnd::kDone);
    const int process = FindProcess(m_folder.CipherPath());
    ASSERT_GT(process, 0);
    const std::string folder = "/proc/" + std::to_string(process);
    EXPECT_EQ(Read(folder + "/cmdline").find("Very-Secret"), std::string::npos);
    EXPECT_EQ(Read(folder + "/environ").find("Very-Secret"), std::string::npos);
    for (const auto& entry : fs::recursive_directory_iterator(m_folder.CipherPath())) {
        EXPECT_EQ(Read(entry.path()).find("Very-Secret"), std::string::npos);
    }
}

TEST_F(Cipher, RefusesWrongAndImpossiblePasswords) {
    EXPECT_EQ(m_folder.Init(""), CipherEnd::kBadPassword);
    EXPECT_EQ(m_folder.Init("two\nlines"), CipherEnd::kBadPassword);
    EXPECT_EQ(m_folder.Init(std::string("a\0b", 3)), CipherEnd::kBadPassword);
    EXPECT_EQ(m_folder.Init(std::string(1025, 'x')), CipherEnd::kBadPassword);
    EXPECT_EQ(m_folder.State(), CipherState::kAbsent);
    ASSERT_EQ(m_folder.Init(std::string(1024, 'x')), CipherEnd::kDone);
    EXPECT_EQ(m_folder.Mount("another"), CipherEnd::kWrongPassword);
    EXPECT_EQ(m_folder.Mount(""), CipherEnd::kBadPassword);
    EXPECT_EQ(m_folder.State(), CipherState::kLocked);
    EXPECT_EQ(m_folder.Mount(std::string(1024, 'x')), CipherEnd::kDone);
}

TEST_F(Cipher, NeedsEmptyFolders) {
    EXPECT_EQ(m_folder.Mount("a secret"), CipherEnd::kNoFolder);
    fs::create_directories(m_folder.CipherPath());
    std::ofstream(m_folder.CipherPath() + "/file") << "x";
    EXPECT_EQ(m_folder.Init("a secret"), CipherEnd::kNotEmpty);
    EXPECT_EQ(m_folder.Mount("a secret"), CipherEnd::kNotCipher);
    EXPECT_EQ(m_folder.ChangePassword("a", "b"), CipherEnd::kNotCipher);
    EXPECT_EQ(Read(m_folder.CipherPath() + "/file"), "x");
    fs::remove(m_folder.CipherPath() + "/file");
    ASSERT_EQ(m_folder.Init("a secret"), CipherEnd::kDone);
    EXPECT_EQ(m_folder.Init("a secret"), CipherEnd::kNotEmpty);
    std::ofstream(m_folder.MountPath() + "/file") << "x";
    EXPECT_EQ(m_folder.Mount("a secret"), CipherEnd::kNotEmpty);
    fs::remove_all(m_folder.MountPath());
    EXPECT_EQ(m_folder.Mount("a secret"), CipherEnd::kNoFolder);
}

TEST_F(Cipher, ADamagedConfigurationIsTold) {
    ASSERT_EQ(m_folder.Init("a secret"), CipherEnd::kDone);
    const std::string configuration = m_folder.CipherPath() + "/gocryptfs.conf";
    fs::permissions(configuration, fs::perms::owner_all);
    std::ofstream(configuration) << "{";
    EXPECT_EQ(m_folder.Mount("a secret"), CipherEnd::kNotCipher);
}

TEST_F(Cipher, ChangesThePassword) {
    ASSERT_EQ(m_folder.Init("old one"), CipherEnd::kDone);
    EXPECT_EQ(m_folder.ChangePassword("wrong", "new one"), CipherEnd::kWrongPassword);
    EXPECT_EQ(m_folder.ChangePassword("old one", ""), CipherEnd::kBadPassword);
    EXPECT_EQ(m_folder.Mount("new one"), CipherEnd::kWrongPassword);
    EXPECT_EQ(m_folder.ChangePassword("old one", "new one"), CipherEnd::kDone);
    EXPECT_EQ(m_folder.Mount("old one"), CipherEnd::kWrongPassword);
    EXPECT_EQ(m_folder.Mount("new one"), CipherEnd::kDone);
}

TEST_F(Cipher, AnExportedKeyOpensItAfterAPasswordChangeWasRefusedHalfWay) {
    ASSERT_EQ(m_folder.Init("old one"), CipherEnd::kDone);
    const auto file = korv::SealKey({std::string(32, '0'), "token", "rec", "old one"}, kSalt);
    ASSERT_TRUE(file);
    ASSERT_EQ(m_folder.Mount("old one"), CipherEnd::kDone);
    std::ofstream(m_folder.MountPath() + "/film") << "plain text";
    ASSERT_EQ(m_folder.Unmount(kPatience, false), CipherEnd::kDone);

    // The configuration can be read, and what is to replace it can't be put beside it.
    const RemovedWriting writing(m_folder.CipherPath());
    ASSERT_TRUE(writing.IsRemoved());
    EXPECT_NE(m_folder.ChangePassword("old one", "new one"), CipherEnd::kDone);
    EXPECT_EQ(m_folder.Mount("new one"), CipherEnd::kWrongPassword);

    const auto key = korv::OpenKey(*file, kSalt);
    ASSERT_TRUE(key);
    const auto parts = korv::ParseKeyText(korv::KeyText(*key));
    ASSERT_TRUE(parts);
    ASSERT_EQ(m_folder.Mount(parts->password), CipherEnd::kDone);
    EXPECT_EQ(Read(m_folder.MountPath() + "/film"), "plain text");
}

TEST_F(Cipher, WaitsForUsersAndDetachesWhenAsked) {
    ASSERT_EQ(m_folder.Init("a secret"), CipherEnd::kDone);
    ASSERT_EQ(m_folder.Mount("a secret"), CipherEnd::kDone);
    const int user = open((m_folder.MountPath() + "/film").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(user, 0);
    EXPECT_EQ(m_folder.Unmount(kPatience, false), CipherEnd::kBusy);
    EXPECT_EQ(m_folder.State(), CipherState::kUnlocked);
    EXPECT_EQ(m_folder.Unmount(kPatience, true), CipherEnd::kDone);
    EXPECT_EQ(m_folder.State(), CipherState::kLocked);
    EXPECT_EQ(write(user, "late", 4), 4);
    close(user);
}

TEST_F(Cipher, AProcessThatDiedIsBrokenAndCanBeMountedAnew) {
    ASSERT_EQ(m_folder.Init("a secret"), CipherEnd::kDone);
    ASSERT_EQ(m_folder.Mount("a secret"), CipherEnd::kDone);
    const int process = FindProcess(m_folder.CipherPath());
    ASSERT_GT(process, 0);
    ASSERT_EQ(kill(process, SIGKILL), 0);
    for (int i = 0; i < 500 && m_folder.State() == CipherState::kUnlocked; ++i) {
        usleep(10000);
    }
    EXPECT_EQ(m_folder.State(), CipherState::kBroken);
    EXPECT_EQ(m_folder.Unmount(kPatience, true), CipherEnd::kDone);
    EXPECT_EQ(m_folder.Mount("a secret"), CipherEnd::kDone);
}

TEST_F(Cipher, IsServedOnceThoughACallerDiedWhileItMounted) {
    ASSERT_EQ(m_folder.Init("a secret"), CipherEnd::kDone);
    constexpr useconds_t kStep_us = 10'000;
    int finished = 0;
    for (useconds_t patience_us = kStep_us; finished < 3; patience_us += kStep_us) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(m_folder.Mount("a secret") == CipherEnd::kDone ? 0 : 1);
        }
        usleep(patience_us);
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        finished += WIFEXITED(status) ? 1 : 0;
        const CipherEnd end = m_folder.Mount("a secret");
        EXPECT_TRUE(end == CipherEnd::kDone || end == CipherEnd::kMounted) << static_cast<int>(end);
        EXPECT_EQ(m_folder.State(), CipherState::kUnlocked);
        EXPECT_EQ(m_folder.Unmount(kPatience, false), CipherEnd::kDone);
        ASSERT_EQ(m_folder.Unmount(kPatience, false), CipherEnd::kNotMounted) << patience_us;
    }
}

TEST_F(Cipher, WorksForAProcessThatIsNotEffectivelyRoot) {
    EXPECT_EQ(machine::InChild([this] {
                  machine::BecomeEffectively(machine::kPavaneUid, {});
                  if (setresuid(machine::kPavaneUid, machine::kPavaneUid, 0) != 0) {
                      return 9;
                  }
                  return m_folder.Init("a secret") == CipherEnd::kDone &&
                                 m_folder.Mount("a secret") == CipherEnd::kDone &&
                                 m_folder.State() == CipherState::kUnlocked
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_EQ(m_folder.State(), CipherState::kUnlocked);
}

TEST_F(Cipher, AFullVolumeIsToldAndKeepsThePassword) {
    const std::string volume = machine::BtrfsVolume();
    ASSERT_EQ(mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=1m,mode=0755"), 0);
    fs::create_directory(volume + "/rec");
    const CipherFolder folder(CipherFolder::PathFor(volume, "token"), volume + "/rec");
    const auto fill = [&volume] {
        const int file = open((volume + "/ballast").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const std::string block(4096, 'x');
        while (write(file, block.data(), block.size()) > 0) {
        }
        close(file);
    };
    fill();
    EXPECT_EQ(folder.Init("a secret"), CipherEnd::kNoSpace);
    EXPECT_FALSE(fs::exists(folder.CipherPath()));
    fs::remove(volume + "/ballast");
    ASSERT_EQ(folder.Init("a secret"), CipherEnd::kDone);
    fill();
    EXPECT_EQ(folder.ChangePassword("a secret", "another"), CipherEnd::kNoSpace);
    fs::remove(volume + "/ballast");
    EXPECT_EQ(folder.Mount("a secret"), CipherEnd::kDone);
    EXPECT_EQ(folder.Unmount(kPatience, false), CipherEnd::kDone);
    EXPECT_EQ(umount2(volume.c_str(), MNT_DETACH), 0);
}

}  // namespace
