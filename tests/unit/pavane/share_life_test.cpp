// What the application's store does when recording shares are renamed and deleted.

#include <filesystem>
#include <list>
#include <numeric>
#include <string>
#include <vector>

#include "platform/pavane/rec_share.h"
#include "platform/pavane/services.h"
#include "platform/pavane/shared_folder_storage.h"

#include "korv/system/database.h"
#include "korv/system/share_store.h"
#include "pavane/recorder/application_store.h"
#include "pavane/recorder/archive_store.h"
#include "pavane/recorder/backup_folders.h"
#include "pavane/recorder/camera_store.h"
#include "pavane/recorder/service_links.h"
#include "pavane/recorder/share_state.h"
#include "pavane/store/settings_table.h"
#include "tests/unit/pavane/test_node.h"

namespace {

namespace fs = std::filesystem;

class ShareLife : public StoreTest {
protected:
    ShareLife() {
        fs::remove_all(Links());
        korv::Database() << "delete from share";
    }
    // Other tests fork.
    ~ShareLife() override { korv::CloseDatabase(); }

    static std::string Links() { return TestNode::Instance().StateDir() + "/links"; }

    static RecShare Saved(const std::string& name, int owner = 0) {
        RecShare share;
        share.SetName(name);
        share.SetPath("/volume1/" + name);
        share.SetVolume("volume1");
        share.SetOwnerRvId(owner);
        EXPECT_EQ(share.Save(), 0);
        return share;
    }

    static int Rename(RecShare share, const std::string& name) {
        share.SetName(name);
        share.SetPath("/volume1/" + name);
        return share.Save();
    }

    static std::list<std::string> CameraPaths() {
        std::list<std::string> paths;
        for (const pavane::CameraRecord& camera : pavane::ListCameras(0, 100).cameras) {
            paths.push_back(camera.recordingPath);
        }
        return paths;
    }

    // A shared folder, with the name that it had before.
    static void MakeFolder(const std::string& former, const std::string& name) {
        korv::WriteTransaction transaction(korv::Database());
        korv::ShareRow folder;
        folder.name = former;
        folder.volPath = "/volume1";
        folder.token = former + name;
        korv::AddShare(folder);
        folder.name = name;
        folder.description = "seen by all";
        folder.isHidden = true;
        korv::SaveShareFacts(folder);
        transaction.Commit();
    }

    static RecShare Loaded(const RecShare& share) {
        RecShare loaded;
        EXPECT_EQ(loaded.Load(share.GetId()), 0);
        return loaded;
    }

    int Count(const std::string& table) {
        int count = -1;
        Session() << "select count(*) from " << table, soci::into(count);
        return count;
    }
};

}  // namespace

TEST_F(ShareLife, ARenameTakesTheCamerasOfItsOwnerAlong) {
    const RecShare share = Saved("räc");
    Saved("räc", 2);
    std::vector<pavane::CameraRecord> cameras{{0, 0, "a", "/volume1/räc/a/b", 0},
                                              {0, 0, "b", "/volume1/räc2/b", 0},
                                              {0, 2, "c", "/volume1/räc/c", 0},
                                              {0, 0, "d", "", 0},
                                              {0, 0, "e", "/volume1/Räc/e", 0}};
    pavane::ImportCameras(cameras);
    ASSERT_EQ(Rename(share, "it's %_"), 0);
    EXPECT_EQ(CameraPaths(), (std::list<std::string>{"/volume1/it's %_/a/b", "/volume1/räc2/b",
                                                     "/volume1/räc/c", "", "/volume1/Räc/e"}));
    EXPECT_EQ(pavane::ListCamerasOfShare(share.GetId()).size(), 1U);
}

TEST_F(ShareLife, ARenameTakesAlongWhatElseNamesTheFolder) {
    const RecShare share = Saved("rec");
    pavane::SaveArchiveTask({0, "", "whole", 1, "/volume1/rec"});
    pavane::SaveArchiveTask({0, "", "part", 1, "/volume1/rec/door"});
    pavane::SaveArchiveTask({0, "", "beside", 1, "/volume1/rec2"});
    pavane::SaveArchiveTask({0, "elsewhere", "whole", 1, "/volume1/rec"});
    pavane::SetSetting("snapshot_share", "/volume1/rec");
    UpdateBackupInfo({"rec", "new", "beside"}, {});
    Session() << "insert into shared_folder_storage (name, share_id, application_id) values ('rec', 1, 2),"
                 " ('rec', 1, 3), ('new', 1, 3), ('new', 1, 4)";
    ASSERT_EQ(Rename(share, "new"), 0);

    std::list<std::string> paths;
    for (const pavane::ArchiveTask& task : pavane::ListArchiveTasks("", 0)) {
        paths.push_back(task.storagePath);
    }
    EXPECT_EQ(paths, (std::list<std::string>{"/volume1/new", "/volume1/new/door", "/volume1/rec2"}));
    EXPECT_EQ(pavane::ListArchiveTasks("elsewhere", 0).front().storagePath, "/volume1/rec");
    EXPECT_EQ(GetSnapshotSharePath(false), "/volume1/new");
    std::list<std::string> folders;
    for (const pavane::BackupFolder& folder : pavane::ListBackupFolders()) {
        folders.push_back(folder.name);
    }
    EXPECT_EQ(folders, (std::list<std::string>{"beside", "new"}));
    std::string used;
    for (const pavane::ApplicationStorage& row : pavane::ListApplicationStorage(0, 10).rows) {
        used += row.name + std::to_string(row.applicationId) + " ";
    }
    EXPECT_EQ(used, "new2 new3 new4 ");
}

TEST_F(ShareLife, ARenameTakesTheRemoteSharesInItAlong) {
    const RecShare share = Saved("räc");
    const std::list<RecShare> inside{Saved("räc/nas"), Saved("räc/nas/deep"), Saved("räc/taken")};
    const std::list<RecShare> others{Saved("räc2/nas"), Saved("Räc/nas"), Saved("räc/nas", 2),
                                     Saved("new/taken"), Saved("new/nas", 2)};
    ASSERT_EQ(Rename(share, "new"), 0);
    const auto path = [](const RecShare& before) {
        RecShare now;
        EXPECT_EQ(now.Load(before.GetId()), 0);
        return now.GetPath();
    };
    std::list<std::string> paths;
    for (const RecShare& each : inside) {
        paths.push_back(path(each));
    }
    EXPECT_EQ(paths,
              (std::list<std::string>{"/volume1/new/nas", "/volume1/new/nas/deep", "/volume1/räc/taken"}));
    for (const RecShare& each : others) {
        EXPECT_EQ(path(each), each.GetPath());
    }
}

// Who edits a share has the links updated before the record says its new name.
TEST_F(ShareLife, ARenameTakesTheServiceLinkAlong) {
    const RecShare share = Saved("rec");
    CheckToUpdatePVServiceLink("rec");
    CheckToUpdatePVServiceLink(std::list<std::string>{"rec", "new"});
    ASSERT_EQ(Rename(share, "new"), 0);
    const std::list<pavane::ServiceLink> links = pavane::ListServiceLinks();
    ASSERT_EQ(links.size(), 1U);
    EXPECT_EQ(links.front().name, "new");
    EXPECT_EQ(links.front().path, "/volume1/new");
    EXPECT_TRUE(links.front().inPlace);
    EXPECT_FALSE(fs::is_symlink(Links() + "/rec"));
}

TEST_F(ShareLife, ARenameOntoAnotherSharesFolderChangesNothing) {
    const RecShare share = Saved("rec");
    Saved("taken");
    std::vector<pavane::CameraRecord> cameras{{0, 0, "a", "/volume1/rec/a", 0}};
    pavane::ImportCameras(cameras);
    EXPECT_NE(Rename(share, "taken"), 0);
    EXPECT_EQ(CameraPaths(), std::list<std::string>{"/volume1/rec/a"});
    RecShare kept;
    ASSERT_EQ(kept.Load(share.GetId()), 0);
    EXPECT_EQ(kept.GetName(), "rec");
}

TEST_F(ShareLife, ARecordFollowsItsFolderWhenItMissedTheRename) {
    MakeFolder("old", "young");
    RecShare share = Saved("old");
    share.SetRecLimitGB(7);
    ASSERT_EQ(share.Save(), 0);
    const RecShare theirs = Saved("old", 2);
    std::vector<pavane::CameraRecord> cameras{{0, 0, "a", "/volume1/old/a", 0}};
    pavane::ImportCameras(cameras);
    CheckToUpdatePVServiceLink("old");

    LoadRecShareFromDB(0);
    const RecShare followed = Loaded(share);
    EXPECT_EQ(followed.GetName(), "young");
    EXPECT_EQ(followed.GetPath(), "/volume1/young");
    EXPECT_EQ(followed.GetDescription(), "seen by all");
    EXPECT_TRUE(followed.GetHidden());
    EXPECT_EQ(followed.GetRecLimitGB(), 7);
    EXPECT_EQ(CameraPaths(), std::list<std::string>{"/volume1/young/a"});
    EXPECT_EQ(pavane::ListServiceLinks().front().path, "/volume1/young");
    EXPECT_EQ(Loaded(theirs).GetPath(), "/volume1/old") << "that one's folder is on another server";
    EXPECT_FALSE(pavane::RefreshShareStates()) << "once is enough";
}

TEST_F(ShareLife, ARecordDoesNotFollowToAnotherRecordsFolder) {
    MakeFolder("was", "is");
    const RecShare stale = Saved("was");
    const RecShare right = Saved("is");
    EXPECT_FALSE(pavane::RefreshShareStates());
    EXPECT_EQ(Loaded(stale).GetPath(), "/volume1/was");
    EXPECT_EQ(Loaded(right).GetPath(), "/volume1/is");
}

TEST_F(ShareLife, ARecordOfAFolderThatWasMadeAnewStays) {
    MakeFolder("first", "second");
    MakeFolder("first", "first");
    const RecShare share = Saved("first");
    EXPECT_FALSE(pavane::RefreshShareStates());
    EXPECT_EQ(Loaded(share).GetPath(), "/volume1/first");
}

TEST_F(ShareLife, TenThousandRecordsAreDeletedAtOnceWithTheirLinks) {
    constexpr int kShares = 10000;
    Session()
        << "insert into recording_share (id_on_rec, owner_rv_id, name, path, volume, description, hidden,"
           " enc_type, fs_type, mount_type, mount_source, mount_status, auto_mount, migrating,"
           " rec_limit_gb, enable_rec_limit, total_size_mb)"
           " with recursive n(i) as (select 1 union all select i + 1 from n where i < 10001)"
           " select 0, 0, 'rec' || i, '/volume1/rec' || i, 'volume1', '', 0, 0, 1, 0, '', 0, 0, 0, 100, 0,"
           " 0 from n";
    Session() << "insert into service_link (name, share_id) select name, id from recording_share";
    int first = 0;
    Session() << "select min(id) from recording_share", soci::into(first);
    std::list<int> ids(kShares);
    std::iota(ids.begin(), ids.end(), first);
    ids.push_back(-1);
    ids.push_back(first);
    EXPECT_EQ(DelRecShareById(ids), 0);
    EXPECT_EQ(Count("recording_share"), 1);
    EXPECT_EQ(Count("service_link"), 1);
    EXPECT_EQ(DelRecShareById({}), 0);
    EXPECT_EQ(Count("recording_share"), 1);
}

TEST_F(ShareLife, TheSnapshotShareIsChosenOnceAndForgottenWhenDeleted) {
    EXPECT_EQ(GetSnapshotSharePath(true), "");
    Saved("theirs", 2);
    EXPECT_EQ(GetSnapshotSharePath(true), "");
    Saved("b");
    EXPECT_EQ(GetSnapshotSharePath(false), "");
    EXPECT_EQ(GetSnapshotSharePath(true), "/volume1/b");
    Saved("a");
    EXPECT_EQ(GetSnapshotSharePath(true), "/volume1/b");
    EXPECT_EQ(HandleSnapshotShareDelete(), 0);
    EXPECT_EQ(GetSnapshotSharePath(false), "");
}
