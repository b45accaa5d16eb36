#include "korv/system/external_disk.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include "platform/korv/external_disk.h"
#include "platform/korv/share.h"

#include "korv/system/bounded_call.h"
#include "korv/system/child_process.h"
#include "korv/system/external_disk_register.h"
#include "korv/system/external_disk_state.h"
#include "korv/system/external_share.h"
#include "korv/system/key_value_file.h"
#include "tests/unit/korv/pretended_disks.h"
#include "tests/unit/korv/silent_file_system.h"

namespace {

namespace fs = std::filesystem;
using korv::ExternalDiskKind;
using korv::PartitionState;

constexpr const char* kPlace = "/tmp/place";
constexpr const char* kOtherPlace = "/tmp/other/place";
constexpr const char* kVolume = "/tmp/volume1";
constexpr const char* kHanging = "/tmp/hanging";
constexpr const char* kConfiguration = "/tmp/korv.yaml";
constexpr const char* kRegister = "/run/external-disks";
constexpr uid_t kService = 65534;

class ExternalDiskTest : public testing::Test {
protected:
    void SetUp() override {
        while (umount2(korv::kDiskStateFile, MNT_DETACH) == 0) {
        }
        fs::remove(korv::kDiskStateFile);
        fs::remove(kRegister);
        fs::create_directory(kPlace);
    }
    void TearDown() override {
        for (const char* place : {kPlace, kOtherPlace}) {
            while (umount2(place, MNT_DETACH) == 0) {
            }
        }
    }

    // As if what is on the device were mounted: only the list of mounts is asked for that.
    static void MountFrom(const char* device, const char* type = "tmpfs", const char* place = kPlace) {
        ASSERT_EQ(mount(device, place, type, 0, "size=64k,mode=0755"), 0);
    }

    // Whatever touches the device waits for ever.
    void Hang(const std::string& name) {
        const fs::path file = disks.FileOf(name);
        fs::remove(file);
        fs::create_directory(kHanging);
        m_hanging.emplace(kHanging, SilentFileSystem::Silence::kEverything);
        fs::create_symlink(std::string(kHanging) + "/disk", file);
    }

    static std::vector<std::string> Names(ExternalDiskKind kind) {
        std::vector<std::string> names;
        for (const korv::ExternalDisk& disk : korv::ListExternalDisks()) {
            if (disk.kind != kind) {
                continue;
            }
            names.push_back(disk.name + "/" + std::to_string(disk.number));
        }
        return names;
    }

    static std::vector<korv::ExternalPartition> Partitions(ExternalDiskKind kind, const std::string& name) {
        auto disk = korv::FindExternalDisk(name);
        if (!disk || disk->kind != kind) {
            return {};
        }
        korv::ReadPartitions(*disk);
        return disk->partitions;
    }

    static std::string StateOf(const std::string& disk) {
        std::size_t size = 0;
        EXPECT_GE(KORVUSBDevEnum(KORV_EXT_DEVICE_USB, nullptr, 0, &size), 0);
        const auto states = korv::ReadKeyValues(korv::kDiskStateFile);
        const auto found = states ? states->find(disk) : korv::KeyValues::const_iterator();
        return states && found != states->end() ? found->second : "none";
    }

    PretendedDisks disks;

private:
    std::optional<SilentFileSystem> m_hanging;
};

using Texts = std::vector<std::string>;

const PretendedDisks::Texts kDeclaredUsb{{"KORV_EXTERNAL_DISK", "usb"}};

// As a worker runs while it answers a request: it may become root, but isn't.
class AsService {
public:
    AsService() { EXPECT_EQ(seteuid(kService), 0); }
    ~AsService() { EXPECT_EQ(seteuid(0), 0); }
    AsService(const AsService&) = delete;
    AsService& operator=(const AsService&) = delete;
};

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

TEST_F(ExternalDiskTest, TellsExternalDisksFromTheMachinesOwn) {
    disks.AddUsbDisk("sdc");
    disks.AddUsbDisk("sdaa");
    disks.AddEsataDisk("sdd");
    disks.AddDisk("pci0/ata2/host2", "sda", {{"ID_BUS", "ata"}});
    disks.AddDisk("pci0/usb1/1-2/host7", "sr0", {{"ID_BUS", "usb"}, {"ID_TYPE", "cd"}});
    disks.AddDisk("pci0/usb1/1-3/host8", "sde", {{"ID_BUS", "usb"}}, {{"size", "0"}});
    disks.AddDisk("virtual", "loop0", {{"KORV_EXTERNAL_DISK", "usb"}});
    disks.AddDisk("virtual", "loop1", {{"KORV_EXTERNAL_DISK", "esata"}});
    disks.AddDisk("pci0/usb1/1-4/host9", "sdf", {{"ID_BUS", "usb"}, {"KORV_EXTERNAL_DISK", "no"}});
    EXPECT_EQ(Names(ExternalDiskKind::kUsb), (Texts{"loop0/1", "sdaa/27", "sdc/3"}));
    EXPECT_EQ(Names(ExternalDiskKind::kEsata), (Texts{"loop1/2", "sdd/4"}));
}

TEST_F(ExternalDiskTest, ADiskBehindAnUsbDeviceIsOneWhateverItsBusIsCalled) {
    disks.AddUsbDevice("pci0/usb1/1-1");
    disks.AddDisk("pci0/usb1/1-1/host6", "sdb", {{"ID_BUS", "ata"}});
    disks.AddDisk("pci0/usb1/1-1/host7", "sdc", {{"ID_BUS", "ata"}}, {{"removable", "1"}});
    disks.AddDisk("pci0/usb1/1-1/host8", "sdd", {});
    disks.AddDisk("pci0/usb1/1-1/host9", "sde", {{"ID_BUS", "scsi"}});
    disks.AddDisk("pci0/ata1/host1", "sdf", {{"ID_BUS", "ata"}});
    disks.AddDisk("pci0/ata2/host2", "sdg", {{"ID_BUS", "ata"}}, {{"removable", "1"}});
    disks.AddDisk("pci0/usb1/1-1/host3", "sr0", {{"ID_BUS", "ata"}, {"ID_TYPE", "cd"}});
    disks.AddUsbDevice("virtual/usb2");
    disks.AddDisk("virtual/usb2", "sdh", {});
    EXPECT_EQ(Names(ExternalDiskKind::kUsb), (Texts{"sdb/2", "sdc/3", "sdd/4", "sde/5"}));
    EXPECT_EQ(Names(ExternalDiskKind::kEsata), Texts{"sdg/7"});
}

TEST_F(ExternalDiskTest, ADiskThatTheMachineUsesItselfIsNoExternalOne) {
    disks.AddPartition(disks.AddUsbDisk("sdb"), 1);
    disks.AddPartition(disks.AddUsbDisk("sdc"), 3);
    const Texts both{"sdb/2", "sdc/3"};
    EXPECT_EQ(Names(ExternalDiskKind::kUsb), both);
    for (const std::string place : {"/boot", "/usr", "/var", "/boot/efi", kVolume}) {
        const bool isBelow = place == "/boot/efi";
        if (isBelow) {
            MountFrom("tmpfs", "tmpfs", "/boot");
        }
        fs::create_directory(place);
        MountFrom("/dev/sdc3", "tmpfs", place.c_str());
        EXPECT_EQ(Names(ExternalDiskKind::kUsb), Texts{"sdb/2"}) << place;
        EXPECT_FALSE(korv::FindExternalDisk("sdc"));
        umount2(place.c_str(), MNT_DETACH);
        if (isBelow) {
            umount2("/boot", MNT_DETACH);
        }
    }
    // People mount disks into shares, too.
    const std::string share = std::string(kVolume) + "/films";
    fs::create_directory(share);
    MountFrom("/dev/sdc3", "tmpfs", share.c_str());
    EXPECT_EQ(Names(ExternalDiskKind::kUsb), both);
    umount2(share.c_str(), MNT_DETACH);
    std::ofstream("/tmp/swaps") << "Filename\tType\tSize\tUsed\tPriority\n/dev/sdb1   partition\t64\t0\t-2\n";
    ASSERT_EQ(mount("/tmp/swaps", "/proc/swaps", nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(Names(ExternalDiskKind::kUsb), Texts{"sdc/3"});
    umount2("/proc/swaps", MNT_DETACH);
    EXPECT_EQ(Names(ExternalDiskKind::kUsb), both);
}

TEST_F(ExternalDiskTest, NoTwoDisksHaveTheSameNumber) {
    for (const char* name : {"nvme0n1", "nvme1n1", "nvme1n2", "mmcblk0", "loop1", "xvda", "xvdb"}) {
        disks.AddDisk(std::string("pci0/") + name, name, kDeclaredUsb);
    }
    disks.AddEsataDisk("sda");
    EXPECT_EQ(Names(ExternalDiskKind::kUsb),
              (Texts{"loop1/2", "mmcblk0/1", "nvme0n1/3", "nvme1n1/4", "nvme1n2/5", "xvda/7", "xvdb/8"}));
    EXPECT_EQ(Names(ExternalDiskKind::kEsata), Texts{"sda/6"});
}

TEST_F(ExternalDiskTest, ADisksNumberIsThatOfItsNameWhereItIsFree) {
    for (const char* name : {"nvme2n1", "mmcblk6", "vdd", "sdcu", "sdcv"}) {
        disks.AddDisk(std::string("pci0/") + name, name, kDeclaredUsb);
    }
    // A hundred and more would make long names.
    EXPECT_EQ(Names(ExternalDiskKind::kUsb), (Texts{"mmcblk6/7", "nvme2n1/3", "sdcu/99", "sdcv/1", "vdd/4"}));
}

TEST_F(ExternalDiskTest, ADiskKeepsItsNumberWhateverComesAndGoes) {
    const std::string first = disks.AddDisk("pci0/one", "nvme1n1", kDeclaredUsb);
    EXPECT_EQ(Names(ExternalDiskKind::kUsb), Texts{"nvme1n1/2"});
    disks.AddUsbDisk("sdb");
    EXPECT_EQ(Names(ExternalDiskKind::kUsb), (Texts{"nvme1n1/2", "sdb/1"}));
    disks.AddUsbDisk("sda");
    EXPECT_EQ(Names(ExternalDiskKind::kUsb), (Texts{"nvme1n1/2", "sda/3", "sdb/1"}));
    disks.Pull(first);
    EXPECT_EQ(Names(ExternalDiskKind::kUsb), (Texts{"sda/3", "sdb/1"}));
    EXPECT_EQ(korv::FindExternalDisk("sdb")->number, 1);
    disks.AddUsbDisk("sdc");
    EXPECT_EQ(korv::FindExternalDisk("sdc")->number, 2);
    EXPECT_EQ(Names(ExternalDiskKind::kUsb), (Texts{"sda/3", "sdb/1", "sdc/2"}));
}

TEST_F(ExternalDiskTest, AShareWhoseNameWouldBeCutHasNone) {
    const std::string path = disks.AddEsataDisk("sdd");
    disks.AddPartition(path, 2);
    disks.AddPartition(path, 128);
    MountFrom("/dev/sdd128");
    auto disk = korv::FindExternalDisk("sdd");
    ASSERT_TRUE(disk);
    const auto nameUnder = [&disk](int number) {
        disk->number = number;
        korv::ReadPartitions(*disk);
        return disk->partitions.at(1).shareName;
    };
    EXPECT_EQ(nameUnder(4), "satashare4-128");
    EXPECT_EQ(nameUnder(99), "satashare99-128");
    EXPECT_EQ(nameUnder(100), "");
    EXPECT_EQ(disk->partitions.at(1).mountPath, kPlace);
}

TEST_F(ExternalDiskTest, ReadsWhatIsOnEachPartition) {
    const std::string disk = disks.AddUsbDisk("sdb");
    disks.AddPartition(disk, 2);
    disks.AddPartition(disk, 1);
    disks.AddPartition(disk, 3, {{"ID_FS_TYPE", "ntfs"}, {"ID_FS_LABEL", "Films"}});
    disks.AddPartition(
        disk, 4, {{"ID_FS_TYPE", "vfat"}, {"ID_PART_ENTRY_TYPE", "C12A7328-F81F-11D2-BA4B-00A0C93EC93B"}});
    const std::string first = disks.FileOf("sdb1");
    const std::string second = disks.FileOf("sdb2");
    ASSERT_EQ(korv::RunProgram("/usr/sbin/mkfs.ext4", {"-q", "-L", "Backup", first}, std::chrono::seconds(20))
                  .exitCode,
              0);
    ASSERT_EQ(korv::RunProgram("/usr/sbin/mkswap", {second}, std::chrono::seconds(20)).exitCode, 0);
    const auto partitions = Partitions(ExternalDiskKind::kUsb, "sdb");
    ASSERT_EQ(partitions.size(), 4U);
    EXPECT_EQ(partitions[0].device, "/dev/sdb1");
    EXPECT_EQ(partitions[0].fsType, "ext4");
    EXPECT_EQ(partitions[0].label, "Backup");
    EXPECT_EQ(partitions[0].state, PartitionState::kUnusable);
    EXPECT_EQ(partitions[0].mountPath, "");
    EXPECT_EQ(partitions[0].shareName, "");
    EXPECT_EQ(partitions[1].fsType, "swap");
    EXPECT_EQ(partitions[1].state, PartitionState::kHidden);
    EXPECT_EQ(partitions[2].fsType, "ntfs");
    EXPECT_EQ(partitions[2].label, "Films");
    EXPECT_EQ(partitions[2].state, PartitionState::kUnusable);
    EXPECT_EQ(partitions[2].shareName, "");
    EXPECT_EQ(partitions[3].state, PartitionState::kHidden);
    // The list of mounts says what it is now.
    MountFrom("/dev/sdb1", "ramfs");
    const auto mounted = Partitions(ExternalDiskKind::kUsb, "sdb").at(0);
    EXPECT_EQ(mounted.fsType, "ramfs");
    EXPECT_EQ(mounted.state, PartitionState::kReady);
    EXPECT_EQ(mounted.mountPath, kPlace);
    EXPECT_EQ(mounted.shareName, "usbshare2-1");
}

TEST_F(ExternalDiskTest, ADiskIsReadAgainOnlyWhenItChanged) {
    const std::string disk = disks.AddUsbDisk("sdb");
    disks.AddPartition(disk, 1);
    disks.SetWrites(disk, 1);
    const std::string file = disks.FileOf("sdb1");
    const auto make = [&file](const char* label) {
        return korv::RunProgram("/usr/sbin/mkfs.ext4", {"-q", "-F", "-L", label, file},
                                std::chrono::seconds(20))
            .exitCode;
    };
    const auto label = [] { return Partitions(ExternalDiskKind::kUsb, "sdb").at(0).label; };
    EXPECT_EQ(label(), "");
    ASSERT_EQ(make("First"), 0);
    EXPECT_EQ(label(), "");
    disks.SetWrites(disk, 9);
    EXPECT_EQ(label(), "First");
    ASSERT_EQ(make("Second"), 0);
    EXPECT_EQ(label(), "First");
    disks.Pull(disk);
    disks.AddPartition(disks.AddUsbDisk("sdb"), 1);
    disks.SetWrites(disk, 9);
    disks.FileOf("sdb1");
    ASSERT_EQ(make("Third"), 0);
    EXPECT_EQ(label(), "Third");
}

TEST_F(ExternalDiskTest, ADiskThatHangsIsLeftOutAndHoldsNothingUp) {
    const std::string disk = disks.AddUsbDisk("sdb");
    for (const int number : {1, 2, 3}) {
        disks.AddPartition(disk, number);
    }
    disks.AddPartition(disks.AddUsbDisk("sdc"), 1);
    MountFrom("/dev/sdc1");
    Hang("sdb1");
    const auto timed = [](const auto& work) {
        const auto start = std::chrono::steady_clock::now();
        work();
        return std::chrono::steady_clock::now() - start;
    };
    constexpr std::chrono::seconds kAtOnce(2);
    EXPECT_LT(timed([] { EXPECT_EQ(korv::ExternalSharePath("usbshare3"), kPlace); }), kAtOnce);
    KORVEXTDEVICE record{};
    testing::internal::CaptureStderr();
    EXPECT_LT(timed([&record] { ASSERT_EQ(KORVExtStgPartsVolInfoGet("sdb", &record, true), 0); }),
              2 * korv::kAnswerDeadline);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    EXPECT_NE(log.find("external disk /dev/sdb doesn't answer"), std::string::npos) << log;
    ASSERT_EQ(record.partitionCount, 3);
    EXPECT_EQ(record.partitions[0].state, KORV_EXT_PARTITION_HIDDEN);
    EXPECT_LT(timed([&record] { KORVExtStgPartsVolInfoGet("sdb", &record, true); }), kAtOnce);
}

TEST_F(ExternalDiskTest, OnlyAWholeFileSystemInSightIsADisksPlace) {
    disks.AddPartition(disks.AddUsbDisk("sdb"), 1);
    const auto place = [] { return Partitions(ExternalDiskKind::kUsb, "sdb").at(0).mountPath; };
    const std::string inner = std::string(kPlace) + "/inner";
    MountFrom("/dev/sdb1");
    EXPECT_EQ(place(), kPlace);
    // A folder of it elsewhere, and its place covered.
    fs::create_directory(inner);
    fs::create_directories(kOtherPlace);
    ASSERT_EQ(mount(inner.c_str(), kOtherPlace, nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(place(), kPlace);
    MountFrom("tmpfs");
    EXPECT_EQ(place(), "");
    EXPECT_FALSE(korv::ExternalSharePath("usbshare2"));
    ASSERT_EQ(umount(kPlace), 0);
    EXPECT_EQ(place(), kPlace);
    // The whole of it elsewhere, too: the first that is in sight counts.
    ASSERT_EQ(umount(kOtherPlace), 0);
    ASSERT_EQ(mount(kPlace, kOtherPlace, nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(place(), kPlace);
    MountFrom("tmpfs");
    EXPECT_EQ(place(), kOtherPlace);
    ASSERT_EQ(umount(kPlace), 0);
    ASSERT_EQ(umount(kPlace), 0);
    EXPECT_EQ(place(), kOtherPlace);
    // Covered from above.
    MountFrom("tmpfs", "tmpfs", "/tmp/other");
    EXPECT_EQ(place(), "");
    ASSERT_EQ(umount("/tmp/other"), 0);
}

TEST_F(ExternalDiskTest, ADiskAtAPathThatWouldBeCutIsLeftOutAndTheLogSaysSo) {
    disks.AddPartition(disks.AddUsbDisk("sdb"), 1);
    const std::string longest = "/tmp/" + std::string(korv::kLongestExternalSharePath - 5, 'l');
    const std::string place = longest + "l";
    fs::create_directory(longest);
    fs::create_directory(place);
    MountFrom("/dev/sdb1", "tmpfs", place.c_str());
    KORVEXTDEVICE record{};
    testing::internal::CaptureStderr();
    ASSERT_EQ(KORVExtStgPartsVolInfoGet("sdb", &record, true), 0);
    const std::string log = testing::internal::GetCapturedStderr();
    ASSERT_EQ(record.partitionCount, 1);
    EXPECT_EQ(record.partitions[0].state, KORV_EXT_PARTITION_HIDDEN);
    EXPECT_STREQ(record.partitions[0].mountPath, "");
    EXPECT_STREQ(record.partitions[0].shareName, "");
    EXPECT_NE(log.find("external disk /dev/sdb1: " + place + " is too long a path\n"), std::string::npos)
        << log;
    EXPECT_FALSE(korv::ExternalSharePath("usbshare2"));
    ASSERT_EQ(mount(place.c_str(), longest.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(KORVExtStgPartsVolInfoGet("sdb", &record, true), 0);
    EXPECT_EQ(record.partitions[0].state, KORV_EXT_PARTITION_READY);
    EXPECT_EQ(record.partitions[0].mountPath, longest);
    for (const std::string& each : {longest, place}) {
        umount2(each.c_str(), MNT_DETACH);
    }
}

TEST_F(ExternalDiskTest, ASharesNameStaysWhenAPartitionBesideItHangs) {
    const std::string disk = disks.AddUsbDisk("sdb");
    disks.AddPartition(disk, 1);
    disks.AddPartition(disk, 2);
    MountFrom("/dev/sdb1");
    Hang("sdb2");
    const auto partitions = Partitions(ExternalDiskKind::kUsb, "sdb");
    EXPECT_EQ(partitions.at(0).shareName, "usbshare2-1");
    EXPECT_EQ(partitions.at(0).state, PartitionState::kReady);
    EXPECT_EQ(partitions.at(1).state, PartitionState::kHidden);
    EXPECT_TRUE(partitions.at(1).isSilent);
}

TEST_F(ExternalDiskTest, AnUnpartitionedDiskIsItsOwnPartition) {
    disks.AddEsataDisk("sdc");
    MountFrom("/dev/sdc");
    const auto partitions = Partitions(ExternalDiskKind::kEsata, "sdc");
    ASSERT_EQ(partitions.size(), 1U);
    EXPECT_EQ(partitions[0].number, 0);
    EXPECT_EQ(partitions[0].shareName, "satashare3");
    EXPECT_EQ(partitions[0].mountPath, kPlace);
}

TEST_F(ExternalDiskTest, ASharesNameLastsAsLongAsTheDiskIsMounted) {
    const std::string first = disks.AddUsbDisk("sdb");
    disks.AddPartition(disks.AddUsbDisk("sdc"), 1);
    MountFrom("/dev/sdc1");
    KORVSHARE* share = nullptr;
    ASSERT_EQ(KORVShareGet("USBshare3", &share), 0);
    EXPECT_STREQ(share->path, kPlace);
    KORVShareFree(share);
    disks.Pull(first);
    EXPECT_EQ(korv::ExternalSharePath("usbshare3"), kPlace);
    EXPECT_FALSE(korv::ExternalSharePath("usbshare2"));
    umount2(kPlace, MNT_DETACH);
    EXPECT_EQ(KORVShareGet("usbshare3", &share), -1);
    EXPECT_EQ(share, nullptr);
}

// What is on the disk can be read by root alone: its second partition is no place for files, so that the
// first is the only one.
TEST_F(ExternalDiskTest, AWorkerFindsASharesRecordAsTheServiceUser) {
    const std::string disk = disks.AddUsbDisk("sdb");
    disks.AddPartition(disk, 1);
    disks.AddPartition(disk, 2);
    ASSERT_EQ(korv::RunProgram("/usr/sbin/mkswap", {disks.FileOf("sdb2")}, std::chrono::seconds(20)).exitCode,
              0);
    MountFrom("/dev/sdb1");
    KORVSHARE* share = nullptr;
    int result = -1;
    {
        const AsService service;
        result = KORVShareGet("usbshare2", &share);
        EXPECT_EQ(geteuid(), kService);
    }
    ASSERT_EQ(result, 0);
    EXPECT_STREQ(share->path, kPlace);
    KORVShareFree(share);
}

TEST_F(ExternalDiskTest, OnlyNumberedNamesAreExternalShares) {
    for (const char* name :
         {"usbshare1", "USBShare27", "satashare2-1", "usbshare702-15", "usbshare0001-128"}) {
        EXPECT_TRUE(korv::IsExternalShareName(name)) << name;
    }
    for (const char* name : {"usbshare", "usbshare-1", "usbshare1-", "usbshare12345", "usbshare1-1234",
                             "usbshare1-1-1", "usbshare1 ", "ausbshare1", "usbshareA", "sharesata1"}) {
        EXPECT_FALSE(korv::IsExternalShareName(name)) << name;
    }
}

TEST_F(ExternalDiskTest, EnumeratesIntoOneBuffer) {
    disks.AddUsbDisk("sdb");
    disks.AddUsbDisk("sdaa");
    std::size_t size = 0;
    ASSERT_EQ(KORVUSBDevEnum(KORV_EXT_DEVICE_USB, nullptr, 0, &size), 2);
    ASSERT_EQ(size, 2 * sizeof(char*) + sizeof("sdb") + sizeof("sdaa"));
    std::vector<char*> names((size + sizeof(char*) - 1) / sizeof(char*), nullptr);
    ASSERT_EQ(KORVUSBDevEnum(KORV_EXT_DEVICE_USB, names.data(), size, &size), 2);
    EXPECT_STREQ(names[0], "sdaa");
    EXPECT_STREQ(names[1], "sdb");
    // A third disk came since the size was asked for.
    disks.AddUsbDisk("sdc");
    std::fill(names.begin(), names.end(), nullptr);
    EXPECT_EQ(KORVUSBDevEnum(KORV_EXT_DEVICE_USB, names.data(), size, &size), 2);
    EXPECT_STREQ(names[1], "sdb");
    EXPECT_GT(size, 2 * sizeof(char*) + sizeof("sdb") + sizeof("sdaa"));
    EXPECT_EQ(KORVUSBDevEnum(KORV_EXT_DEVICE_ESATA, nullptr, 0, &size), 0);
    EXPECT_EQ(size, 0U);
    EXPECT_LT(KORVUSBDevEnum(4, nullptr, 0, &size), 0);
}

TEST_F(ExternalDiskTest, DescribesADiskAndItsPartitions) {
    const std::string disk = disks.AddUsbDisk("sdb");
    disks.AddPartition(disk, 1, {{"ID_FS_TYPE", "ext4"}, {"ID_FS_LABEL", std::string(100, 'L')}});
    MountFrom("/dev/sdb1");
    KORVEXTDEVICE record{};
    ASSERT_EQ(KORVExtStgPartsVolInfoGet("sdb", &record, true), 0);
    EXPECT_STREQ(record.description, "USB Disk 2");
    ASSERT_EQ(record.partitionCount, 1);
    EXPECT_EQ(record.partitions[0].state, KORV_EXT_PARTITION_READY);
    EXPECT_STREQ(record.partitions[0].fsName, "tmpfs");
    EXPECT_EQ(record.partitions[0].text, std::string(63, 'L'));
    EXPECT_STREQ(record.partitions[0].shareName, "usbshare2");
    EXPECT_STREQ(record.partitions[0].mountPath, kPlace);
    // Asked for as the other kind it isn't there, and neither is one that was pulled.
    ASSERT_EQ(KORVExtStgPartsVolInfoGet("sdb", &record, false), 0);
    EXPECT_EQ(record.partitionCount, 0);
    disks.Pull(disk);
    ASSERT_EQ(KORVExtStgPartsVolInfoGet("sdb", &record, true), 0);
    EXPECT_EQ(record.partitionCount, 0);
    EXPECT_STREQ(record.description, "");
}

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

namespace {

constexpr const char* kPreload = "libumockdev-preload.so.0";

// Starts this program anew with the library that pretends, unless it is loaded. The sanitizer's own library
// is content with the second place.
bool StartWithLibrary(char** argv) {
    const char* loaded = std::getenv("LD_PRELOAD");
    if (loaded != nullptr && std::strstr(loaded, kPreload) != nullptr) {
        return true;
    }
    setenv("LD_PRELOAD", kPreload, 1);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    execv("/proc/self/exe", argv);
    return false;
}

// Folders of this process's own for what the library, the device manager and the register note about disks.
bool MakeFolders() {
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") == 0 &&
           mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") == 0;
}

void WriteConfiguration() {
    std::ofstream(kConfiguration) << "state_dir: /tmp/state\nrun_dir: /run\nlog_dir: /tmp/log\nvolumes: ["
                                  << kVolume << "]\n";
    setenv("KORV_CONFIG", kConfiguration, 1);
}

}  // namespace

int main(int argc, char** argv) {
    const bool isLoaded = StartWithLibrary(argv);
    testing::InitGoogleTest(&argc, argv);
    if (testing::GTEST_FLAG(list_tests)) {
        return RUN_ALL_TESTS();
    }
    if (!isLoaded || !MakeFolders()) {
        std::cerr << "these tests need root and umockdev\n";
        return 1;
    }
    WriteConfiguration();
    return RUN_ALL_TESTS();
}
