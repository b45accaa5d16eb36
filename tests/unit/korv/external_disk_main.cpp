#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>

#include <gtest/gtest.h>
#include <sys/mount.h>

#include "tests/unit/korv/external_disk_fixture.h"

namespace {

constexpr const char* kConfiguration = "/tmp/korv.yaml";
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
