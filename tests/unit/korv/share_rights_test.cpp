#include "korv/system/share_rights.h"

#include <csignal>
#include <filesystem>
#include <fstream>

#include <sys/stat.h>
#include <sys/wait.h>

#include "korv/system/database.h"
#include "korv/system/share_creation.h"
#include "tests/unit/korv/private_machine.h"

namespace {

namespace fs = std::filesystem;

using korv::GrantStep;
using machine::Access;
using machine::AccessOf;

constexpr Access kNone{false, false};
constexpr Access kReads{true, false};
constexpr Access kWrites{true, true};

korv::ShareGrant ToUser(const std::string& name, bool isReadOnly = false) {
    return {false, name, isReadOnly};
}
korv::ShareGrant ToGroup(const std::string& name, bool isReadOnly = false) {
    return {true, name, isReadOnly};
}

class ShareRightsTest : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        korv::ShareRow wanted;
        wanted.name = "rec";
        wanted.volPath = machine::Volume();
        ASSERT_EQ(korv::CreateShare(wanted).end, korv::CreationEnd::kCreated);
        m_share = *korv::FindShare("rec");
        m_path = m_share.Path();
    }

    Access Alice() const { return AccessOf(machine::kAliceUid, {}, m_path); }
    Access Carol() const { return AccessOf(machine::kCarolUid, {machine::kStaffGid}, m_path); }
    Access Pavane() const { return AccessOf(machine::kPavaneUid, {}, m_path); }

    // Grants in a child that is killed after `step`.
    void GrantAndDieAfter(const std::vector<korv::ShareGrant>& grants, GrantStep step) {
        korv::CloseDatabase();
        const int status = machine::InChild([&] {
            korv::GrantShareRights(m_share, grants, [step](GrantStep done) {
                if (done == step) {
                    raise(SIGKILL);
                }
            });
            return 0;
        });
        ASSERT_TRUE(WIFSIGNALED(status));
    }

    korv::ShareRow m_share;
    std::string m_path;
};

TEST_F(ShareRightsTest, AreNobodysAtFirst) {
    EXPECT_EQ(Alice(), kNone);
    EXPECT_EQ(Pavane(), kNone);
}

TEST_F(ShareRightsTest, OfAUserAreGranted) {
    korv::GrantShareRights(m_share, {ToUser("Pavane"), ToUser("alice", true)});
    EXPECT_EQ(Pavane(), kWrites);
    EXPECT_EQ(Alice(), kReads);
    EXPECT_EQ(Carol(), kNone);
    EXPECT_TRUE(korv::ListShareGrants().empty());
}

TEST_F(ShareRightsTest, OfAGroupAreGrantedToItsMembers) {
    korv::GrantShareRights(m_share, {ToGroup("staff_test", true)});
    EXPECT_EQ(Carol(), kReads);
    EXPECT_EQ(Alice(), kNone);
    korv::GrantShareRights(m_share, {ToGroup("staff_test")});
    EXPECT_EQ(Carol(), kWrites);
}

TEST_F(ShareRightsTest, AreAddedAndNeverTaken) {
    korv::GrantShareRights(m_share, {ToUser("alice"), ToGroup("staff_test")});
    korv::GrantShareRights(m_share, {ToUser("alice", true), ToUser("carol", true), ToUser("Pavane")});
    EXPECT_EQ(Alice(), kWrites);
    EXPECT_EQ(Carol(), kWrites);
    EXPECT_EQ(Pavane(), kWrites);
    EXPECT_EQ(AccessOf(machine::kBossUid, {machine::kAdministratorsGid}, m_path), kWrites);
}

TEST_F(ShareRightsTest, SurviveAChmodOnceGrantedAgain) {
    korv::GrantShareRights(m_share, {ToUser("Pavane")});
    ASSERT_EQ(chmod(m_path.c_str(), 0700), 0);
    EXPECT_EQ(Pavane(), kNone);
    korv::GrantShareRights(m_share, {ToUser("Pavane")});
    EXPECT_EQ(Pavane(), kWrites);
}

TEST_F(ShareRightsTest, ReachWhatIsMadeInTheFolderLater) {
    korv::GrantShareRights(m_share, {ToUser("Pavane"), ToUser("alice", true)});
    const std::string inner = m_path + "/camera1";
    ASSERT_EQ(mkdir(inner.c_str(), 0777), 0);
    EXPECT_EQ(AccessOf(machine::kPavaneUid, {}, inner), kWrites);
    EXPECT_EQ(AccessOf(machine::kAliceUid, {}, inner), kReads);
    EXPECT_EQ(AccessOf(machine::kCarolUid, {}, inner), kNone);
    std::ofstream(inner + "/video") << "x";
    EXPECT_EQ(machine::InChild([&] {
                  machine::BecomeEffectively(machine::kPavaneUid, {});
                  return std::ofstream(inner + "/video", std::ios::app).is_open() ? 0 : 1;
              }),
              0);
}

TEST_F(ShareRightsTest, GrantedByManyProcessesAtOnceAreAllThere) {
    korv::CloseDatabase();
    const std::vector<std::string> users{"alice", "boss", "chief", "carol", "Pavane"};
    machine::InChildren(20, [&](int i) {
        korv::GrantShareRights(m_share, {ToUser(users[static_cast<std::size_t>(i) % users.size()])});
        return 0;
    });
    for (const unsigned uid : {machine::kAliceUid, machine::kBossUid, machine::kChiefUid, machine::kCarolUid,
                               machine::kPavaneUid}) {
        EXPECT_EQ(AccessOf(uid, {}, m_path), kWrites) << uid;
    }
}

TEST_F(ShareRightsTest, HalfGrantedByAProcessThatDiedAreGrantedByTheNext) {
    for (const GrantStep step : {GrantStep::kJournalled, GrantStep::kApplied}) {
        GrantAndDieAfter({ToUser("Pavane"), ToGroup("staff_test", true)}, step);
        EXPECT_EQ(korv::ListShareGrants().size(), 2U);
        EXPECT_TRUE(korv::RecoverShareGrants({m_share.volPath}).empty());
        korv::CloseDatabase();
        EXPECT_EQ(Pavane(), kWrites);
        EXPECT_EQ(Carol(), kReads);
        EXPECT_TRUE(korv::ListShareGrants().empty());
        ASSERT_EQ(chmod(m_path.c_str(), 0700), 0);
    }
}

TEST_F(ShareRightsTest, OfAFolderThatIsGoneAreAFailureAndLeaveNothingToDo) {
    fs::remove(m_path);
    EXPECT_THROW(korv::GrantShareRights(m_share, {ToUser("Pavane")}), std::system_error);
    EXPECT_TRUE(korv::ListShareGrants().empty());
    GrantAndDieAfter({ToUser("Pavane")}, GrantStep::kJournalled);
    EXPECT_TRUE(korv::RecoverShareGrants({m_share.volPath}).empty());
    EXPECT_TRUE(korv::ListShareGrants().empty());
}

TEST_F(ShareRightsTest, HalfGrantedOnWhatIsNoVolumeAnyMoreAreDropped) {
    GrantAndDieAfter({ToUser("Pavane")}, GrantStep::kJournalled);
    EXPECT_TRUE(korv::RecoverShareGrants({"/elsewhere"}).empty());
    EXPECT_TRUE(korv::ListShareGrants().empty());
    EXPECT_EQ(Pavane(), kNone);
}

TEST_F(ShareRightsTest, NeverFollowALinkThatTookTheFoldersPlace) {
    fs::remove(m_path);
    const std::string elsewhere = machine::Volume() + "/elsewhere";
    fs::create_directory(elsewhere);
    ASSERT_EQ(chmod(elsewhere.c_str(), 0700), 0);
    fs::create_symlink(elsewhere, m_path);
    EXPECT_THROW(korv::GrantShareRights(m_share, {ToUser("alice")}), std::system_error);
    EXPECT_EQ(AccessOf(machine::kAliceUid, {}, elsewhere), kNone);
}

}  // namespace
