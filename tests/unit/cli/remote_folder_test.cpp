#include "cli/remote_folder.h"

#include <gtest/gtest.h>

namespace {

cli::RemoteFolder Parse(const std::string& given) {
    CLI::App app;
    cli::RemoteFolder folder;
    folder.AddOptions(app);
    app.parse("//nas/rec " + given);
    return folder;
}

std::string MountPointOf(const std::string& given) { return Parse(given).mountPoint; }

std::string MountingOptionsOf(const std::string& given) {
    return Parse("/volume1/rec/nas " + given).OptionsOfMounting();
}

TEST(RemoteFolder, TakesAMountPointAsAShellCompletesIt) {
    EXPECT_EQ(MountPointOf("/volume1/rec/nas"), "/volume1/rec/nas");
    EXPECT_EQ(MountPointOf("/volume1/rec/nas/"), "/volume1/rec/nas");
    EXPECT_EQ(MountPointOf("/volume1/rec/nas//"), "/volume1/rec/nas");
    EXPECT_EQ(MountPointOf("/"), "/");
}

TEST(RemoteFolder, TellsWhichOptionsOnlySayHowToMount) {
    EXPECT_EQ(MountingOptionsOf(""), "");
    EXPECT_EQ(MountingOptionsOf("--type nfs"), "");
    EXPECT_EQ(MountingOptionsOf("--auto --account x --options ro"), "--auto, --account, --options");
    EXPECT_EQ(MountingOptionsOf("--nfs-version 3 --protocol tcp"), "--nfs-version, --protocol");
    EXPECT_EQ(MountingOptionsOf("--password-file x"), "--password-file");
    EXPECT_EQ(MountingOptionsOf("--password-stdin"), "--password-stdin");
}

}  // namespace
