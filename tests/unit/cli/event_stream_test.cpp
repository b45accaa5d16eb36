#include "cli/event_stream.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using cli::EventStream;

TEST(EventStream, AnEventMayArriveByteByByte) {
    EventStream stream;
    const std::string text = ": hi\n\nid: 17:0\r\ndata: {\"type\":41}\r\n\r\n";
    std::size_t count = 0;
    for (const char c : text) {
        for (const auto& event : stream.Take(std::string(1, c))) {
            ++count;
            EXPECT_EQ(event.id, "17:0");
            EXPECT_EQ(event.data, "{\"type\":41}");
        }
    }
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(stream.LastId(), "17:0");
}

TEST(EventStream, SeveralEventsInOnePieceKeepTheirOrder) {
    EventStream stream;
    const auto events = stream.Take("data:a\n\ndata: b\ndata: c\n\ndata: not yet\n");
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].data, "a");
    EXPECT_EQ(events[1].data, "b\nc");
}

TEST(EventStream, WhatHasNoDataIsNoEvent) {
    EventStream stream;
    EXPECT_TRUE(stream.Take("event: ping\n\nretry: 5\n\n\n:\n\n").empty());
}

}  // namespace
