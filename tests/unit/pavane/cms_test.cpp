#include "platform/pavane/cms.h"

#include <list>
#include <stdexcept>
#include <string>

#include "pavane/store/settings_table.h"
#include "tests/unit/pavane/test_node.h"

namespace {

class Cms : public StoreTest {
protected:
    int AddServer(const std::string& serial, int enabled, RV_STATUS status, const std::string& more = "") {
        int id = 0;
        Session() << "insert into rec_server (serial, enabled, status" << (more.empty() ? "" : ", " + more)
                  << ") values (:serial, " << enabled << ", " << static_cast<int>(status)
                  << (more.empty() ? "" : ", 1") << ") returning id",
            soci::into(id), soci::use(serial);
        return id;
    }
};

using Ids = std::list<int>;

}  // namespace

TEST_F(Cms, AServerWithoutSettingsIsAlone) {
    EXPECT_FALSE(IsEnableCms());
    EXPECT_FALSE(IsCmsHost());
    EXPECT_FALSE(IsCmsPaired());
    EXPECT_EQ(GetRecServerOwnStatus(), 0);
}

TEST_F(Cms, TheRoleCountsOnlyWhileCentralManagementIsOn) {
    pavane::SetSetting("cms_role", "host");
    EXPECT_FALSE(IsCmsHost());
    pavane::SetSetting("cms_enabled", "1");
    EXPECT_TRUE(IsEnableCms());
    EXPECT_TRUE(IsCmsHost());
    EXPECT_FALSE(IsCmsPaired());
    pavane::SetSetting("cms_role", "rec_server");
    pavane::SetSetting("rec_server_status", "2");
    EXPECT_FALSE(IsCmsHost());
    EXPECT_FALSE(IsCmsPaired()) << "there is no pairing yet";
    Session()
        << "insert into cms_host (id, own_serial, address, pair_secret) values (1, 'S', 'http://h', 'x')";
    EXPECT_TRUE(IsCmsPaired());
    EXPECT_EQ(GetRecServerOwnStatus(), 2);
}

TEST_F(Cms, ARoleThatCannotBeReadIsNotTakenForNone) {
    pavane::SetSetting("cms_role", "rec_server");
    pavane::SetSetting("cms_enabled", "1");
    Session() << "alter table cms_host rename to cms_host_away";
    EXPECT_THROW(IsCmsPaired(), std::runtime_error);
    Session() << "alter table cms_host_away rename to cms_host";
    EXPECT_FALSE(IsCmsPaired());
    Session() << "alter table setting rename to setting_away";
    EXPECT_THROW(IsEnableCms(), std::runtime_error);
    EXPECT_THROW(IsCmsHost(), std::runtime_error);
    EXPECT_THROW(IsCmsPaired(), std::runtime_error);
    EXPECT_THROW(GetRecServerOwnStatus(), std::runtime_error);
    Session() << "alter table setting_away rename to setting";
    EXPECT_TRUE(IsEnableCms());
}

TEST_F(Cms, RecordingServersAreReadById) {
    const int first = AddServer("ser'1", 1, RV_STATUS_ONLINE);
    const int second = AddServer("ser2", 0, RV_STATUS_UNPAIRED);
    std::list<SlaveRV> all;
    ASSERT_EQ(SlaveRvGetList(all, 0), 0);
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all.front().GetId(), first);
    EXPECT_EQ(all.front().GetKey(), "ser'1");
    EXPECT_TRUE(all.front().GetEnable());
    EXPECT_EQ(all.front().GetStatus(), RV_STATUS_ONLINE);
    ASSERT_EQ(SlaveRvGetList(all, second), 0);
    ASSERT_EQ(all.size(), 1U);
    EXPECT_FALSE(all.front().GetEnable());
    EXPECT_EQ(all.front().GetStatus(), RV_STATUS_UNPAIRED);

    SlaveRV server;
    ASSERT_EQ(server.Load(second), 0);
    EXPECT_EQ(server.GetKey(), "ser2");
    EXPECT_EQ(server.Load(9999), -1);
    EXPECT_EQ(GetSlaveRVById(0, server), -1) << "0 is this server, not every one";
    EXPECT_EQ(server.GetKey(), "ser2");
}

TEST_F(Cms, EachFlagNarrowsTheChoiceOfServers) {
    const int online = AddServer("a", 1, RV_STATUS_ONLINE);
    const int disabled = AddServer("b", 0, RV_STATUS_ONLINE);
    const int offline = AddServer("c", 1, RV_STATUS_OFFLINE);
    const int standby = AddServer("d", 1, RV_STATUS_ONLINE, "standby");
    const int takenOver = AddServer("e", 1, RV_STATUS_ONLINE, "taken_over");
    Session() << "update rec_server set version = '" PAVANE_VERSION "' where id = " << offline;
    EXPECT_EQ(GetSlaveRvIdList(false, false, false, false, false),
              (Ids{online, disabled, offline, takenOver}));
    EXPECT_EQ(GetSlaveRvIdList(true, false, false, false, false), (Ids{online, offline, takenOver}));
    EXPECT_EQ(GetSlaveRvIdList(true, true, false, false, false), (Ids{online, takenOver}));
    EXPECT_EQ(GetSlaveRvIdList(true, true, true, false, false), (Ids{online, standby, takenOver}));
    EXPECT_EQ(GetSlaveRvIdList(true, true, false, true, false), (Ids{online}));
    EXPECT_EQ(GetSlaveRvIdList(false, false, true, false, true), (Ids{offline}));
}

TEST_F(Cms, OnlyAConnectedServerIsOnline) {
    EXPECT_TRUE(IsRvOnlineSts(RV_STATUS_ONLINE));
    EXPECT_FALSE(IsRvOnlineSts(RV_STATUS_OFFLINE));
    EXPECT_FALSE(IsRvOnlineSts(RV_STATUS_UNPAIRED));
    const int online = AddServer("a", 1, RV_STATUS_ONLINE);
    const int offline = AddServer("b", 1, RV_STATUS_OFFLINE);
    const int takenOver = AddServer("c", 1, RV_STATUS_ONLINE, "taken_over");
    // What was read a moment ago may still count.
    ASSERT_TRUE(WaitUntil([online] { return IsRvOnline(online); }));
    EXPECT_FALSE(IsRvOnline(offline));
    EXPECT_FALSE(IsRvOnline(0));
    EXPECT_FALSE(IsRunTimeFailoverRv(online));
    EXPECT_TRUE(IsRunTimeFailoverRv(takenOver));
    Session() << "update rec_server set status = 1, taken_over = 0";
    EXPECT_TRUE(WaitUntil([online] { return !IsRvOnline(online); }));
    EXPECT_FALSE(IsRunTimeFailoverRv(takenOver));
}
