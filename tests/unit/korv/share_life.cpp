#include "tests/unit/korv/share_life.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include <sys/mount.h>
#include <sys/wait.h>

#include "korv/system/database.h"
#include "korv/system/mount_table.h"
#include "korv/system/share_creation.h"

namespace {

constexpr const char* kContent = "a recording";

}  // namespace

void ShareLifeTest::TearDown() {
    UnmountAll(machine::Volume());
    MachineTest::TearDown();
}

void ShareLifeTest::UnmountAll(const std::string& folder) {
    for (const std::string& path : korv::MountsAtOrBeneath(korv::ReadMounts(), folder)) {
        if (path != folder) {
            umount2(path.c_str(), MNT_DETACH);
        }
    }
}

korv::ShareRow ShareLifeTest::Make(const std::string& name, bool isEncrypted, const std::string& volume) {
    korv::ShareRow share;
    share.name = name;
    share.volPath = volume;
    share.description = "Front door";
    share.encryption = isEncrypted ? korv::ShareEncryption::kLocked : korv::ShareEncryption::kNone;
    const auto outcome = korv::CreateShare(share, {}, isEncrypted ? kPassword : "");
    EXPECT_EQ(outcome.end, korv::CreationEnd::kCreated) << outcome.reason;
    std::filesystem::create_directory(share.Path() + "/cam1");
    std::ofstream(share.Path() + "/cam1/a.mp4") << kContent;
    return korv::FindShare(name).value_or(share);
}

bool ShareLifeTest::HasFile(const std::string& folder) {
    std::ifstream file(folder + "/cam1/a.mp4");
    std::string content;
    std::getline(file, content);
    return content == kContent;
}

void ShareLifeTest::Refuse(const std::string& what) {
    korv::Database() << "create trigger refused before " + what +
                            " begin select raise(abort, 'refused'); end";
}

void ShareLifeTest::Allow() { korv::Database() << "drop trigger refused"; }

bool ShareLifeTest::CanOthersWriteDuring(const std::function<void()>& work) {
    soci::session other;
    korv::OpenDatabase(other, machine::StateFolder() + "/korv.db");
    other << "pragma busy_timeout = 2000";
    std::atomic<bool> isOver{false};
    bool canWrite = true;
    std::thread writer([&] {
        while (!isOver && canWrite) {
            try {
                korv::WriteTransaction transaction(other);
            } catch (const soci::soci_error&) {
                canWrite = false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    work();
    isOver = true;
    writer.join();
    return canWrite;
}

void ShareLifeTest::ExpectKilled(const std::function<void()>& work) {
    korv::CloseDatabase();
    const int status = machine::InChild([&] {
        work();
        return 0;
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the step was never reached";
}
