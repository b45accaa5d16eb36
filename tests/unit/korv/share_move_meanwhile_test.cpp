// What people and programs do to a share at the wrong moment of a move.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <sys/stat.h>
#include <sys/wait.h>

#include "korv/system/share_move.h"
#include "tests/unit/korv/moved_share.h"

namespace {

namespace fs = std::filesystem;

using korv::MoveEnd;
using korv::MoveState;
using korv::MoveStep;
using korv::MoveWish;

class MoveMeanwhile : public ShareMove {};
class EncryptionMeanwhile : public ShareMove {
protected:
    // The one entry beside `name` that is named after it.
    std::string NamedAfter(const std::string& name) const {
        const fs::path path = m_share + "/" + name;
        for (const auto& entry : fs::directory_iterator(path.parent_path())) {
            if (entry.path().filename().string().starts_with(path.filename().string() + ".")) {
                return entry.path();
            }
        }
        return "";
    }
};

// As a volume that is away.
class BlindPlaces : public korv::EncryptPlaces {
public:
    using EncryptPlaces::EncryptPlaces;
    bool HasSwitched() override {
        if (isBlind) {
            throw std::system_error(ENODEV, std::generic_category(), "nothing is mounted");
        }
        return EncryptPlaces::HasSwitched();
    }

    bool isBlind = false;
};

TEST_P(EncryptionMeanwhile, StaysAtTheSwitchWhileNobodyCanTellWhetherItWasDone) {
    MakeShare(5);
    BlindPlaces places(m_volume, "rec", kToken, kPassword);
    const auto result =
        RunIn(places, [&](const MoveState& state) { places.isBlind = state.step == MoveStep::kSwitch; });
    EXPECT_EQ(result.end, MoveEnd::kFailed);
    EXPECT_EQ(m_journal->state.step, MoveStep::kSwitch);
    EXPECT_EQ(Run().end, MoveEnd::kDone);
    ExpectMoved();
}

TEST_P(EncryptionMeanwhile, EndsWhereEncryptedFilesHaveNoPlace) {
    MakeShare(5);
    for (const std::string& inTheWay : {std::string("/.korv"), std::string("/.korv/cipher")}) {
        *m_journal = Journal();
        fs::remove_all(m_volume + "/.korv");
        fs::create_directories(fs::path(m_volume + inTheWay).parent_path());
        std::ofstream(m_volume + inTheWay) << "somebody's";
        const auto result = Run();
        EXPECT_EQ(result.end, MoveEnd::kFailed) << inTheWay;
        EXPECT_NE(result.reason, "") << inTheWay;
        EXPECT_EQ(m_journal->state.step, MoveStep::kUndone) << inTheWay;
        EXPECT_EQ(Text(m_volume + inTheWay), "somebody's");
        EXPECT_EQ(manifest::Difference(m_before, manifest::Of(m_share)), "");
    }
}

INSTANTIATE_TEST_SUITE_P(To, EncryptionMeanwhile, testing::Values(Direction::kToCipher), NameOf);

// A walk keeps only some folders open and finds the way up from deeper ones by what they lie in.
TEST_P(MoveMeanwhile, RepeatsAPassUnderWhichADeepFolderWasMovedAway) {
    constexpr int kLevels = 45;
    constexpr int kDeep = 38;
    MakeShare(3);
    for (const auto& entry : fs::directory_iterator(m_share)) {
        fs::remove_all(entry.path());
    }
    std::string path = m_share + "/chain";
    for (int level = 1; level < kLevels; ++level) {
        path += "/d";
    }
    fs::create_directories(path);
    std::ofstream(path + "/film") << "film";
    fs::create_directory(m_share + "/elsewhere");
    MoveStep step = MoveStep::kDone;
    int entries = 0;
    int moves = 0;
    const auto moveWhenDeep = [&] {
        if (m_journal->state.step != step) {
            step = m_journal->state.step;
            entries = 0;
        }
        if (entries < kDeep && step <= MoveStep::kCatchUp) {
            usleep(21'000);  // so that the next entry is asked for, too
            if (++entries == kDeep) {
                const bool isAway = fs::exists(m_share + "/elsewhere/chain");
                fs::rename(m_share + (isAway ? "/elsewhere/chain" : "/chain"),
                           m_share + (isAway ? "/chain" : "/elsewhere/chain"));
                m_before = manifest::Of(m_share);
                ++moves;
            }
        }
        return MoveWish::kGoOn;
    };
    const auto result = Run({}, moveWhenDeep);
    EXPECT_EQ(result.end, MoveEnd::kDone) << result.reason;
    EXPECT_GE(moves, 3);
    ExpectMoved();
}

INSTANTIATE_TEST_SUITE_P(To, MoveMeanwhile, testing::Values(Direction::kToCipher, Direction::kToPlain),
                         NameOf);

}  // namespace
