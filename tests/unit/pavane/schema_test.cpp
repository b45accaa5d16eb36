#include "pavane/store/schema.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "pavane/store/cell.h"
#include "tests/unit/pavane/test_node.h"

// The C library has them, and no header for them.
extern "C" int capget(cap_user_header_t header, cap_user_data_t data);
extern "C" int capset(cap_user_header_t header, cap_user_data_t data);

namespace {

using pavane::Database;

void LoseTheRightToGiveFilesAway() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> data{};
    ASSERT_EQ(capget(&header, data.data()), 0);
    data[0].effective &= ~CAP_TO_MASK(CAP_CHOWN);
    data[0].permitted &= ~CAP_TO_MASK(CAP_CHOWN);
    ASSERT_EQ(capset(&header, data.data()), 0);
}

std::vector<std::string> Lines(Database& database, const std::string& query) {
    std::vector<std::string> lines;
    const soci::rowset<soci::row> rows = (database.Session().prepare << query);
    for (const soci::row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += pavane::CellText(row, i).value_or("(null)") + "|";
        }
        lines.push_back(line);
    }
    return lines;
}

// Columns by name, not by place: an upgrade adds at the end.
constexpr const char* kSqliteColumns =
    "select m.name, c.name, c.type, c.\"notnull\", c.dflt_value, c.pk from sqlite_master m"
    " join pragma_table_info(m.name) c where m.type = 'table' order by 1, 2";
constexpr const char* kSqliteIndexes =
    "select m.name, i.name, i.\"unique\", i.origin, x.seqno, x.name, x.\"desc\", x.coll from sqlite_master m"
    " join pragma_index_list(m.name) i join pragma_index_xinfo(i.name) x where m.type = 'table' order by 1, "
    "2, 5";
constexpr const char* kSqliteReferences =
    "select m.name, f.* from sqlite_master m join pragma_foreign_key_list(m.name) f where m.type = 'table'"
    " order by 1";
constexpr const char* kPostgresqlColumns =
    "select table_name::text, column_name::text, data_type::text, is_nullable::text, column_default::text,"
    " is_identity::text from information_schema.columns where table_schema = 'public' order by 1, 2";
constexpr const char* kPostgresqlIndexes =
    "select indexname::text, indexdef from pg_indexes where schemaname = 'public' order by 1";
constexpr const char* kPostgresqlConstraints =
    "select conname::text, pg_get_constraintdef(oid) from pg_constraint"
    " where connamespace = 'public'::regnamespace order by 1";

std::vector<std::string> Describe(Database& database) {
    std::vector<std::string> all;
    const bool sqlite = database.Kind() == pavane::DatabaseKind::kSqlite;
    const std::vector<const char*> queries =
        sqlite ? std::vector<const char*>{kSqliteColumns, kSqliteIndexes, kSqliteReferences}
               : std::vector<const char*>{kPostgresqlColumns, kPostgresqlIndexes, kPostgresqlConstraints};
    for (const char* query : queries) {
        for (std::string& line : Lines(database, query)) {
            all.push_back(std::move(line));
        }
    }
    return all;
}

class SchemaUpgradeTest : public StoreTest {
protected:
    static pavane::Schema VersionOne() {
        static const std::string text = ReadFile(PAVANE_TEST_DATA "/schema_1.sql");
        return {1, text.c_str(), {}};
    }
};

}  // namespace

TEST_F(SchemaUpgradeTest, AnUpgradedDatabaseEqualsAFreshOne) {
    Database upgraded(TestNode::Instance().FreshDatabase());
    pavane::BringUpToDate(upgraded, VersionOne());
    ASSERT_EQ(pavane::SchemaVersion(upgraded), 1);
    upgraded.Session() << "insert into event (time_ms, type, user_name, item_id, arguments)"
                          " values (1, 2, 'u', 3, '[]')";
    pavane::BringUpToDate(upgraded, pavane::CurrentSchema());

    Database fresh(TestNode::Instance().FreshDatabase());
    pavane::BringUpToDate(fresh, pavane::CurrentSchema());
    EXPECT_EQ(pavane::SchemaVersion(upgraded), pavane::CurrentSchema().version);
    EXPECT_EQ(pavane::SchemaVersion(fresh), pavane::CurrentSchema().version);
    EXPECT_EQ(Describe(upgraded), Describe(fresh));
    EXPECT_GT(Describe(fresh).size(), 40U);
    EXPECT_EQ(Lines(upgraded, "select user_name, rv_id from event"), std::vector<std::string>{"u|0|"});
}

TEST_F(SchemaUpgradeTest, VersionOneDiffersFromTheCurrentOne) {
    Database old(TestNode::Instance().FreshDatabase());
    pavane::BringUpToDate(old, VersionOne());
    EXPECT_NE(Describe(old), Describe(pavane::AppDatabase()));
}

TEST_F(SchemaUpgradeTest, ADatabaseOfALaterVersionIsRefused) {
    Database later(TestNode::Instance().FreshDatabase());
    pavane::BringUpToDate(later, pavane::CurrentSchema());
    later.Session() << "update schema_version set version = 99";
    EXPECT_THROW(pavane::BringUpToDate(later, pavane::CurrentSchema()), std::runtime_error);
    EXPECT_EQ(pavane::SchemaVersion(later), 99);
}

TEST_F(SchemaUpgradeTest, AnUpgradeThatFailsHalfWayChangesNothing) {
    Database database(TestNode::Instance().FreshDatabase());
    pavane::BringUpToDate(database, VersionOne());
    const std::vector<std::string> before = Describe(database);
    const pavane::Schema broken{2, "", {{2, "create table half (id integer); create broken;"}}};
    EXPECT_THROW(pavane::BringUpToDate(database, broken), std::exception);
    EXPECT_EQ(pavane::SchemaVersion(database), 1);
    EXPECT_EQ(Describe(database), before);
}

TEST_F(SchemaUpgradeTest, ManyProcessesMayOpenAnEmptyDatabaseAtOnce) {
    const pavane::DatabaseAddress address = TestNode::Instance().FreshDatabase();
    constexpr int kProcesses = 8;
    const auto open = [&address](int) {
        try {
            Database database(address);
            pavane::BringUpToDate(database, pavane::CurrentSchema());
            return pavane::SchemaVersion(database) == pavane::CurrentSchema().version;
        } catch (const std::exception&) {
            return false;
        }
    };
    EXPECT_EQ(CountSuccesses(kProcesses, open), kProcesses);
}

TEST_F(SchemaUpgradeTest, ForeignKeysAreOn) {
    EXPECT_THROW(Session() << "insert into service_link (name, share_id) values ('x', 12345)",
                 soci::soci_error);
}

TEST_F(SchemaUpgradeTest, AFailureIsDescribedWithoutTheValuesOfItsStatement) {
    const std::string secret = "s3cret";
    try {
        Session() << "insert into setting (name, value) values (:n, :v), (:n2, :v2)", soci::use(secret),
            soci::use(secret), soci::use(secret), soci::use(secret);
        FAIL() << "the key was accepted twice";
    } catch (const std::exception& failure) {
        const std::string text = pavane::DescribeFailure(failure);
        EXPECT_EQ(text.find(secret), std::string::npos) << text;
        EXPECT_NE(text.find(IsSqlite() ? "constraint" : "23505"), std::string::npos) << text;
    }
}

// A file that root gave away a moment later would shut out the owner's processes in between.
TEST_F(SchemaUpgradeTest, RootMakesNoFilesOfItsOwnInAnothersFolder) {
    if (!IsSqlite()) {
        GTEST_SKIP() << "the database's own server makes its files";
    }
    constexpr uid_t kOwner = 60005;
    const std::string folder = TestNode::Instance().StateDir() + "/owned";
    std::filesystem::create_directory(folder);
    ASSERT_EQ(chown(folder.c_str(), kOwner, kOwner), 0);
    const pid_t child = fork();
    if (child == 0) {
        LoseTheRightToGiveFilesAway();
        const Database database({pavane::DatabaseKind::kSqlite, folder + "/pavane.db"});
        int wrong = geteuid() == 0 ? 0 : 100;
        for (const char* const name : {"/pavane.db", "/pavane.db-wal", "/pavane.db-shm"}) {
            struct stat status {};
            const bool isThere = stat((folder + name).c_str(), &status) == 0;
            wrong += isThere && status.st_uid == kOwner ? 0 : 1;
        }
        _exit(wrong);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}
