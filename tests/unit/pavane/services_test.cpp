#include "platform/pavane/services.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/pavane/rec_share.h"

#include "pavane/recorder/backup_folders.h"
#include "pavane/recorder/service_links.h"
#include "pavane/recorder/share_info.h"
#include "tests/unit/pavane/test_node.h"

namespace {

namespace fs = std::filesystem;

class Services : public StoreTest {
protected:
    Services() { fs::remove_all(Links()); }

    static std::string Links() { return TestNode::Instance().StateDir() + "/links"; }

    static void SaveShare(const std::string& name, int owner = 0) {
        RecShare share;
        share.SetName(name);
        share.SetPath("/volume1/" + name);
        share.SetOwnerRvId(owner);
        ASSERT_EQ(share.Save(), 0);
    }
};

}  // namespace

TEST_F(Services, ALinkLeadsToTheRecordingShareOfItsName) {
    SaveShare("rec \xC3\xA4'");
    CheckToUpdatePVServiceLink("rec \xC3\xA4'");
    EXPECT_EQ(fs::read_symlink(Links() + "/rec \xC3\xA4'"), "/volume1/rec \xC3\xA4'");
    const std::list<pavane::ServiceLink> links = pavane::ListServiceLinks();
    ASSERT_EQ(links.size(), 1U);
    EXPECT_EQ(links.front().path, "/volume1/rec \xC3\xA4'");
    EXPECT_TRUE(links.front().inPlace);
}

TEST_F(Services, ALinkThatLeadsElsewhereIsNoticedAndPutRight) {
    SaveShare("rec");
    fs::create_directory(Links());
    fs::create_symlink("/etc", Links() + "/rec");
    CheckToUpdatePVServiceLink("rec");
    EXPECT_EQ(fs::read_symlink(Links() + "/rec"), "/volume1/rec");
    fs::remove(Links() + "/rec");
    EXPECT_FALSE(pavane::ListServiceLinks().front().inPlace);
}

TEST_F(Services, ALinkGoesWithItsShare) {
    SaveShare("rec");
    CheckToUpdatePVServiceLink("rec");
    Session() << "delete from recording_share";
    CheckToUpdatePVServiceLink("rec");
    EXPECT_TRUE(pavane::ListServiceLinks().empty());
    EXPECT_TRUE(fs::is_empty(Links()));
}

TEST_F(Services, SharesOfOtherServersHaveNoLink) {
    SaveShare("theirs", 2);
    CheckToUpdatePVServiceLink("theirs");
    EXPECT_TRUE(fs::is_empty(Links()));
}

TEST_F(Services, NamesThatAreNotFolderNamesMakeNoLink) {
    for (const char* name : {"", ".", "..", "../up", "a/b", ".hidden", "new\nline"}) {
        CheckToUpdatePVServiceLink(name);
        EXPECT_FALSE(pavane::IsLinkName(name)) << name;
    }
    EXPECT_FALSE(pavane::IsLinkName(std::string(256, 'x')));
    EXPECT_TRUE(pavane::IsLinkName(std::string(255, 'x')));
    EXPECT_FALSE(fs::exists(Links()));
}

TEST_F(Services, ManyProcessesMayUpdateTheSameLink) {
    SaveShare("rec");
    EXPECT_EQ(CountSuccesses(8,
                             [](int) {
                                 CheckToUpdatePVServiceLink("rec");
                                 return fs::read_symlink(Links() + "/rec") == "/volume1/rec";
                             }),
              8);
    EXPECT_EQ(std::distance(fs::directory_iterator(Links()), fs::directory_iterator()), 1);
}

TEST_F(Services, BackupFoldersAreThoseAddedAndNotRemoved) {
    UpdateBackupInfo({"b", "a"}, {});
    UpdateBackupInfo({"a", "c"}, {"b", "never"});
    const std::list<pavane::BackupFolder> folders = pavane::ListBackupFolders();
    ASSERT_EQ(folders.size(), 2U);
    EXPECT_EQ(folders.front().name, "a");
    EXPECT_EQ(folders.back().name, "c");
    EXPECT_GT(folders.front().added_s, 1600000000);
}

TEST_F(Services, TheApplicationRunsUnlessItIsMarkedAsStopped) {
    const std::string mark = TestNode::Instance().RunDir() + "/pavane.stopped";
    EXPECT_TRUE(IsPVRunning());
    std::ofstream(mark) << "";
    EXPECT_FALSE(IsPVRunning());
    fs::remove(mark);
    EXPECT_TRUE(IsPVRunning());
}

TEST(ShareInfo, IsWhatTheShareServiceTells) {
    Json::Value answer;
    answer["success"] = true;
    Json::Value& share = answer["data"];
    share["name"] = "rec";
    share["fs_type"] = 2;
    share["vol_size_mb"] = Json::UInt64{5000000000U};
    share["is_share_moving"] = true;
    share["encryption"] = 1;
    Json::Value info;
    ASSERT_TRUE(pavane::ReadShareInfo(answer, info));
    EXPECT_EQ(info["fs_type"].asInt(), 2);
    EXPECT_EQ(info["vol_size_mb"].asUInt64(), 5000000000U);
    EXPECT_TRUE(info["is_share_moving"].asBool());
    EXPECT_EQ(info["encryption"].asInt(), 1);
    EXPECT_EQ(info.size(), 4U);

    Json::Value untouched = "before";
    for (const char* key : {"fs_type", "vol_size_mb", "is_share_moving", "encryption"}) {
        Json::Value incomplete = answer;
        incomplete["data"][key] = "x";
        EXPECT_FALSE(pavane::ReadShareInfo(incomplete, untouched)) << key;
    }
    answer["success"] = false;
    EXPECT_FALSE(pavane::ReadShareInfo(answer, untouched));
    EXPECT_FALSE(pavane::ReadShareInfo(Json::Value(), untouched));
    EXPECT_EQ(untouched.asString(), "before");
}

TEST_F(Services, AFolderThatTheShareServiceDoesNotKnowHasNoExtraInfo) {
    Json::Value info = "before";
    EXPECT_EQ(GetLocalShareExtraInfo("no such folder", info), -1);
    EXPECT_EQ(info.asString(), "before");
}
