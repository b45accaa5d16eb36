#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mount.h>

#include "platform/korv/external_disk.h"

#include "korv/system/external_disk.h"
#include "korv/system/external_disk_register.h"
#include "korv/system/external_disk_state.h"
#include "korv/system/key_value_file.h"
#include "tests/unit/korv/pretended_disks.h"
#include "tests/unit/korv/silent_file_system.h"

inline constexpr const char* kPlace = "/tmp/place";
inline constexpr const char* kOtherPlace = "/tmp/other/place";
inline constexpr const char* kVolume = "/tmp/volume1";
inline constexpr const char* kHanging = "/tmp/hanging";
inline constexpr const char* kRegister = "/run/external-disks";
inline constexpr uid_t kService = 65534;
inline const PretendedDisks::Texts kDeclaredUsb{{"KORV_EXTERNAL_DISK", "usb"}};

// Disks that the device manager is made to believe in; nothing is noted about them yet.
class ExternalDiskTest : public testing::Test {
protected:
    void SetUp() override {
        while (umount2(korv::kDiskStateFile, MNT_DETACH) == 0) {
        }
        std::filesystem::remove(korv::kDiskStateFile);
        std::filesystem::remove(kRegister);
        std::filesystem::create_directory(kPlace);
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
        const std::filesystem::path file = disks.FileOf(name);
        std::filesystem::remove(file);
        std::filesystem::create_directory(kHanging);
        m_hanging.emplace(kHanging, SilentFileSystem::Silence::kEverything);
        std::filesystem::create_symlink(std::string(kHanging) + "/disk", file);
    }

    static std::vector<std::string> Names(korv::ExternalDiskKind kind) {
        std::vector<std::string> names;
        for (const korv::ExternalDisk& disk : korv::ListExternalDisks()) {
            if (disk.kind != kind) {
                continue;
            }
            names.push_back(disk.name + "/" + std::to_string(disk.number));
        }
        return names;
    }

    static std::vector<korv::ExternalPartition> Partitions(korv::ExternalDiskKind kind,
                                                           const std::string& name) {
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
