#include "tests/unit/korv/moved_share.h"

#include <filesystem>
#include <fstream>
#include <iterator>

#include <sys/mman.h>
#include <sys/mount.h>

namespace fs = std::filesystem;

using korv::CipherState;
using korv::MoveState;

std::string NameOf(const testing::TestParamInfo<Direction>& direction) {
    return direction.param == Direction::kToCipher ? "Cipher" : "Plain";
}

korv::MoveLimits ShareMove::Limits() {
    korv::MoveLimits limits;
    limits.saveInterval = std::chrono::milliseconds(0);
    limits.followPatience = std::chrono::milliseconds(0);
    limits.spare_bytes = 0;
    return limits;
}

void ShareMove::SetUp() {
    MachineTest::SetUp();
    m_journal = static_cast<Journal*>(
        mmap(nullptr, sizeof(Journal), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    *m_journal = Journal();
}

void ShareMove::TearDown() {
    munmap(m_journal, sizeof(Journal));
    Unmount(m_share);
    Unmount(m_volume + "/.korv/view/token");
    MachineTest::TearDown();
}

void ShareMove::Unmount(const std::string& path) {
    while (umount2(path.c_str(), MNT_DETACH) == 0) {
    }
}

void ShareMove::MakeShare(int files) {
    fs::create_directories(m_share);
    if (GetParam() == Direction::kToPlain) {
        ASSERT_EQ(m_cipher.Init(kPassword), korv::CipherEnd::kDone);
        ASSERT_EQ(m_cipher.Mount(kPassword), korv::CipherEnd::kDone);
    }
    manifest::MakeTree(m_share, files);
    m_before = manifest::Of(m_share);
}

korv::MoveResult ShareMove::Run(const Saved& saved, const Wish& wish, const std::string& password) {
    if (GetParam() == Direction::kToCipher) {
        korv::EncryptPlaces places(m_volume, "rec", kToken, password);
        return RunIn(places, saved, wish);
    }
    korv::DecryptPlaces places(m_volume, "rec", kToken);
    return RunIn(places, saved, wish);
}

korv::MoveResult ShareMove::RunIn(korv::MovePlaces& places, const Saved& saved, const Wish& wish) {
    const auto save = [this, saved](const MoveState& state) {
        m_journal->state = state;
        ++m_journal->saves;
        if (saved) {
            saved(state);
        }
    };
    return korv::RunMove(places, m_journal->state, {save, wish, m_sendAway}, Limits());
}

void ShareMove::ExpectMoved() {
    const bool isCipher = GetParam() == Direction::kToCipher;
    EXPECT_EQ(m_cipher.State(), isCipher ? CipherState::kUnlocked : CipherState::kAbsent);
    EXPECT_EQ(manifest::Difference(m_before, manifest::Of(m_share)), "");
    EXPECT_TRUE(machine::Entries(m_volume + "/.korv/move").empty());
    EXPECT_TRUE(machine::Entries(m_volume + "/.korv/view").empty());
    EXPECT_EQ(m_journal->state.Percent(), 100);
    Unmount(m_share);
    EXPECT_EQ(fs::is_empty(m_share), isCipher);
    EXPECT_TRUE(fs::create_directory(m_share + "/unguarded"));
    fs::remove(m_share + "/unguarded");
}

void ShareMove::ExpectUntouched() {
    EXPECT_EQ(manifest::Difference(m_before, manifest::Of(m_share)), "");
    EXPECT_EQ(m_cipher.State(),
              GetParam() == Direction::kToCipher ? CipherState::kAbsent : CipherState::kUnlocked);
    if (fs::exists(m_volume + "/.korv/move")) {
        EXPECT_TRUE(machine::Entries(m_volume + "/.korv/move").empty());
        EXPECT_TRUE(machine::Entries(m_volume + "/.korv/view").empty());
    }
}

std::string ShareMove::Text(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}
