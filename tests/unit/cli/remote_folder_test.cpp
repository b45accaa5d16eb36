#include "cli/remote_folder.h"

#include <gtest/gtest.h>

namespace {

std::string MountPointOf(const std::string& given) {
    CLI::App app;
    cli::RemoteFolder folder;
    folder.AddOptions(app);
    app.parse("//nas/rec " + given);
    return folder.mountPoint;
}

TEST(RemoteFolder, TakesAMountPointAsAShellCompletesIt) {
    EXPECT_EQ(MountPointOf("/volume1/rec/nas"), "/volume1/rec/nas");
    EXPECT_EQ(MountPointOf("/volume1/rec/nas/"), "/volume1/rec/nas");
    EXPECT_EQ(MountPointOf("/volume1/rec/nas//"), "/volume1/rec/nas");
    EXPECT_EQ(MountPointOf("/"), "/");
}

}  // namespace
