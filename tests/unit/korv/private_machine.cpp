#include "tests/unit/korv/private_machine.h"

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <system_error>

#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "korv/system/child_process.h"
#include "korv/system/database.h"

namespace fs = std::filesystem;

// The C library has them, and no header for them.
extern "C" int capget(cap_user_header_t header, cap_user_data_t data);
extern "C" int capset(cap_user_header_t header, cap_user_data_t data);

namespace {

fs::path g_root;

void Check(bool isRight, const char* what) {
    if (!isRight) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

std::string ReadAll(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void WriteAll(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }

// Covers `file` by a copy with more lines.
void AddLines(const std::string& file, const std::string& lines) {
    const fs::path copy = g_root / fs::path(file).filename();
    WriteAll(copy, ReadAll(file) + lines);
    Check(mount(copy.c_str(), file.c_str(), nullptr, MS_BIND, nullptr) == 0, "cannot cover an account file");
}

void AddAccounts() {
    AddLines("/etc/group", "administrators:x:60100:boss\nstaff_test:x:60101:carol\nnobodys_test:x:60102:\n");
    AddLines("/etc/passwd",
             "alice:x:60001:60102::/nonexistent:/usr/sbin/nologin\n"
             "boss:x:60002:60102::/nonexistent:/usr/sbin/nologin\n"
             "chief:x:60003:60100::/nonexistent:/usr/sbin/nologin\n"
             "carol:x:60004:60102::/nonexistent:/usr/sbin/nologin\n"
             "Pavane:x:60005:60102::/nonexistent:/usr/sbin/nologin\n");
}

void MountVolumes() {
    for (const std::string& path : {machine::Volume(), machine::FullVolume(), machine::ReadOnlyVolume(),
                                    machine::AbsentVolume(), machine::BtrfsVolume()}) {
        fs::create_directories(path);
    }
    Check(mount(machine::Volume().c_str(), machine::Volume().c_str(), nullptr, MS_BIND, nullptr) == 0,
          "cannot mount a volume");
    // The root itself is the one inode.
    Check(mount("tmpfs", machine::FullVolume().c_str(), "tmpfs", 0, "nr_inodes=1,mode=0755") == 0,
          "cannot mount a volume");
    Check(mount("tmpfs", machine::ReadOnlyVolume().c_str(), "tmpfs", MS_RDONLY, "mode=0755") == 0,
          "cannot mount a volume");
}

void WriteConfiguration() {
    const std::string root = g_root.string();
    WriteAll(g_root / "korv.yaml", "state_dir: " + root + "/state\nrun_dir: " + root + "\nlog_dir: " + root +
                                       "\nsamba_include: " + machine::SambaInclude() + "\nvolumes: [" +
                                       machine::Volume() + ", " + machine::FullVolume() + ", " +
                                       machine::ReadOnlyVolume() + ", " + machine::AbsentVolume() + ", " +
                                       machine::BtrfsVolume() + "]\n");
    setenv("KORV_CONFIG", (root + "/korv.yaml").c_str(), 1);
    fs::create_directory(g_root / "state");
    Check(chown(machine::StateFolder().c_str(), machine::kPavaneUid, machine::kNobodysGid) == 0 &&
              chmod(machine::StateFolder().c_str(), S_IRWXU) == 0,
          "cannot make the state folder");
}

void Build() {
    std::string pattern = (fs::temp_directory_path() / "korv-test-XXXXXX").string();
    Check(mkdtemp(pattern.data()) != nullptr, "cannot make a temporary folder");
    g_root = pattern;
    Check(chmod(pattern.c_str(), 0755) == 0, "cannot open the temporary folder");
    Check(unshare(CLONE_NEWNS) == 0, "these tests need root");
    Check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "cannot make mounts private");
    AddAccounts();
    MountVolumes();
    WriteConfiguration();
}

void TearDownMachine() {
    for (const std::string& path :
         {machine::Volume(), machine::FullVolume(), machine::ReadOnlyVolume(), machine::BtrfsVolume(),
          std::string("/etc/group"), std::string("/etc/passwd")}) {
        umount2(path.c_str(), MNT_DETACH);
    }
    fs::remove_all(g_root);
}

int ExitStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

pid_t Start(const std::function<int()>& work) {
    const pid_t child = fork();
    Check(child >= 0, "cannot fork");
    if (child == 0) {
        int result = 99;
        try {
            result = work();
        } catch (const std::exception& error) {
            std::cerr << "a child threw: " << error.what() << '\n';
        }
        _exit(result);
    }
    return child;
}

void Empty(const std::string& folder) {
    for (const auto& entry : fs::directory_iterator(folder)) {
        fs::remove_all(entry.path());
    }
}

}  // namespace

std::string machine::Volume() { return g_root / "volume1"; }
std::string machine::FullVolume() { return g_root / "volume2"; }
std::string machine::ReadOnlyVolume() { return g_root / "volume3"; }
std::string machine::AbsentVolume() { return g_root / "volume4"; }
std::string machine::BtrfsVolume() { return g_root / "volume5"; }
std::string machine::StateFolder() { return g_root / "state"; }
std::string machine::DatabaseFile() { return StateFolder() + "/korv.db"; }
std::string machine::SambaInclude() { return g_root / "shares.conf"; }

bool machine::MountBtrfs() {
    const std::string image = g_root / "btrfs.img";
    WriteAll(image, "");
    fs::resize_file(image, std::uintmax_t{128} * 1024 * 1024);
    return korv::RunProgram("/usr/sbin/mkfs.btrfs", {"-q", image}, std::chrono::seconds(20)).exitCode == 0 &&
           korv::RunProgram("/usr/bin/mount", {"-o", "loop", image, BtrfsVolume()}, std::chrono::seconds(20))
                   .exitCode == 0;
}

int machine::InChild(const std::function<int()>& work) {
    int status = 0;
    Check(waitpid(Start(work), &status, 0) > 0, "cannot wait for a child");
    return status;
}

std::vector<int> machine::InChildren(int count, const std::function<int(int)>& work) {
    std::vector<pid_t> children;
    children.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        children.push_back(Start([&work, i] { return work(i); }));
    }
    std::vector<int> ends;
    for (const pid_t child : children) {
        int status = 0;
        Check(waitpid(child, &status, 0) > 0, "cannot wait for a child");
        ends.push_back(ExitStatus(status));
    }
    return ends;
}

void machine::BecomeEffectively(unsigned uid, const std::vector<unsigned>& groups) {
    const std::vector<gid_t> ids(groups.begin(), groups.end());
    Check(setgroups(ids.size(), ids.data()) == 0 && setegid(kNobodysGid) == 0 && seteuid(uid) == 0,
          "cannot become another user");
}

void machine::LoseCapability(unsigned capability) {
    constexpr std::size_t kWords = 2;
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, kWords> data{};
    Check(capget(&header, data.data()) == 0, "cannot ask for capabilities");
    data.at(CAP_TO_INDEX(capability)).effective &= ~CAP_TO_MASK(capability);
    data.at(CAP_TO_INDEX(capability)).permitted &= ~CAP_TO_MASK(capability);
    Check(capset(&header, data.data()) == 0, "cannot lose a capability");
}

machine::Access machine::AccessOf(unsigned uid, const std::vector<unsigned>& groups,
                                  const std::string& folder) {
    constexpr int kCanRead = 1;
    constexpr int kCanWrite = 2;
    const int result = ExitStatus(InChild([&] {
        BecomeEffectively(uid, groups);
        const int opened = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const std::string file = folder + "/made-by-" + std::to_string(uid);
        const int made = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (made >= 0) {
            unlink(file.c_str());
        }
        return (opened >= 0 ? kCanRead : 0) | (made >= 0 ? kCanWrite : 0);
    }));
    return {(result & kCanRead) != 0, (result & kCanWrite) != 0};
}

std::vector<std::string> machine::Entries(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename());
    }
    return names;
}

void MachineTest::SetUp() {
    korv::CloseDatabase();
    Empty(machine::Volume());
    Empty(machine::StateFolder());
    fs::remove(machine::SambaInclude());
}

void MachineTest::TearDown() { korv::CloseDatabase(); }

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (testing::GTEST_FLAG(list_tests)) {
        return RUN_ALL_TESTS();
    }
    try {
        Build();
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    const int result = RUN_ALL_TESTS();
    korv::CloseDatabase();
    TearDownMachine();
    return result;
}
