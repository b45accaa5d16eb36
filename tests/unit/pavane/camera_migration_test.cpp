#include "pavane/recorder/camera_migration.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/pavane/camera.h"
#include "platform/pavane/key_value_file.h"

#include "pavane/recorder/camera_store.h"
#include "tests/unit/pavane/test_node.h"

namespace {

namespace fs = std::filesystem;

class CameraMigration : public StoreTest {
protected:
    CameraMigration() {
        fs::remove_all(TestNode::Instance().StateDir() + "/migrations");
        std::vector<pavane::CameraRecord> cameras{{0, 0, "door", "/volume1/rec/door", 0},
                                                  {0, 2, "yard", "/volume1/rec/yard", 0}};
        pavane::ImportCameras(cameras);
        for (const pavane::CameraRecord& camera : pavane::ListCameras(0, 2).cameras) {
            (camera.ownerRvId == 0 ? m_own : m_other) = camera.id;
        }
    }

    static std::string SourceOf(int camera) {
        std::string value;
        return PVFileGetVal(GetRecMigrateTmpFilePath(camera), "srcDir", value) > 0 ? value : "";
    }

    int m_own = 0;
    int m_other = 0;
};

}  // namespace

TEST_F(CameraMigration, ItsFileNamesTheSourceWhileItRuns) {
    EXPECT_FALSE(fs::exists(GetRecMigrateTmpFilePath(m_own)));
    for (const char* source : {"/volume1/rec/door", "/volume1/a \"b\" $c #\\d", "/volume1/it's/\\\\\"'",
                               "/volume1/\xC3\xA4/x=y"}) {
        pavane::StartCameraMigration(m_own, source);
        EXPECT_EQ(SourceOf(m_own), source);
    }
    const auto mode = fs::status(GetRecMigrateTmpFilePath(m_own)).permissions();
    EXPECT_EQ(mode, fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_TRUE(pavane::StopCameraMigration(m_own));
    EXPECT_FALSE(fs::exists(GetRecMigrateTmpFilePath(m_own)));
    EXPECT_FALSE(pavane::StopCameraMigration(m_own));
    EXPECT_TRUE(fs::is_empty(TestNode::Instance().StateDir() + "/migrations"));
}

TEST_F(CameraMigration, OnlyCamerasOfThisServerMigrateAndFromCleanPaths) {
    EXPECT_THROW(pavane::StartCameraMigration(m_other, "/volume1/rec/yard"), std::invalid_argument);
    EXPECT_THROW(pavane::StartCameraMigration(999999, "/volume1/rec/yard"), std::invalid_argument);
    for (const char* source : {"", "volume1/rec", "/volume1/new\nsrcDir=/etc"}) {
        EXPECT_THROW(pavane::StartCameraMigration(m_own, source), std::invalid_argument) << source;
    }
    EXPECT_FALSE(fs::exists(GetRecMigrateTmpFilePath(m_own)));
}

TEST_F(CameraMigration, TheLocalCamerasAreThoseOfThisServerInTheOrderOfTheirIds) {
    std::vector<pavane::CameraRecord> cameras{{0, 0, "gate", "", 1}};
    pavane::ImportCameras(cameras);
    const std::list<Camera> local = GetCamLocalList(false, "", "", false, false);
    ASSERT_EQ(local.size(), 2U);
    EXPECT_EQ(local.front().GetId(), m_own);
    EXPECT_EQ(local.front().GetStoragePath(), "/volume1/rec/door");
    EXPECT_EQ(local.front().GetOwnerRvId(), 0);
    EXPECT_LT(local.front().GetId(), local.back().GetId());
    EXPECT_EQ(GetCamLocalList(false, "gate", "", false, false).size(), 1U);
    EXPECT_EQ(GetCamLocalList(false, "yard", "", false, false).size(), 0U);
    EXPECT_EQ(GetCamLocalList(false, "", "a group", false, false).size(), 0U);
}
