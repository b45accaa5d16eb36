#include "pavane/store/kept_query.h"

#include <stdexcept>
#include <string>
#include <vector>

#include "pavane/store/settings_table.h"
#include "tests/unit/pavane/test_node.h"

namespace {

struct NamesFrom : pavane::KeptQuery {
    explicit NamesFrom(soci::session& session) {
        Prepare((session.prepare << "select name, value from setting where name >= :first order by name",
                 soci::into(name), soci::into(value), soci::use(first)));
    }
    std::string first;
    std::string name;
    std::string value;
};

struct SettingInsertion : pavane::KeptQuery {
    explicit SettingInsertion(soci::session& session) {
        Prepare((session.prepare << "insert into setting (name, value) values (:name, :value)",
                 soci::use(name), soci::use(value)));
    }
    std::string name;
    std::string value;
};

class KeptQueries : public StoreTest {
protected:
    KeptQueries() {
        for (const char* name : {"x1", "x2", "x3"}) {
            pavane::SetSetting(name, std::string("value of ") + name);
        }
    }
    static NamesFrom& Names(const std::string& first) {
        auto& query = pavane::AppDatabase().Kept<NamesFrom>();
        query.first = first;
        return query;
    }
    static bool RunsWhenStopped() {
        try {
            return Names("x1").Run([] { throw std::runtime_error("enough"); });
        } catch (const std::runtime_error&) {
            return false;
        }
    }
    static bool Inserts(const std::string& name) {
        auto& query = pavane::AppDatabase().Kept<SettingInsertion>();
        query.name = name;
        query.value = "inserted";
        try {
            query.Run();
            return true;
        } catch (const soci::soci_error&) {
            return false;
        }
    }
};

}  // namespace

TEST_F(KeptQueries, AreOnePerTypeAndConnection) {
    NamesFrom* const query = &Names("x1");
    EXPECT_EQ(query, &Names("x2"));
    pavane::CloseAppDatabase();
    EXPECT_TRUE(Names("x3").Run());
    EXPECT_EQ(Names("x3").value, "value of x3");
}

TEST_F(KeptQueries, GiveEachRowAndThenTheLast) {
    NamesFrom& query = Names("x2");
    std::vector<std::string> values;
    EXPECT_TRUE(query.Run([&] { values.push_back(query.value); }));
    EXPECT_EQ(values, (std::vector<std::string>{"value of x2", "value of x3"}));
    EXPECT_EQ(query.name, "x3");
    EXPECT_FALSE(Names("y").Run());
}

TEST_F(KeptQueries, SeeWhatAnotherProcessWroteSinceTheLastRun) {
    EXPECT_TRUE(Names("x3").Run());
    ASSERT_EQ(CountSuccesses(1,
                             [](int) {
                                 pavane::SetSetting("x3", "changed");
                                 return true;
                             }),
              1);
    EXPECT_TRUE(Names("x3").Run());
    EXPECT_EQ(Names("x3").value, "changed");
}

// A statement left at a row would keep this connection from writing after another process has written.
TEST_F(KeptQueries, LeaveTheConnectionFreeToWrite) {
    EXPECT_TRUE(Names("x1").Run());
    ASSERT_EQ(CountSuccesses(1,
                             [](int) {
                                 pavane::SetSetting("x1", "theirs");
                                 return true;
                             }),
              1);
    pavane::WriteTransaction transaction(pavane::AppDatabase());
    pavane::SetSetting("x1", "ours");
    transaction.Commit();
    EXPECT_EQ(pavane::GetSetting("x1", ""), "ours");
}

TEST_F(KeptQueries, AreMadeAnewAfterAFailure) {
    EXPECT_FALSE(Inserts("x1"));
    EXPECT_TRUE(Inserts("x4"));
    EXPECT_EQ(pavane::GetSetting("x4", ""), "inserted");
}

TEST_F(KeptQueries, AreMadeAnewWhenTheCallerStoppedAtARow) {
    EXPECT_FALSE(RunsWhenStopped());
    EXPECT_TRUE(Names("x3").Run());
    EXPECT_EQ(Names("x3").value, "value of x3");
}

TEST_F(KeptQueries, HoldOnToNothingWhenTheCallerStoppedAtARow) {
    EXPECT_FALSE(RunsWhenStopped());
    ASSERT_EQ(CountSuccesses(1,
                             [](int) {
                                 pavane::SetSetting("x3", "changed");
                                 return true;
                             }),
              1);
    EXPECT_EQ(pavane::GetSetting("x3", ""), "changed");
}

// SQLite leaves a statement that met a lock unfinished, to be tried again.
TEST_F(KeptQueries, HoldOnToNothingWhenTheyMetALock) {
    pavane::Database other(pavane::ConfiguredDatabase());
    pavane::WriteTransaction theirs(other);
    pavane::AppDatabase().SetPatience(false);
    bool isRefused = false;
    try {
        const pavane::WriteTransaction ours(pavane::AppDatabase());
    } catch (const soci::soci_error&) {
        isRefused = true;
    }
    pavane::AppDatabase().SetPatience(true);
    EXPECT_EQ(isRefused, IsSqlite()) << "PostgreSQL locks rows, and none is asked for";
    EXPECT_EQ(pavane::GetSetting("x3", ""), "value of x3");
    other.Session() << "update setting set value = 'changed' where name = 'x3'";
    theirs.Commit();
    EXPECT_EQ(pavane::GetSetting("x3", ""), "changed");
}
