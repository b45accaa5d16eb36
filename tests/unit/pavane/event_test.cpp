#include <ctime>
#include <string>

#include "platform/pavane/events.h"

#include "pavane/recorder/event_store.h"
#include "tests/unit/pavane/test_node.h"

namespace {

class EventLog : public StoreTest {};

}  // namespace

TEST_F(EventLog, AnEventIsReadAsItWasWritten) {
    const std::int64_t before_ms = std::int64_t{std::time(nullptr)} * 1000;
    PVLog(PV_LOG_REC_SHARE_CREATED, "ann'e", 5000000000, {"re\"c\n", "second"}, 4);
    const pavane::EventPage page = pavane::ListEvents(0, 10);
    ASSERT_EQ(page.total, 1);
    const pavane::EventRecord& event = page.events.front();
    EXPECT_EQ(event.type, 0x133000C8U);
    EXPECT_EQ(event.user, "ann'e");
    EXPECT_EQ(event.item, 5000000000);
    EXPECT_EQ(event.arguments, (std::list<std::string>{"re\"c\n", "second"}));
    EXPECT_EQ(event.rvId, 4);
    EXPECT_GE(event.time_ms, before_ms);
    EXPECT_LT(event.time_ms, before_ms + 60000);
}

TEST_F(EventLog, TheNewestComesFirstAndPagesFollow) {
    for (const char* name : {"a", "b", "c"}) {
        PVLog(PV_LOG_REC_SHARE_CREATED, "u", 0, {name}, 0);
    }
    const pavane::EventPage page = pavane::ListEvents(1, 1);
    EXPECT_EQ(page.total, 3);
    ASSERT_EQ(page.events.size(), 1U);
    EXPECT_EQ(page.events.front().arguments.front(), "b");
}

TEST_F(EventLog, EachTypeHasItsSentence) {
    pavane::EventRecord event;
    event.type = PV_LOG_REC_SHARE_CREATED;
    event.arguments = {"rec %1 %2"};
    EXPECT_EQ(pavane::EventSentence(event), "Recording share rec %1 %2 was created.");
    event.arguments.clear();
    EXPECT_EQ(pavane::EventSentence(event), "Recording share  was created.");
    event.type = 0xABC;
    EXPECT_EQ(pavane::EventSentence(event), "Event of type 0xabc.");
}

TEST_F(EventLog, OnlyTheLatestAreKept) {
    PVLog(PV_LOG_REC_SHARE_CREATED, "u", 0, {"old"}, 0);
    const int first = pavane::ListEvents(0, 1).events.front().id;
    const int last = first + pavane::kEventLimit - 1;
    Session() << "insert into event (id, time_ms, type, user_name, item_id, arguments) values (" << last
              << ", 1, 1, 'u', 0, '[]')";
    if (!IsSqlite()) {
        Session() << "select setval(pg_get_serial_sequence('event', 'id'), " << last << ")";
    }
    PVLog(PV_LOG_REC_SHARE_CREATED, "u", 0, {"new"}, 0);
    const pavane::EventPage page = pavane::ListEvents(0, 10);
    EXPECT_EQ(page.total, 2);
    EXPECT_EQ(page.events.front().arguments.front(), "new");
    EXPECT_EQ(page.events.back().id, last);
}
