#include "cli/far_encryption.h"

#include <gtest/gtest.h>

#include "cli/input_error.h"

namespace {

using cli::InputError;
using cli::IsEncryptedThere;

// The host's record 4 of a share of recording server 2.
Json::Value Share(int encType, bool isMigrating = false) {
    Json::Value share(Json::objectValue);
    share["shareId"] = 4;
    share["shareRvId"] = 2;
    share["shareName"] = "vault";
    share["encType"] = encType;
    share["blMigrating"] = isMigrating;
    return share;
}

Json::Value Checked(bool hasAnswered = true) {
    Json::Value check(Json::objectValue);
    check["servers"][0]["id"] = 2;
    check["servers"][0]["answered"] = hasAnswered;
    check["differences"] = Json::Value(Json::arrayValue);
    return check;
}

Json::Value Differing(int shareId, int encType, bool isMigrating = false) {
    Json::Value difference(Json::objectValue);
    difference["kind"] = "differs";
    difference["shareId"] = shareId;
    difference["encType"] = encType;
    difference["migrating"] = isMigrating;
    Json::Value check = Checked();
    check["differences"].append(difference);
    return check;
}

}  // namespace

TEST(FarEncryption, IsTheRecordsWhenBothSidesAgree) {
    EXPECT_FALSE(IsEncryptedThere(Share(0), Checked()));
    EXPECT_TRUE(IsEncryptedThere(Share(2), Checked()));
    EXPECT_TRUE(IsEncryptedThere(Share(1), Checked())) << "locked";
    EXPECT_FALSE(IsEncryptedThere(Share(0), Differing(5, 2))) << "another share differs";
}

TEST(FarEncryption, IsTheServersWhenTheyDiffer) {
    EXPECT_TRUE(IsEncryptedThere(Share(0), Differing(4, 2)));
    EXPECT_FALSE(IsEncryptedThere(Share(2), Differing(4, 0)));
    EXPECT_FALSE(IsEncryptedThere(Share(2, true), Differing(4, 0, false))) << "moved when last heard of";
}

TEST(FarEncryption, IsNotGuessed) {
    EXPECT_THROW(IsEncryptedThere(Share(0), Checked(false)), InputError);
    EXPECT_THROW(IsEncryptedThere(Share(0, true), Checked()), InputError);
    EXPECT_THROW(IsEncryptedThere(Share(0), Differing(4, 0, true)), InputError);
    Json::Value gone = Differing(4, 0);
    gone["differences"][0]["kind"] = "stale";
    EXPECT_THROW(IsEncryptedThere(Share(0), gone), InputError);
}
