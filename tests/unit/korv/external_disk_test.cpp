#include "korv/system/external_disk.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mount.h>

#include "platform/korv/external_disk.h"
#include "platform/korv/share.h"

#include "korv/system/bounded_call.h"
#include "korv/system/child_process.h"
#include "korv/system/external_share.h"
#include "tests/unit/korv/external_disk_fixture.h"

namespace {

namespace fs = std::filesystem;
using korv::ExternalDiskKind;
using korv::PartitionState;

using Texts = std::vector<std::string>;

// As a worker runs while it answers a request: it may become root, but isn't.
class AsService {
public:
    AsService() { EXPECT_EQ(seteuid(kService), 0); }
    ~AsService() { EXPECT_EQ(seteuid(0), 0); }
    AsService(const AsService&) = delete;
    AsService& operator=(const AsService&) = delete;
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

TEST_F(ExternalDiskTest, ADiskBehindAUsbDeviceIsOneWhateverItsBusIsCalled) {
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
