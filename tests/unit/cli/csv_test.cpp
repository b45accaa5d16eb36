#include "cli/csv.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/input_error.h"

namespace {

using cli::CsvRow;
using cli::ParseCsv;
using Fields = std::vector<std::string>;

std::string ProblemOf(const std::string& text) {
    try {
        ParseCsv(text);
    } catch (const cli::InputError& error) {
        return error.what();
    }
    return "none";
}

TEST(Csv, LinesEndWithEitherLineEndAndTheLastNeedsNone) {
    const std::vector<CsvRow> rows = ParseCsv("a,b\r\nc,d\ne,");
    ASSERT_EQ(rows.size(), 3U);
    EXPECT_EQ(rows[0].fields, (Fields{"a", "b"}));
    EXPECT_EQ(rows[1].fields, (Fields{"c", "d"}));
    EXPECT_EQ(rows[2].fields, (Fields{"e", ""}));
}

TEST(Csv, AQuotedFieldMayHoldCommasQuotesAndLineEnds) {
    const std::vector<CsvRow> rows = ParseCsv("\"a,\"\"b\"\"\nc\",d\r\nlast");
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[0].fields, (Fields{"a,\"b\"\nc", "d"}));
    EXPECT_EQ(rows[0].line, 1);
    EXPECT_EQ(rows[1].line, 3);  // the quoted line end counts
}

TEST(Csv, EmptyLinesAreLeftOut) {
    const std::vector<CsvRow> rows = ParseCsv("name\n\n\r\nx\n");
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[0].fields, Fields{"name"});
    EXPECT_EQ(rows[1].line, 4);
}

TEST(Csv, AnEmptyTextHasNoRows) { EXPECT_TRUE(ParseCsv("").empty()); }

TEST(Csv, ACarriageReturnInsideALineBelongsToTheField) {
    EXPECT_EQ(ParseCsv("a\rb\n")[0].fields, Fields{"a\rb"});
}

TEST(Csv, WhatIsWrongIsToldWithItsLine) {
    EXPECT_EQ(ProblemOf("a\n\"b\nc"), "line 2: a quote is not closed");
    EXPECT_EQ(ProblemOf("a\nb\"c\""), "line 2: a quote inside a field that does not begin with one");
    EXPECT_EQ(ProblemOf("a\nb\n\"c\"d"), "line 3: text after a closing quote");
}

}  // namespace
