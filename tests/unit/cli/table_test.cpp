#include "cli/table.h"

#include <string>

#include <gtest/gtest.h>

#include "cli/printable.h"

namespace {

using cli::Align;
using cli::MakePrintable;
using cli::Table;

TEST(Table, ColumnsAreAsWideAsTheirWidestCell) {
    Table table({{"ID", Align::kRight}, {"NAME"}, {"N", Align::kRight}});
    table.Add({"7", "rec", "12"});
    table.Add({"1000", "a longer name", "3"});
    EXPECT_EQ(table.Render(),
              "  ID  NAME            N\n"
              "   7  rec            12\n"
              "1000  a longer name   3\n");
}

TEST(Table, WithoutRowsOnlyTheTitlesAreShown) {
    EXPECT_EQ(Table({{"ID", Align::kRight}, {"NAME"}}).Render(), "ID  NAME\n");
}

TEST(Table, MissingCellsAreEmptyAndLinesEndWithoutBlanks) {
    Table table({{"A"}, {"BBBB"}});
    table.Add({"x"});
    EXPECT_EQ(table.Render(), "A  BBBB\nx\n");
}

TEST(Table, AWideCharacterTakesTwoColumnsAndACombiningOneNone) {
    Table table({{"NAME"}, {"X"}});
    table.Add({"日本", "1"});
    table.Add({"e\xCC\x81", "2"});  // e and a combining acute accent
    EXPECT_EQ(table.Render(), "NAME  X\n日本  1\ne\xCC\x81     2\n");
}

TEST(Table, ANameCannotSendTheTerminalACommandOrBreakTheLine) {
    Table table({{"NAME"}, {"X"}});
    table.Add({"a\x1b[2Jb\nc", "1"});
    EXPECT_EQ(table.Render(), "NAME            X\na\\x1b[2Jb\\x0ac  1\n");
}

TEST(Printable, ControlCharactersBecomeVisible) {
    EXPECT_EQ(MakePrintable("\t\x7f\r").text, "\\x09\\x7f\\x0d");
    EXPECT_EQ(MakePrintable(std::string("a\0b", 3)).text, "a\\x00b");
    EXPECT_EQ(MakePrintable("\xC2\x9B"
                            "31m")
                  .text,
              "\\u009b31m");  // a terminal's one-character escape
}

TEST(Printable, CharactersThatReverseOrHideTextBecomeVisible) {
    EXPECT_EQ(MakePrintable("\xE2\x80\xAEtxt").text, "\\u202etxt");
    EXPECT_EQ(MakePrintable("a\xE2\x80\x8B").text, "a\\u200b");
    EXPECT_EQ(MakePrintable("\xEF\xBB\xBFx").text, "\\ufeffx");
}

TEST(Printable, WhatIsDrawnAsNothingOrAsAnotherBlankBecomesVisible) {
    const struct {
        const char* text;
        const char* shown;
    } cases[] = {{"a\u180E", "a\\u180e"},    {"a\u034F", "a\\u034f"},    {"a\uFE0F", "a\\ufe0f"},
                 {"\u3164", "\\u3164"},      {"\uFFA0", "\\uffa0"},      {"\u115F\u1160", "\\u115f\\u1160"},
                 {"\u17B4", "\\u17b4"},      {"\u180B", "\\u180b"},      {"\u2800", "\\u2800"},
                 {"a\u00A0b", "a\\u00a0b"},  {"a\u2003b", "a\\u2003b"},  {"a\u202Fb", "a\\u202fb"},
                 {"\u205F", "\\u205f"},      {"\u3000", "\\u3000"},      {"\u1680", "\\u1680"},
                 {"\U0001D173", "\\u1d173"}, {"\U000E0100", "\\ue0100"}, {"\U0001BCA0", "\\u1bca0"}};
    for (const auto& each : cases) {
        EXPECT_EQ(MakePrintable(each.text).text, each.shown);
        EXPECT_EQ(MakePrintable(each.text).width, std::string(each.shown).size());
    }
}

TEST(Printable, LettersAndMarksOfAllScriptsStay) {
    for (const char* text :
         {"e\u0301", "\u0301", "שלום", "مرحبا", "한글", "倉庫", "नमस्ते", "a b", "\U0001F4F7"}) {
        EXPECT_EQ(MakePrintable(text).text, text);
    }
}

TEST(Printable, InvalidBytesBecomeVisibleAndTheRestStays) {
    EXPECT_EQ(MakePrintable("a\xFFz").text, "a\\xffz");
    EXPECT_EQ(MakePrintable("\xC0\xAF").text, "\\xc0\\xaf");           // overlong
    EXPECT_EQ(MakePrintable("\xED\xA0\x80").text, "\\xed\\xa0\\x80");  // surrogate
    EXPECT_EQ(MakePrintable("\xE6\x97").text, "\\xe6\\x97");           // cut short
}

TEST(Printable, TheWidthIsThatOfWhatIsShown) {
    EXPECT_EQ(MakePrintable("\x1b").width, 4U);
    EXPECT_EQ(MakePrintable("日").width, 2U);
    EXPECT_EQ(MakePrintable("äbc").width, 3U);
}

}  // namespace
