#include "platform/pavane/rec_share.h"

#include <cstdint>
#include <limits>
#include <string>

#include "platform/pavane/shared_folder_storage.h"

#include "tests/unit/pavane/test_node.h"

namespace {

RecShare MakeShare(int owner, const std::string& name) {
    RecShare share;
    share.SetName(name);
    share.SetPath("/volume1/" + name);
    share.SetVolume("volume1");
    share.SetOwnerRvId(owner);
    return share;
}

class RecShareStore : public StoreTest {};

}  // namespace

TEST_F(RecShareStore, AFreshRecordDescribesALocalShareWithoutLimit) {
    const RecShare share;
    EXPECT_EQ(share.GetId(), 0);
    EXPECT_EQ(share.GetMountType(), SHARE_MOUNT_LOCAL);
    EXPECT_EQ(share.GetMountSource(), "");
    EXPECT_FALSE(share.GetAutoMount());
    EXPECT_FALSE(share.IsEnableRecLimit());
}

TEST_F(RecShareStore, SaveKeepsEveryField) {
    RecShare share = MakeShare(3, "rec'o\"r\\d; drop table camera; -- %_\n\xC3\xA4");
    share.SetIdOnRec(77);
    share.SetDescription(":name ? $1 {{id}}");
    share.SetHidden(true);
    share.SetEncType(SHARE_ENC_UNLOCKED);
    share.SetFsType(FSTYPE_BTRFS);
    share.SetMountType(SHARE_MOUNT_CIFS);
    share.SetMountSource("//nas/rec");
    share.SetAutoMount(true);
    share.SetMigrating(true);
    share.SetRecLimitGB(250);
    share.EnableRecLimit(true);
    share.SetTotalSizeMB(std::numeric_limits<std::uint64_t>::max() - 1);
    ASSERT_EQ(share.Save(), 0);
    ASSERT_GT(share.GetId(), 0);

    RecShare loaded;
    ASSERT_EQ(loaded.Load(share.GetId()), 0);
    EXPECT_EQ(loaded.GetId(), share.GetId());
    EXPECT_EQ(loaded.GetIdOnRec(), 77);
    EXPECT_EQ(loaded.GetOwnerRvId(), 3);
    EXPECT_EQ(loaded.GetName(), share.GetName());
    EXPECT_EQ(loaded.GetPath(), share.GetPath());
    EXPECT_EQ(loaded.GetVolume(), "volume1");
    EXPECT_EQ(loaded.GetDescription(), ":name ? $1 {{id}}");
    EXPECT_TRUE(loaded.GetHidden());
    EXPECT_EQ(loaded.GetEncType(), SHARE_ENC_UNLOCKED);
    EXPECT_EQ(loaded.GetFsType(), FSTYPE_BTRFS);
    EXPECT_EQ(loaded.GetMountType(), SHARE_MOUNT_CIFS);
    EXPECT_EQ(loaded.GetMountSource(), "//nas/rec");
    EXPECT_TRUE(loaded.GetAutoMount());
    EXPECT_TRUE(loaded.GetMigrating());
    EXPECT_EQ(loaded.GetRecLimitGB(), 250);
    EXPECT_TRUE(loaded.IsEnableRecLimit());
    EXPECT_EQ(loaded.GetTotalSizeMB(), std::numeric_limits<std::uint64_t>::max() - 1);
}

TEST_F(RecShareStore, ASecondSaveUpdatesTheSameRecord) {
    RecShare share = MakeShare(0, "rec");
    ASSERT_EQ(share.Save(), 0);
    const int id = share.GetId();
    share.SetDescription("changed");
    ASSERT_EQ(share.Save(), 0);
    EXPECT_EQ(share.GetId(), id);
    ASSERT_EQ(LoadRecShareFromDB(0).size(), 1U);
    EXPECT_EQ(LoadRecShareFromDB(0).front().GetDescription(), "changed");
}

TEST_F(RecShareStore, TheSamePathOfTheSameOwnerIsRefusedAndChangesNothing) {
    RecShare first = MakeShare(0, "rec");
    first.SetDescription("first");
    ASSERT_EQ(first.Save(), 0);
    RecShare second = MakeShare(0, "rec");
    EXPECT_NE(second.Save(), 0);
    EXPECT_EQ(second.GetId(), 0);
    RecShare ofAnother = MakeShare(1, "rec");
    EXPECT_EQ(ofAnother.Save(), 0);
    EXPECT_EQ(LoadRecShareFromDB(0).front().GetDescription(), "first");
    EXPECT_EQ(LoadRecShareFromDB(0).size(), 2U);
}

TEST_F(RecShareStore, TrailingSlashesOfAPathAreNotKept) {
    RecShare share;
    share.SetPath("/volume1/rec/nas//");
    EXPECT_EQ(share.GetPath(), "/volume1/rec/nas");
    ASSERT_EQ(share.Save(), 0);
    RecShare found;
    ASSERT_EQ(found.LoadByPath("/volume1/rec/nas/", 0), 0);
    EXPECT_EQ(found.GetId(), share.GetId());
    RecShare second = MakeShare(0, "rec/nas/");
    EXPECT_NE(second.Save(), 0) << "it is the same folder";
}

TEST_F(RecShareStore, AnUpdateOfARemovedRecordFails) {
    RecShare share = MakeShare(0, "rec");
    ASSERT_EQ(share.Save(), 0);
    Session() << "delete from recording_share";
    EXPECT_EQ(share.Save(), -1);
    EXPECT_TRUE(LoadRecShareFromDB(0).empty());
}

TEST_F(RecShareStore, ATextWithANulIsRefused) {
    RecShare share = MakeShare(0, std::string("re\0c", 4));
    EXPECT_EQ(share.Save(), -1);
    EXPECT_TRUE(LoadRecShareFromDB(0).empty());
}

TEST_F(RecShareStore, LoadLeavesTheRecordAloneWhenThereIsNone) {
    RecShare share = MakeShare(4, "kept");
    EXPECT_EQ(share.Load(12345), -1);
    EXPECT_EQ(share.LoadByIdOnRec(9, 4), -1);
    EXPECT_EQ(share.GetName(), "kept");
}

TEST_F(RecShareStore, LoadByIdOnRecTellsOwnersApart) {
    RecShare ofTwo = MakeShare(2, "two");
    ofTwo.SetIdOnRec(5);
    ASSERT_EQ(ofTwo.Save(), 0);
    RecShare ofThree = MakeShare(3, "three");
    ofThree.SetIdOnRec(5);
    ASSERT_EQ(ofThree.Save(), 0);
    RecShare loaded;
    ASSERT_EQ(loaded.LoadByIdOnRec(5, 3), 0);
    EXPECT_EQ(loaded.GetName(), "three");
}

TEST_F(RecShareStore, TheListOfOneServerHoldsItsOwnAndTheListOfZeroHoldsAll) {
    for (const int owner : {2, 0, 2}) {
        RecShare share = MakeShare(owner, "rec" + std::to_string(LoadRecShareFromDB(0).size()));
        ASSERT_EQ(share.Save(), 0);
    }
    ASSERT_EQ(LoadRecShareFromDB(0).size(), 3U);
    ASSERT_EQ(LoadRecShareFromDB(2).size(), 2U);
    EXPECT_EQ(LoadRecShareFromDB(2).front().GetName(), "rec0");
    EXPECT_EQ(LoadRecShareFromDB(2).back().GetName(), "rec2");
    EXPECT_TRUE(LoadRecShareFromDB(9).empty());
}

TEST_F(RecShareStore, PathsAreThoseOfOneOwner) {
    RecShare own = MakeShare(0, "own");
    RecShare other = MakeShare(1, "other");
    ASSERT_EQ(own.Save(), 0);
    ASSERT_EQ(other.Save(), 0);
    EXPECT_EQ(LoadRecSharePath(0), std::list<std::string>{"/volume1/own"});
    EXPECT_EQ(LoadRecSharePath(1), std::list<std::string>{"/volume1/other"});
}

TEST_F(RecShareStore, ManyWritersAtOnceAllSucceedAndOfOneNameExactlyOne) {
    constexpr int kWriters = 12;
    EXPECT_EQ(
        CountSuccesses(kWriters, [](int i) { return MakeShare(0, "r" + std::to_string(i)).Save() == 0; }),
        kWriters);
    EXPECT_EQ(CountSuccesses(kWriters, [](int) { return MakeShare(0, "same").Save() == 0; }), 1);
    EXPECT_EQ(LoadRecShareFromDB(0).size(), kWriters + 1U);
}

TEST_F(RecShareStore, AForkedProcessLeavesItsParentsConnectionUsable) {
    RecShare share = MakeShare(0, "rec");
    ASSERT_EQ(share.Save(), 0);
    EXPECT_EQ(CountSuccesses(3, [](int) { return LoadRecShareFromDB(0).size() == 1; }), 3);
    share.SetDescription("after the fork");
    EXPECT_EQ(share.Save(), 0);
}

TEST_F(RecShareStore, AfterALostConnectionSavesSucceedAgain) {
    if (IsSqlite()) {
        GTEST_SKIP() << "SQLite has no connection to lose";
    }
    int backend = 0;
    Session() << "select pg_backend_pid()", soci::into(backend);
    const auto terminate = [backend](int) {
        int ended = 0;
        pavane::AppDatabase().Session() << "select case when pg_terminate_backend(:id) then 1 else 0 end",
            soci::into(ended), soci::use(backend);
        return ended == 1;
    };
    ASSERT_EQ(CountSuccesses(1, terminate), 1);
    RecShare share = MakeShare(0, "rec");
    EXPECT_TRUE(WaitUntil([&share] { return share.Save() == 0; }));
    EXPECT_EQ(LoadRecShareFromDB(0).size(), 1U);
}

TEST_F(RecShareStore, SharedFolderStorageReadsItsTable) {
    Session() << "insert into shared_folder_storage (name, share_id, application_id) values ('a''b', 7, 9)";
    Session() << "insert into shared_folder_storage (name) values ('bare')";
    std::list<SharedFolderStorage> rows(1);
    ASSERT_EQ(SharedFolderStorage::m_DBAccess.Enum(rows, " WHERE share_id = 7", "", ""), 0);
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows.front().name, "a'b");
    EXPECT_EQ(rows.front().shareId, 7);
    EXPECT_EQ(rows.front().applicationId, 9);
    ASSERT_EQ(SharedFolderStorage::m_DBAccess.Enum(rows, "", " ORDER BY name DESC", " LIMIT 1"), 0);
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows.front().name, "bare");
    EXPECT_EQ(rows.front().shareId, 0);
}

TEST_F(RecShareStore, SharedFolderStorageKeepsTheListWhenTheStatementFails) {
    std::list<SharedFolderStorage> rows(2);
    EXPECT_NE(SharedFolderStorage::m_DBAccess.Enum(rows, " WHERE no_such_column = 1", "", ""), 0);
    EXPECT_EQ(rows.size(), 2U);
}
