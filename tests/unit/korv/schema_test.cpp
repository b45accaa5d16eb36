#include "korv/system/schema.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include "korv/system/database.h"
#include "tests/unit/korv/private_machine.h"

namespace {

constexpr const char* kFirst = "create table cat (name text primary key);";
constexpr const char* kSecond =
    "create table cat (name text primary key); create table dog (name text primary key, cat text);";
constexpr const char* kThird =
    "create table cat (name text primary key); create table dog (name text primary key, cat text);"
    " create index dog_cat on dog (cat);";
constexpr std::array<korv::SchemaUpgrade, 2> kUpgrades{
    {{2, "create index dog_cat on dog (cat)"}, {1, "create table dog (name text primary key, cat text)"}}};

std::string Dump(soci::session& session) {
    std::string text, line;
    soci::statement statement =
        (session.prepare << "select type || ' ' || name || ' ' || coalesce(sql, '') from sqlite_master"
                            " order by type, name",
         soci::into(line));
    statement.execute();
    while (statement.fetch()) {
        text += line + "\n";
    }
    int version = 0;
    session << "pragma user_version", soci::into(version);
    return text + std::to_string(version);
}

class SchemaTest : public MachineTest {
protected:
    static void Open(soci::session& session, const std::string& name) {
        korv::OpenDatabase(session, machine::StateFolder() + "/" + name);
        session << "drop table share_grant";
    }
    static std::string PathOf(const std::string& name) { return machine::StateFolder() + "/" + name; }
};

class BareSchemaTest : public SchemaTest {
protected:
    void SetUp() override {
        SchemaTest::SetUp();
        m_old.open("sqlite3", "db=" + PathOf("old.db"));
        m_fresh.open("sqlite3", "db=" + PathOf("fresh.db"));
    }

    soci::session m_old, m_fresh;
};

TEST_F(BareSchemaTest, AnUpgradedDatabaseEqualsAFreshOneAndKeepsItsRows) {
    korv::ApplySchema(m_old, {1, kFirst, {}});
    m_old << "insert into cat (name) values ('Tom')";
    korv::ApplySchema(m_old, {3, kThird, kUpgrades});
    korv::ApplySchema(m_fresh, {3, kThird, kUpgrades});
    EXPECT_EQ(Dump(m_old), Dump(m_fresh));
    EXPECT_NE(Dump(m_old).find("dog_cat"), std::string::npos);
    std::string name;
    m_old << "select name from cat", soci::into(name);
    EXPECT_EQ(name, "Tom");
}

TEST_F(BareSchemaTest, AnUpgradeThatFailsChangesNothing) {
    korv::ApplySchema(m_old, {1, kFirst, {}});
    const std::string before = Dump(m_old);
    constexpr std::array<korv::SchemaUpgrade, 2> kBroken{
        {{1, "create table dog (name text primary key, cat text)"}, {2, "create nonsense"}}};
    EXPECT_THROW(korv::ApplySchema(m_old, {3, kThird, kBroken}), soci::soci_error);
    EXPECT_EQ(Dump(m_old), before);
}

TEST_F(BareSchemaTest, AVersionWithoutAStepOrFromTheFutureIsRefused) {
    korv::ApplySchema(m_old, {2, kSecond, {}});
    const std::string before = Dump(m_old);
    EXPECT_THROW(korv::ApplySchema(m_old, {1, kFirst, {}}), std::runtime_error);
    EXPECT_THROW(korv::ApplySchema(m_old, {3, kThird, {}}), std::runtime_error);
    EXPECT_EQ(Dump(m_old), before);
}

TEST_F(SchemaTest, EveryOlderVersionOfTheRealDatabaseHasItsStep) {
    const korv::Schema& schema = korv::CurrentSchema();
    for (int version = 1; version < schema.version; ++version) {
        EXPECT_EQ(std::count_if(schema.upgrades.begin(), schema.upgrades.end(),
                                [version](const auto& step) { return step.from == version; }),
                  1)
            << version;
    }
}

TEST_F(SchemaTest, ManyProcessesMayOpenAMissingDatabaseAtOnce) {
    const std::vector<int> ends = machine::InChildren(16, [](int) {
        int tables = 0;
        korv::Database() << "select count(*) from sqlite_master where type = 'table'", soci::into(tables);
        return tables;
    });
    EXPECT_GT(ends.front(), 4);
    for (const int tables : ends) {
        EXPECT_EQ(tables, ends.front());
    }
}

TEST_F(SchemaTest, FilesMadeByRootBelongToTheStateFoldersOwner) {
    korv::Database() << "insert into login_failure (remote_ip, at_s) values ('192.0.2.1', 1)";
    for (const std::string suffix : {"", "-wal", "-shm"}) {
        struct stat status {};
        ASSERT_EQ(stat((machine::DatabaseFile() + suffix).c_str(), &status), 0) << suffix;
        EXPECT_EQ(status.st_uid, machine::kPavaneUid) << suffix;
        EXPECT_EQ(status.st_mode & 0777, 0600U) << suffix;
    }
}

// A file that root gave away a moment later would shut out the owner's processes in between.
TEST_F(SchemaTest, RootMakesNoFilesOfItsOwnThere) {
    korv::Database();
    korv::CloseDatabase();
    EXPECT_EQ(machine::InChild([] {
                  machine::LoseCapability(CAP_CHOWN);
                  korv::Database();
                  int own = geteuid() == 0 ? 0 : 100;
                  for (const std::string suffix : {"", "-wal", "-shm"}) {
                      struct stat status {};
                      const bool isThere = stat((machine::DatabaseFile() + suffix).c_str(), &status) == 0;
                      own += isThere && status.st_uid == machine::kPavaneUid ? 0 : 1;
                  }
                  return own;
              }),
              0);
}

TEST_F(SchemaTest, RootShutsOutNobodyWhileItOpensIt) {
    constexpr int kTimes = 200;
    korv::Database();
    korv::CloseDatabase();
    const std::vector<int> failures = machine::InChildren(2, [](int number) {
        if (number == 1) {
            machine::BecomeEffectively(machine::kPavaneUid, {});
        }
        int failed = 0;
        for (int i = 0; i < kTimes; ++i) {
            try {
                korv::Database();
                korv::CloseDatabase();
            } catch (const soci::soci_error&) {
                ++failed;
            }
        }
        return failed;
    });
    EXPECT_EQ(failures, (std::vector<int>{0, 0}));
}

TEST_F(SchemaTest, OpeningItLeavesTheSignalOfTheParentsDeath) {
    EXPECT_EQ(machine::InChild([] {
                  int signal = 0;
                  prctl(PR_SET_PDEATHSIG, SIGTERM);
                  korv::Database();
                  prctl(PR_GET_PDEATHSIG, &signal);
                  return signal;
              }),
              SIGTERM << 8);
}

TEST_F(SchemaTest, AConnectionIsNotUsedAcrossAFork) {
    korv::Database();
    EXPECT_EQ(machine::InChild([] {
                  try {
                      korv::Database();
                  } catch (const std::logic_error&) {
                      return 0;
                  }
                  return 1;
              }),
              0);
    korv::CloseDatabase();
    EXPECT_EQ(machine::InChild([] {
                  korv::Database();
                  return 0;
              }),
              0);
}

TEST_F(SchemaTest, AFullDiskIsToldFromOtherTroubles) {
    soci::session session;
    Open(session, "small.db");
    session << "pragma max_page_count = 1";
    bool isFull = false;
    try {
        korv::WriteTransaction transaction(session);
        for (int i = 0; i < 1000; ++i) {
            session << "insert into login_failure (remote_ip, at_s) values ('" << std::string(500, 'x')
                    << "', " << i << ")";
        }
    } catch (const soci::soci_error& error) {
        isFull = korv::IsOutOfSpace(session, error);
    }
    EXPECT_TRUE(isFull);
    try {
        session << "select nonsense";
        FAIL();
    } catch (const soci::soci_error& error) {
        EXPECT_FALSE(korv::IsOutOfSpace(session, error));
    }
}

}  // namespace
