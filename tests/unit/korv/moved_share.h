#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "korv/system/share_encryption.h"
#include "tests/unit/korv/private_machine.h"
#include "tests/unit/korv/tree_manifest.h"

// Tests that move a share's tree into encrypted files or out of them, the same for both directions.
enum class Direction { kToCipher, kToPlain };

// So that a test's name says which.
std::string NameOf(const testing::TestParamInfo<Direction>& direction);

class ShareMove : public MachineTest, public testing::WithParamInterface<Direction> {
protected:
    static constexpr const char* kPassword = "a secret";
    static constexpr const char* kToken = "token";

    // The state saved last, where a child's death doesn't take it away.
    struct Journal {
        korv::MoveState state;
        int saves = 0;
    };

    using Saved = std::function<void(const korv::MoveState&)>;
    using Wish = std::function<korv::MoveWish()>;

    void SetUp() override;
    void TearDown() override;

    // Takes away what is mounted there, however often.
    static void Unmount(const std::string& path);
    // Limits without patience and spare space.
    static korv::MoveLimits Limits();

    // The share with the test's tree in it, as it is before the move.
    void MakeShare(int files);

    // Runs the move from the journal's state on.
    korv::MoveResult Run(const Saved& saved = {}, const Wish& wish = {},
                         const std::string& password = kPassword);
    korv::MoveResult RunIn(korv::MovePlaces& places, const Saved& saved = {}, const Wish& wish = {});

    void ExpectMoved();
    void ExpectUntouched();

    static std::string Text(const std::string& path);

    std::string m_volume = machine::Volume();
    std::string m_share = m_volume + "/rec";
    korv::CipherFolder m_cipher{korv::CipherFolder::PathFor(m_volume, kToken), m_share};
    manifest::Manifest m_before;
    Journal* m_journal = nullptr;
    std::function<void()> m_sendAway;
};
