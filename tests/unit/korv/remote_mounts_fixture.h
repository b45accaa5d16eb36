#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <sys/mount.h>

#include "korv/system/child_process.h"
#include "korv/system/remote_mounts.h"
#include "korv/system/share_creation.h"
#include "korv/system/share_rights.h"
#include "tests/unit/korv/private_machine.h"
#include "tests/unit/korv/samba_server.h"

inline const korv::MountCaller kAdmin{"admin", true};

// False when it doesn't come true within 20 s.
inline bool WaitFor(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

// Mounts of a real Samba's folder, made in the share "video".
class RemoteMounts : public MachineTest {
protected:
    static void SetUpTestSuite() {
        s_server = std::make_unique<SambaServer>(std::filesystem::path(machine::StateFolder()).parent_path() /
                                                 "samba");
    }
    static void TearDownTestSuite() { s_server.reset(); }

    void SetUp() override {
        MachineTest::SetUp();
        korv::ShareRow share;
        share.name = "video";
        share.volPath = machine::Volume();
        ASSERT_EQ(korv::CreateShare(share).end, korv::CreationEnd::kCreated);
        korv::GrantShareRights(*korv::FindShare("video"), {{false, "alice", false}});
        std::ofstream(s_server->DataFolder() + "/seen") << "from the server";
    }

    void TearDown() override {
        for (const auto& row : korv::ListMountRows()) {
            umount2(row.mountPoint.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW);
            korv::RemoveMount(row.mountPoint, kAdmin);
        }
        umount2(Point().c_str(), MNT_DETACH | UMOUNT_NOFOLLOW);
        korv::RunProgram("/usr/bin/chattr", {"-R", "-i", machine::Volume()}, std::chrono::seconds(5));
        MachineTest::TearDown();
    }

    static std::string Point() { return machine::Volume() + "/video/nas"; }

    static korv::NewMount Wanted() {
        korv::NewMount wanted;
        wanted.source = "//127.0.0.1/data";
        wanted.mountPoint = Point();
        wanted.account = {SambaServer::kAccount, SambaServer::kPassword};
        wanted.options = "port=" + std::to_string(SambaServer::kPort);
        return wanted;
    }

    static korv::MountFailure Refused(const korv::NewMount& wanted,
                                      const korv::MountCaller& caller = kAdmin) {
        const std::string before = std::to_string(korv::ListMountRows().size());
        const korv::MountEnd end = korv::AddMount(wanted, caller);
        EXPECT_EQ(before, std::to_string(korv::ListMountRows().size())) << "a failed mount left a row";
        return end.failure;
    }

    static inline std::unique_ptr<SambaServer> s_server;
};
