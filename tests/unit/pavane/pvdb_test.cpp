#include <string>

#include "platform/pavane/database.h"

#include "pavane/store/statement_list.h"
#include "tests/unit/pavane/test_node.h"

namespace {

class Pvdb : public StoreTest {
protected:
    static int Run(const std::string& statement, bool multiple = false) {
        return PVDB::Execute(PVDB::DB_DEFAULT, statement, nullptr, multiple, true, true, true);
    }

    // The first cell of the first row; "(none)" without one, "(null)" for null.
    static std::string Cell(const std::string& statement, const char* column) {
        PVDB::DBResult* result = nullptr;
        if (PVDB::Execute(PVDB::DB_DEFAULT, statement, &result, false, true, true, true) != 0) {
            return "(failed)";
        }
        int row = 0;
        std::string text = "(none)";
        if (PVDBFetchRow(result, &row) == 0) {
            const char* const cell = PVDBFetchField(result, row, column);
            text = cell != nullptr ? cell : "(null)";
        }
        PVDBFreeResult(result);
        return text;
    }
};

}  // namespace

TEST_F(Pvdb, CellsReadAlikeWhateverTypeTheDatabaseGivesThem) {
    Session() << "insert into event (time_ms, type, user_name, item_id, arguments) values"
                 " (5000000000, 4294967295, 'u', -1, '[]'), (5000000001, 1, 'v', 0, '[]')";
    EXPECT_EQ(Cell("select time_ms from event order by id", "time_ms"), "5000000000");
    EXPECT_EQ(Cell("select count(*) as n from event", "n"), "2");
    EXPECT_EQ(Cell("select sum(time_ms) as n from event", "n"), "10000000001");
    EXPECT_EQ(Cell("select 3.0/2 as n", "n").substr(0, 3), "1.5");
    EXPECT_EQ(Cell("select min(user_name) as n from event", "n"), "u");
    EXPECT_EQ(Cell("select null as n", "n"), "(null)");
    EXPECT_EQ(Cell("select 1 = 1 as n", "n"), "1");
    EXPECT_EQ(Cell("select user_name from event order by id", "no_such_column"), "(null)");
    EXPECT_EQ(Cell("select user_name from event where id < 0", "user_name"), "(none)");
}

TEST_F(Pvdb, RowsComeOneAfterAnotherAndAreCounted) {
    ASSERT_EQ(Run("insert into setting (name, value) values ('a', '1'), ('b', '2')"), 0);
    PVDB::DBResult* result = nullptr;
    ASSERT_EQ(PVDB::Execute(PVDB::DB_DEFAULT, "SELECT * from setting order by name;", &result, false, true,
                            true, true),
              0);
    EXPECT_EQ(PVDBNumRows(result), 2);
    int row = -1;
    ASSERT_EQ(PVDBFetchRow(result, &row), 0);
    EXPECT_STREQ(PVDBFetchField(result, row, "value"), "1");
    ASSERT_EQ(PVDBFetchRow(result, &row), 0);
    EXPECT_STREQ(PVDBFetchField(result, row, "name"), "b");
    EXPECT_NE(PVDBFetchRow(result, &row), 0);
    PVDBFreeResult(result);
    PVDBFreeResult(nullptr);
    EXPECT_EQ(PVDBNumRows(nullptr), 0);
}

TEST_F(Pvdb, AFailedStatementLeavesANullResult) {
    PVDB::DBResult* result = nullptr;
    ASSERT_EQ(PVDB::Execute(PVDB::DB_DEFAULT, "select 1 as one", &result, false, true, true, true), 0);
    PVDBFreeResult(result);
    EXPECT_NE(
        PVDB::Execute(PVDB::DB_DEFAULT, "select nothing from nowhere", &result, false, true, true, true), 0);
    EXPECT_EQ(result, nullptr);
}

TEST_F(Pvdb, SeveralStatementsRunOnlyWhenAskedForAndAllOrNone) {
    EXPECT_NE(Run("insert into setting values ('a', '1'); delete from camera"), 0);
    EXPECT_EQ(Cell("select count(*) as n from setting", "n"), "0");
    EXPECT_EQ(Run("insert into setting values ('a', ';--'); insert into setting values ('b', '2');", true),
              0);
    EXPECT_EQ(Cell("select value from setting where name = 'a'", "value"), ";--");
    EXPECT_NE(Run("delete from setting; insert into setting values ('c', '3'); broken", true), 0);
    EXPECT_EQ(Cell("select count(*) as n from setting", "n"), "2");
    EXPECT_NE(Run(""), 0);
    EXPECT_NE(Run(" ; -- nothing\n"), 0);
}

TEST_F(Pvdb, QuotedTextsComeBackAsTheyWere) {
    const std::string texts[] = {"",
                                 "'",
                                 "''",
                                 "\\",
                                 "\\'",
                                 "'; drop table setting; --",
                                 "%_",
                                 "\"",
                                 ":x $1 ?",
                                 "a\nb\tc\x01",
                                 "\xC3\xA4 \xF0\x9F\x93\xB7",
                                 "{{prefix}}",
                                 "/* */",
                                 "$$",
                                 "E'\\''"};
    for (const std::string& text : texts) {
        EXPECT_EQ(Cell("select " + PVDB::QuoteEscape(text) + " as t", "t"), text);
    }
}

TEST_F(Pvdb, ANulEndsAQuotedText) {
    EXPECT_EQ(PVDB::QuoteEscape(std::string("ab\0'; drop", 10)), "'ab'");
    EXPECT_NE(Run(std::string("select 1\0", 9)), 0);
}

TEST_F(Pvdb, AStatementThatMayNotWaitForALockFailsAtOnce) {
    Session() << "insert into setting (name, value) values ('a', '1')";
    pavane::WriteTransaction holder(pavane::AppDatabase());
    Session() << "update setting set value = '2' where name = 'a'";
    EXPECT_EQ(CountSuccesses(1,
                             [](int) {
                                 return PVDB::Execute(PVDB::DB_DEFAULT, "update setting set value = '3'",
                                                      nullptr, false, false, true, true) != 0;
                             }),
              1);
}

TEST_F(Pvdb, AStatementThatMayWaitGetsItsTurn) {
    Session() << "insert into setting (name, value) values ('n', '0')";
    constexpr int kWriters = 8;
    const auto count = [](int) {
        for (int i = 0; i < 20; ++i) {
            if (Run("update setting set value = cast(cast(value as integer) + 1 as text) where name = 'n'") !=
                0) {
                return false;
            }
        }
        return true;
    };
    EXPECT_EQ(CountSuccesses(kWriters, count), kWriters);
    EXPECT_EQ(Cell("select value from setting where name = 'n'", "value"), "160");
}

TEST_F(Pvdb, ALostConnectionIsOpenedAnew) {
    if (IsSqlite()) {
        GTEST_SKIP() << "SQLite has no connection to lose";
    }
    Session() << "insert into setting (name, value) values ('a', '1')";
    int backend = 0;
    Session() << "select pg_backend_pid()", soci::into(backend);
    ASSERT_EQ(CountSuccesses(1,
                             [backend](int) {
                                 const std::string id = std::to_string(backend);
                                 return Cell("select pg_terminate_backend(" + id + ") as t", "t") == "1";
                             }),
              1);
    EXPECT_EQ(Cell("select value from setting where name = 'a'", "value"), "1");
}

TEST(StatementList, SeparatesAtSemicolonsOutsideQuotesAndComments) {
    const std::vector<std::string> expected = {"a ';' ", " b \";\" c"};
    EXPECT_EQ(pavane::SplitStatements("a ';' ; b \";\" c;-- d; e\n ; "), expected);
    EXPECT_EQ(pavane::SplitStatements("x /* ; */ y").size(), 1U);
    EXPECT_EQ(pavane::SplitStatements("'it''s; one'").size(), 1U);
    EXPECT_EQ(pavane::SplitStatements("'never closed; ").size(), 1U);
    EXPECT_TRUE(pavane::SplitStatements("").empty());
}

TEST(StatementList, BackslashesInPatternsStandForThemselves) {
    using pavane::WithPlainBackslashes;
    EXPECT_EQ(WithPlainBackslashes("a LIKE 'x\\y/%' AND b = 'p\\q' and c like'\\''\\'"),
              "a LIKE 'x\\y/%' escape '' AND b = 'p\\q' and c like'\\''\\' escape ''");
    for (const std::string same : {"a LIKE 'x/%'", "a LIKE 'x\\%' ESCAPE '\\'", "a = 'x\\'", "dislike '\\'",
                                   "' like ' || '\\'", "like", "", "a like '\\' escape '!'", "x '\\ "}) {
        EXPECT_EQ(WithPlainBackslashes(same), same);
    }
}
