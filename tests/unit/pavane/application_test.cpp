#include "platform/pavane/application.h"

#include <set>

#include "platform/pavane/cms.h"
#include "platform/pavane/shared_folder_storage.h"

#include "pavane/recorder/application_store.h"
#include "tests/unit/pavane/test_node.h"

namespace {

class ApplicationTest : public StoreTest {};

}  // namespace

TEST_F(ApplicationTest, EveryApplicationHasItsOwnNameInEnglishAndGerman) {
    const auto traits = ApplicationTraits();
    ASSERT_EQ(traits.size(), 26U);
    for (const char* language : {"enu", "ger"}) {
        std::set<std::string> names;
        for (const ApplicationTrait& trait : traits) {
            const auto& texts = trait.GetName().GetTexts();
            ASSERT_EQ(texts.count(language), 1U);
            EXPECT_FALSE(texts.at(language).empty());
            names.insert(texts.at(language));
        }
        EXPECT_EQ(names.size(), traits.size()) << language;
    }
}

TEST_F(ApplicationTest, ANameBecomesAnObjectOfItsLanguages) {
    const Json::Value name =
        PVJson::JsonConverter<MultilangString, void>::ToJson(ApplicationTraits()[2].GetName());
    Json::Value expected(Json::objectValue);
    expected["enu"] = "Time lapse";
    expected["ger"] = "Zeitraffer";
    EXPECT_EQ(name, expected);
    EXPECT_EQ((PVJson::JsonConverter<MultilangString, void>::ToJson(MultilangString())),
              Json::Value(Json::objectValue));
}

TEST_F(ApplicationTest, ApplicationsComeEnabledAndKeepWhatIsChanged) {
    for (const ApplicationTrait& trait : ApplicationTraits()) {
        EXPECT_TRUE(trait.IsCompatible());
        EXPECT_TRUE(trait.IsEnabled());
    }
    pavane::WriteApplicationFlags(0, {true, false});
    pavane::WriteApplicationFlags(25, {false, true});
    pavane::WriteApplicationFlags(26, {false, false});
    const auto traits = ApplicationTraits();
    EXPECT_TRUE(traits[0].IsCompatible());
    EXPECT_FALSE(traits[0].IsEnabled());
    EXPECT_FALSE(traits[25].IsCompatible());
    EXPECT_TRUE(traits[25].IsEnabled());
    pavane::WriteApplicationFlags(0, {true, true});
    EXPECT_TRUE(ApplicationTraits()[0].IsEnabled());
}

// A list of what uses a share must not lose a row because of it.
TEST_F(ApplicationTest, ApplicationsWhoseFlagsCannotBeReadCountAsCompatibleAndNotEnabled) {
    pavane::WriteApplicationFlags(1, {false, true});
    const LogWatch log;
    {
        const BrokenTable broken("application");
        for (const ApplicationTrait& trait : ApplicationTraits()) {
            EXPECT_TRUE(trait.IsCompatible());
            EXPECT_FALSE(trait.IsEnabled());
            EXPECT_EQ(trait.GetName().GetTexts().size(), 2U);
        }
    }
    EXPECT_NE(log.Text().find("Failed to read the applications: "), std::string::npos) << log.Text();
    EXPECT_FALSE(ApplicationTraits()[1].IsCompatible());
}

TEST_F(ApplicationTest, RowsOfOneShareAreFoundByAnIndex) {
    // Enough rows of other shares for an index to pay.
    Session() << "insert into shared_folder_storage (name, share_id, application_id)"
                 " with recursive number(n) as (select 1 union all select n + 1 from number where n < 10000)"
                 " select 'folder', 100 + n / 10, 0 from number";
    Session() << "analyze shared_folder_storage";
    const std::string plan =
        PlanOf("SELECT name,share_id,application_id FROM shared_folder_storage WHERE share_id = 3 ");
    EXPECT_NE(plan.find("shared_folder_storage_by_share"), std::string::npos) << plan;
    EXPECT_EQ(plan.find("Seq Scan"), std::string::npos) << plan;
    Session() << "insert into shared_folder_storage (name, share_id, application_id) values"
                 " ('a', 3, 5), ('b', 4, 5), ('c', 3, null)";
    std::list<SharedFolderStorage> rows;
    ASSERT_EQ(SharedFolderStorage::m_DBAccess.Enum(rows, " WHERE share_id = 3 ", "", ""), 0);
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows.front().applicationId, 5);
    EXPECT_EQ(rows.back().name, "c");
    EXPECT_EQ(rows.back().applicationId, 0);
}

TEST_F(ApplicationTest, TheWalkOverRecordingServersHasThemAllById) {
    Session() << "insert into rec_server (id, serial, enabled, status) values (7, 'b', 0, 1), (3, 'a', 1, 0)";
    const SlaveRVMgr servers(true);
    ASSERT_EQ(servers.GetSlaveRVList().size(), 2U);
    EXPECT_EQ(servers.GetSlaveRVList().front().GetId(), 3);
    EXPECT_TRUE(servers.GetSlaveRVList().front().GetEnable());
    EXPECT_EQ(servers.GetSlaveRVList().front().GetStatus(), RV_STATUS_ONLINE);
    EXPECT_FALSE(servers.GetSlaveRVList().back().GetEnable());
    EXPECT_TRUE(SlaveRVMgr(false).GetSlaveRVList().empty());
}
