#include "platform/pavane/archive.h"

#include <exception>
#include <string>

#include "pavane/recorder/archive_store.h"
#include "tests/unit/pavane/test_node.h"

namespace {

class Archive : public StoreTest {};

}  // namespace

TEST_F(Archive, TasksOfThisServerAreGivenWithTheirPaths) {
    const int first = pavane::SaveArchiveTask({0, "", "nightly", 1, "/volume1/rec"});
    pavane::SaveArchiveTask({0, "other", "nightly", 1, "/volume1/else"});
    const int second = pavane::SaveArchiveTask({0, "", "weekly", 2, "/volume1/it's"});
    const Json::Value tasks = ArchPullApi::GetTasks("", ARCH_TASK_ALL);
    ASSERT_EQ(tasks.size(), 2U);
    EXPECT_EQ(tasks[0]["id"].asInt(), first);
    EXPECT_EQ(tasks[0]["name"].asString(), "nightly");
    EXPECT_EQ(tasks[0]["type"].asInt(), 1);
    EXPECT_EQ(tasks[0]["storagePath"].asString(), "/volume1/rec");
    EXPECT_EQ(tasks[1]["id"].asInt(), second);
    EXPECT_EQ(tasks[1]["storagePath"].asString(), "/volume1/it's");
    ASSERT_EQ(ArchPullApi::GetTasks("", static_cast<ARCH_TASK_TYPE>(2)).size(), 1U);
    EXPECT_EQ(ArchPullApi::GetTasks("other", ARCH_TASK_ALL)[0]["storagePath"].asString(), "/volume1/else");
}

TEST_F(Archive, ATaskOfAKnownNameIsChanged) {
    const int id = pavane::SaveArchiveTask({0, "", "nightly", 1, "/volume1/rec"});
    EXPECT_EQ(pavane::SaveArchiveTask({0, "", "nightly", 3, "/volume2/rec"}), id);
    const std::list<pavane::ArchiveTask> tasks = pavane::ListArchiveTasks("", 0);
    ASSERT_EQ(tasks.size(), 1U);
    EXPECT_EQ(tasks.front().type, 3);
    EXPECT_EQ(tasks.front().storagePath, "/volume2/rec");
    EXPECT_TRUE(pavane::RemoveArchiveTask(id));
    EXPECT_FALSE(pavane::RemoveArchiveTask(id));
    EXPECT_TRUE(ArchPullApi::GetTasks("", ARCH_TASK_ALL).empty());
    EXPECT_TRUE(ArchPullApi::GetTasks("", ARCH_TASK_ALL).isArray());
}

TEST_F(Archive, TasksThatCannotBeReadAreNotNone) {
    Session() << "alter table archive_task rename to archive_task_away";
    EXPECT_THROW(ArchPullApi::GetTasks("", ARCH_TASK_ALL), std::exception);
    Session() << "alter table archive_task_away rename to archive_task";
}

TEST_F(Archive, NoticesAreKeptInTheirOrderUntilTheyAreTaken) {
    ArchPullApi::NotifyShareUpdate(SHARE_OPERATION_REC_SHARE_REMOVED, "/volume1/rec", "", false);
    TimeLapseApi::NotifyShareUpdate(SHARE_OPERATION_REC_SHARE_REMOVED, "/volume1/it's", "/volume1/new", true);
    const pavane::NoticePage all = pavane::ListServiceNotices(0, 10);
    ASSERT_EQ(all.total, 2);
    ASSERT_EQ(all.notices.size(), 2U);
    const pavane::ServiceNotice& first = all.notices.front();
    EXPECT_EQ(first.service, "archive");
    EXPECT_EQ(first.operation, 6);
    EXPECT_EQ(first.path, "/volume1/rec");
    EXPECT_EQ(first.newPath, "");
    EXPECT_FALSE(first.isAfterwards);
    EXPECT_GT(first.time_s, 1600000000);
    const pavane::ServiceNotice& second = all.notices.back();
    EXPECT_EQ(second.service, "timelapse");
    EXPECT_EQ(second.path, "/volume1/it's");
    EXPECT_EQ(second.newPath, "/volume1/new");
    EXPECT_TRUE(second.isAfterwards);

    const pavane::NoticePage page = pavane::ListServiceNotices(1, 1);
    EXPECT_EQ(page.total, 2);
    ASSERT_EQ(page.notices.size(), 1U);
    EXPECT_EQ(page.notices.front().id, second.id);
    EXPECT_TRUE(pavane::RemoveServiceNotice(first.id));
    EXPECT_FALSE(pavane::RemoveServiceNotice(first.id));
    EXPECT_EQ(pavane::ListServiceNotices(0, 10).total, 1);
}

TEST_F(Archive, ManyProcessesMayLeaveNoticesAtOnce) {
    const auto leave = [](int i) {
        ArchPullApi::NotifyShareUpdate(SHARE_OPERATION_REC_SHARE_REMOVED, "/volume1/" + std::to_string(i), "",
                                       false);
        return true;
    };
    EXPECT_EQ(CountSuccesses(8, leave), 8);
    EXPECT_EQ(pavane::ListServiceNotices(0, 100).total, 8);
}
