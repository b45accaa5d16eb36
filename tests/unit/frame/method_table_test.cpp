// The table that the framework reads, word by word.

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "webapi/share/entry.h"

namespace {

constexpr std::size_t kWordsPerRow = 4;

// Not through the row's type: what counts is what a reader finds who knows only the words.
std::uintptr_t Word(std::size_t row, std::size_t word) {
    std::uintptr_t value = 0;
    std::memcpy(&value,
                reinterpret_cast<const char*>(GetAPITable()) + (row * kWordsPerRow + word) * sizeof value,
                sizeof value);
    return value;
}

std::string Text(std::size_t row, std::size_t word) { return reinterpret_cast<const char*>(Word(row, word)); }

TEST(MethodTable, HoldsTheTwelveMethodsInOrderEachWithItsEntry) {
    struct Row {
        const char* method;
        bool isRelayed;
    };
    const std::vector<Row> rows = {
        {"List", false},
        {"ListRecShare", false},
        {"CreateRecShare", true},
        {"DelRecShare", true},
        {"EditRecShare", true},
        {"ListUsingCam", false},
        {"CheckStorageMigrating", false},
        {"ListMountedFolder", false},
        {"ReconnetRemoteMount", false},
        {"CreateRemoteRecShare", true},
        {"DecryptByFile", false},
        {"ListShareUsage", false},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(Text(i, 0), "KORV.Pavane.Share");
        EXPECT_EQ(Word(i, 1), 1U);
        EXPECT_EQ(Text(i, 2), rows[i].method);
        EXPECT_EQ(Word(i, 3), reinterpret_cast<std::uintptr_t>(rows[i].isRelayed ? &ProcessRelay : &Process))
            << rows[i].method;
    }
    for (std::size_t word = 0; word < kWordsPerRow; ++word) {
        EXPECT_EQ(Word(rows.size(), word), 0U);
    }
}

TEST(MethodTable, IsTheExportedTable) {
    EXPECT_EQ(static_cast<const void*>(GetAPITable()), static_cast<const void*>(gTable));
}

}  // namespace
