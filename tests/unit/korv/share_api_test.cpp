// The web APIs of the NAS side as a worker answers them.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>

#include <json/json.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "platform/korv/api_runner.h"
#include "platform/korv/app_privilege.h"
#include "platform/pavane/rec_share.h"

#include "korv/services/share_recovery.h"
#include "korv/system/database.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/share_creation.h"
#include "korv/system/share_store.h"
#include "korv/system/volume.h"
#include "tests/unit/korv/private_machine.h"

namespace {

namespace fs = std::filesystem;

// Clients know these numbers from the application's own declarations.
static_assert(static_cast<int>(korv::FileSystemType::kUnknown) == FSTYPE_UNKNOWN);
static_assert(static_cast<int>(korv::FileSystemType::kExt4) == FSTYPE_EXT4);
static_assert(static_cast<int>(korv::FileSystemType::kBtrfs) == FSTYPE_BTRFS);
static_assert(static_cast<int>(korv::FileSystemType::kXfs) == FSTYPE_XFS);
static_assert(static_cast<int>(korv::FileSystemType::kNfs) == FSTYPE_NFS);
static_assert(static_cast<int>(korv::FileSystemType::kCifs) == FSTYPE_CIFS);
static_assert(static_cast<int>(korv::FileSystemType::kOther) == FSTYPE_OTHER);
static_assert(static_cast<int>(korv::ShareEncryption::kNone) == SHARE_ENC_NONE);
static_assert(static_cast<int>(korv::ShareEncryption::kLocked) == SHARE_ENC_LOCKED);
static_assert(static_cast<int>(korv::ShareEncryption::kUnlocked) == SHARE_ENC_UNLOCKED);

Json::Value Parse(const std::string& text) {
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
    return value;
}

Json::Value Call(const char* api, const char* method, const Json::Value& params, const char* user = "admin") {
    Json::Value answer;
    KORV::APIRunner::Exec(answer, api, 1, method, params, user);
    return answer;
}

// The error's code; 0 after success.
int Code(const Json::Value& answer) {
    return answer["success"].asBool() ? 0 : answer["error"]["code"].asInt();
}

Json::Value CreateParams(const std::string& name, const std::string& volume = machine::Volume()) {
    Json::Value params = Parse(R"({"shareinfo": {"desc": "Front door", "hidden": true,
        "enable_fileindex": false, "enable_share_cow": false, "advanceperm": {"disable_modify": true}}})");
    params["name"] = name;
    params["shareinfo"]["name"] = name;
    params["shareinfo"]["vol_path"] = volume;
    return params;
}

int Create(const Json::Value& params) { return Code(Call("KORV.Core.Share", "create", params)); }

int Permit(const std::string& name, const std::string& kind, const std::string& permissions) {
    Json::Value params(Json::objectValue);
    params["name"] = name;
    params["user_group_type"] = kind;
    params["permissions"] = Parse(permissions);
    return Code(Call("KORV.Core.Share.Permission", "set", params));
}

// The flag that chattr calls C.
bool IsWrittenInPlace(const std::string& folder) {
    const korv::FileDescriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int flags = 0;
    EXPECT_EQ(ioctl(opened.Get(), FS_IOC_GETFLAGS, &flags), 0);
    return (flags & FS_NOCOW_FL) != 0;
}

class ShareApiTest : public MachineTest {};

TEST_F(ShareApiTest, CreatesGetsAndLists) {
    ASSERT_EQ(Create(CreateParams("rec")), 0);
    ASSERT_EQ(Create(CreateParams("Alpha")), 0);
    const Json::Value share = Call("KORV.Core.Share", "get", Parse(R"({"name": "rec"})"))["data"];
    EXPECT_EQ(share["name"], "rec");
    EXPECT_EQ(share["vol_path"], machine::Volume());
    EXPECT_EQ(share["path"], machine::Volume() + "/rec");
    EXPECT_EQ(share["desc"], "Front door");
    EXPECT_EQ(share["hidden"], true);
    EXPECT_EQ(share["encryption"], 0);
    EXPECT_EQ(share["enable_share_cow"], false);
    EXPECT_EQ(share["is_share_moving"], false);
    EXPECT_TRUE(share["fs_type"].isInt());
    EXPECT_GT(share["vol_size_mb"].asUInt64(), 0U);
    const Json::Value list = Call("KORV.Core.Share", "list", Json::objectValue)["data"];
    EXPECT_EQ(list["total"].asInt(), 2);
    EXPECT_EQ(list["shares"][0]["name"], "Alpha");
    EXPECT_EQ(list["shares"][1], share);
}

TEST_F(ShareApiTest, RefusesNamesAndLeavesNothing) {
    for (const std::string& name :
         {std::string(), std::string("a/b"), std::string(".."), std::string("a\0b", 3), std::string("a\nb"),
          std::string(300, 'x'), std::string("a\xff"), std::string("homes")}) {
        EXPECT_EQ(Create(CreateParams(name)), 3302) << testing::PrintToString(name);
    }
    EXPECT_TRUE(machine::Entries(machine::Volume()).empty());
    EXPECT_TRUE(korv::ListShares().empty());
}

TEST_F(ShareApiTest, TakesMetacharactersAsTheyAre) {
    const std::string name = "'; drop table share; -- $(id) `id` \"&|<>*?";
    EXPECT_EQ(Create(CreateParams(name)), 0);
    EXPECT_TRUE(fs::is_directory(machine::Volume() + "/" + name));
    Json::Value params(Json::objectValue);
    params["name"] = name;
    EXPECT_EQ(Call("KORV.Core.Share", "get", params)["data"]["name"], name);
}

TEST_F(ShareApiTest, RefusesNamesThatDifferInCaseOnlyAndFoldersThatAreThere) {
    EXPECT_EQ(Create(CreateParams("Rec")), 0);
    EXPECT_EQ(Create(CreateParams("rEC")), 3301);
    fs::create_directory(machine::Volume() + "/old");
    EXPECT_EQ(Create(CreateParams("old")), 3301);
}

TEST_F(ShareApiTest, RefusesVolumesThatCannotBeUsed) {
    EXPECT_EQ(Create(CreateParams("rec", "")), 3304);
    EXPECT_EQ(Create(CreateParams("rec", "/nowhere")), 3304);
    EXPECT_EQ(Create(CreateParams("rec", "/tmp")), 3304);
    EXPECT_EQ(Create(CreateParams("rec", machine::Volume() + "/")), 3304);
    EXPECT_EQ(Create(CreateParams("rec", machine::ReadOnlyVolume())), 3304);
    EXPECT_EQ(Create(CreateParams("rec", machine::AbsentVolume())), 3304);
    EXPECT_EQ(Create(CreateParams("rec", machine::FullVolume())), 3306);
    EXPECT_TRUE(korv::ListShares().empty());
    EXPECT_TRUE(korv::ListShareCreations().empty());
}

TEST_F(ShareApiTest, RefusesPasswordsThatCanNotEncrypt) {
    Json::Value params = CreateParams("rec");
    params["shareinfo"]["encryption"] = true;
    EXPECT_EQ(Create(params), 3328);
    for (const std::string& password : {std::string(), std::string("secret\nline"), std::string(2000, 's')}) {
        params["shareinfo"]["enc_passwd"] = password;
        const Json::Value answer = Call("KORV.Core.Share", "create", params);
        EXPECT_EQ(Code(answer), 3328);
        EXPECT_EQ(answer.toStyledString().find("secret"), std::string::npos);
    }
    EXPECT_TRUE(korv::ListShares().empty());
    EXPECT_TRUE(korv::ListShareCreations().empty());
    EXPECT_FALSE(fs::exists(machine::Volume() + "/rec"));
}

TEST_F(ShareApiTest, RenamesDescribesAndHides) {
    ASSERT_EQ(Create(CreateParams("rec")), 0);
    Json::Value params =
        Parse(R"({"name": "rec", "shareinfo": {"name": "neu", "desc": "Yard", "hidden": false,
        "encryption": false, "enc_passwd": ""}})");
    params["shareinfo"]["vol_path"] = machine::Volume();
    EXPECT_EQ(Code(Call("KORV.Core.Share", "set", params)), 0);
    const Json::Value share = Call("KORV.Core.Share", "get", Parse(R"({"name": "neu"})"))["data"];
    EXPECT_EQ(share["path"], machine::Volume() + "/neu");
    EXPECT_EQ(share["desc"], "Yard");
    EXPECT_EQ(share["hidden"], false);
    EXPECT_EQ(Code(Call("KORV.Core.Share", "set", params)), 3303);
    ASSERT_EQ(Create(CreateParams("other")), 0);
    const auto rename = [](const std::string& info) {
        Json::Value wanted = Parse(R"({"name": "neu"})");
        wanted["shareinfo"] = Parse(info);
        return Code(Call("KORV.Core.Share", "set", wanted));
    };
    EXPECT_EQ(rename(R"({"name": "Other"})"), 3301);
    EXPECT_EQ(rename(R"({"name": "homes"})"), 3302);
    EXPECT_EQ(rename(R"({"name": "a/b"})"), 3302);
    EXPECT_EQ(rename(R"({"vol_path": "/volume9"})"), 3304);
    EXPECT_EQ(rename(R"({"hidden": 1})"), 101);
    EXPECT_EQ(rename("{}"), 0);
    EXPECT_EQ(Call("KORV.Core.Share", "get", Parse(R"({"name": "neu"})"))["data"], share);
    EXPECT_EQ(Code(Call("KORV.Core.Share", "set", params, "alice")), 105);
}

TEST_F(ShareApiTest, DeletesWhatCanBeDeletedAndNamesTheRest) {
    ASSERT_EQ(Create(CreateParams("a")), 0);
    ASSERT_EQ(Create(CreateParams("b")), 0);
    const auto remove = [](const std::string& params, const char* user = "admin") {
        return Call("KORV.Core.Share", "delete", Parse(params), user);
    };
    EXPECT_EQ(Code(remove(R"({"name": "a"})", "alice")), 105);
    const Json::Value answer = remove(R"({"name": ["a", "gone", "a"]})");
    EXPECT_EQ(Code(answer), 3303);
    EXPECT_EQ(answer["error"]["errors"]["failed"], Parse(R"([{"name": "gone", "code": 3303}])"));
    EXPECT_EQ(Code(remove(R"({"name": "b"})")), 0);
    EXPECT_TRUE(korv::ListShares().empty());
    EXPECT_FALSE(fs::exists(machine::Volume() + "/a"));
    EXPECT_EQ(Code(remove(R"({"name": []})")), 0);
    EXPECT_EQ(Code(remove(R"({"name": [1]})")), 101);
    EXPECT_EQ(Code(remove(R"({})")), 101);
}

// Puts the members of `changes` over those of `params`, also within objects.
void Overlay(Json::Value& params, const Json::Value& changes) {
    for (const auto& key : changes.getMemberNames()) {
        if (changes[key].isObject() && params[key].isObject()) {
            Overlay(params[key], changes[key]);
        } else {
            params[key] = changes[key];
        }
    }
}

TEST_F(ShareApiTest, RefusesParametersOfTheWrongType) {
    for (const char* change :
         {R"({"name": 5})", R"({"name": null})", R"({"shareinfo": "x"})", R"({"shareinfo": []})",
          R"({"shareinfo": {"name": "other"}})", R"({"shareinfo": {"hidden": "true"}})",
          R"({"shareinfo": {"hidden": 1}})", R"({"shareinfo": {"vol_path": 1}})",
          R"({"shareinfo": {"desc": {}}})", R"({"shareinfo": {"encryption": "no"}})",
          R"({"shareinfo": {"advanceperm": 1}})"}) {
        Json::Value params = CreateParams("rec");
        Overlay(params, Parse(change));
        EXPECT_EQ(Create(params), 101) << change;
    }
    EXPECT_EQ(Code(Call("KORV.Core.Share", "get", Parse(R"({"name": []})"))), 101);
    EXPECT_EQ(Permit("rec", "system", R"("x")"), 101);
    EXPECT_EQ(Permit("rec", "system", R"(["x"])"), 101);
}

TEST_F(ShareApiTest, IsForAdministratorsOnly) {
    const std::vector<std::pair<const char*, const char*>> methods{
        {"KORV.Core.Share", "create"},  {"KORV.Core.Share", "get"},
        {"KORV.Core.Share", "list"},    {"KORV.Core.Share.Permission", "set"},
        {"KORV.Core.AppPriv", "grant"}, {"KORV.Core.AppPriv", "revoke"},
        {"KORV.Core.AppPriv", "list"},  {"KORV.Core.Volume", "list"}};
    for (const auto& [api, method] : methods) {
        EXPECT_EQ(Code(Call(api, method, CreateParams("rec"), "alice")), 105) << api << " " << method;
        EXPECT_NE(Code(Call(api, method, CreateParams("rec"), "boss")), 105) << api << " " << method;
    }
}

TEST_F(ShareApiTest, UnknownSharesAreToldSo) {
    EXPECT_EQ(Create(CreateParams("rec")), 0);
    for (const char* name :
         {R"({"name": "none"})", R"({"name": "REC"})", R"({})", R"({"name": "re\u0000"})"}) {
        EXPECT_EQ(Code(Call("KORV.Core.Share", "get", Parse(name))), 3303) << name;
    }
    EXPECT_EQ(Permit("none", "system", R"([{"name": "Pavane", "is_writable": true}])"), 3303);
}

TEST_F(ShareApiTest, PermitsWhatIsAskedOrNothing) {
    ASSERT_EQ(Create(CreateParams("rec")), 0);
    const std::string writable = R"("is_writable": true, "is_readonly": false, "is_deny": false)";
    EXPECT_EQ(Permit("rec", "system", R"([{"name": "nobody-here", )" + writable + "}]"), 3307);
    EXPECT_EQ(Permit("rec", "local_group", R"([{"name": "alice", )" + writable + "}]"), 3307);
    EXPECT_EQ(Permit("rec", "local_user", R"([{"name": "alice", "is_deny": true}])"), 3308);
    EXPECT_EQ(Permit("rec", "local_user", R"([{"name": "alice"}])"), 3308);
    EXPECT_EQ(Permit("rec", "ldap_user", R"([{"name": "alice", )" + writable + "}]"), 3309);
    EXPECT_EQ(Permit("rec", "local_user",
                     R"([{"name": "alice", )" + writable + R"(}, {"name": "gone", )" + writable + "}]"),
              3307);
    korv::CloseDatabase();
    const std::string path = machine::Volume() + "/rec";
    EXPECT_EQ(machine::AccessOf(machine::kAliceUid, {}, path), (machine::Access{false, false}));

    EXPECT_EQ(Permit("rec", "system", R"([{"name": "Pavane", )" + writable + "}]"), 0);
    EXPECT_EQ(Permit("rec", "local_group", R"([{"name": "administrators", )" + writable + "}]"), 0);
    EXPECT_EQ(Permit("rec", "local_user", R"([{"name": "alice", "is_readonly": true}])"), 0);
    korv::CloseDatabase();
    EXPECT_EQ(machine::AccessOf(machine::kPavaneUid, {}, path), (machine::Access{true, true}));
    EXPECT_EQ(machine::AccessOf(machine::kAliceUid, {}, path), (machine::Access{true, false}));
}

TEST_F(ShareApiTest, WorksUnderTheIdsOfAWorker) {
    EXPECT_EQ(machine::InChild([] {
                  machine::BecomeEffectively(machine::kPavaneUid, {});
                  const int created = Create(CreateParams("rec"));
                  const int permitted =
                      Permit("rec", "system", R"([{"name": "Pavane", "is_writable": true}])");
                  return created == 0 && permitted == 0 && geteuid() == machine::kPavaneUid ? 0 : 1;
              }),
              0);
    struct stat status {};
    ASSERT_EQ(stat(machine::DatabaseFile().c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, machine::kPavaneUid);
    EXPECT_EQ(machine::AccessOf(machine::kPavaneUid, {}, machine::Volume() + "/rec"),
              (machine::Access{true, true}));
    EXPECT_TRUE(fs::exists(machine::SambaInclude()));
}

TEST_F(ShareApiTest, AWorkerPutsInOrderWhatAnotherLeftBeforeItRefusesAName) {
    machine::InChild([] {
        korv::ShareRow share;
        share.name = "rec";
        share.volPath = machine::Volume();
        korv::CreateShare(share, [](korv::CreationStep) { raise(SIGKILL); });
        return 0;
    });
    EXPECT_EQ(Create(CreateParams("rec")), 0);
}

TEST_F(ShareApiTest, RecoveryLeavesTheDatabaseClosed) {
    korv::RecoverShares();
    EXPECT_EQ(machine::InChild([] {
                  korv::Database();
                  return 0;
              }),
              0);
}

TEST_F(ShareApiTest, MakesSubvolumesOnBtrfs) {
    if (!machine::MountBtrfs()) {
        GTEST_SKIP() << "no loop devices here";
    }
    constexpr ino_t kSubvolumeInode = 256;
    const auto inodeOf = [](const std::string& name) {
        struct stat status {};
        return stat((machine::BtrfsVolume() + "/" + name).c_str(), &status) == 0 ? status.st_ino : 0;
    };
    Json::Value cow = CreateParams("cow", machine::BtrfsVolume());
    cow["shareinfo"]["enable_share_cow"] = true;
    EXPECT_EQ(Create(cow), 0);
    EXPECT_EQ(Create(CreateParams("rec", machine::BtrfsVolume())), 0);
    EXPECT_EQ(inodeOf("cow"), kSubvolumeInode);
    EXPECT_EQ(inodeOf("rec"), kSubvolumeInode);
    EXPECT_FALSE(IsWrittenInPlace(machine::BtrfsVolume() + "/cow"));
    EXPECT_TRUE(IsWrittenInPlace(machine::BtrfsVolume() + "/rec"));
    EXPECT_EQ(Permit("rec", "system", R"([{"name": "Pavane", "is_writable": true}])"), 0);
    EXPECT_EQ(Create(CreateParams("REC", machine::BtrfsVolume())), 3301);
    fs::create_directory(machine::BtrfsVolume() + "/old");
    EXPECT_EQ(Create(CreateParams("old", machine::BtrfsVolume())), 3301);
    EXPECT_EQ(Call("KORV.Core.Share", "get", Parse(R"({"name": "rec"})"))["data"]["fs_type"], FSTYPE_BTRFS);
    std::vector<std::string> entries = machine::Entries(machine::BtrfsVolume());
    EXPECT_EQ(entries.size(), 3U);
}

TEST_F(ShareApiTest, PrivilegesAreGrantedListedAndRevoked) {
    const auto call = [](const char* method, const std::string& params) {
        return Call("KORV.Core.AppPriv", method, Parse(params));
    };
    const std::string grant =
        R"({"user": "alice", "app": "KORV.KRX.Pavane", "address_range": "192.0.2.9/24"})";
    EXPECT_EQ(Code(call("grant", grant)), 0);
    const Json::Value list = call("list", R"({"user": "alice"})")["data"];
    EXPECT_EQ(list["total"].asInt(), 1);
    EXPECT_EQ(list["privileges"][0]["address_range"], "192.0.2.0/24");
    EXPECT_TRUE(SDKUser::AppPrivUserHas("alice", "KORV.KRX.Pavane", "192.0.2.200"));
    EXPECT_EQ(Code(call("revoke", R"({"user": "alice", "app": "KORV.KRX.Pavane"})")), 3313);
    EXPECT_EQ(Code(call("revoke", grant)), 0);
    EXPECT_FALSE(SDKUser::AppPrivUserHas("alice", "KORV.KRX.Pavane", "192.0.2.200"));
    EXPECT_EQ(Code(call("grant", R"({"user": "gone", "app": "a"})")), 3310);
    EXPECT_EQ(Code(call("grant", R"({"user": "alice", "app": "a b"})")), 3311);
    EXPECT_EQ(Code(call("grant", R"({"user": "alice"})")), 3311);
    EXPECT_EQ(Code(call("grant", R"({"user": "alice", "app": "a", "address_range": "1.2.3"})")), 3312);
    EXPECT_EQ(Code(call("grant", R"({"user": 1, "app": "a"})")), 101);
}

TEST_F(ShareApiTest, VolumesAreListedAsConfigured) {
    const Json::Value data = Call("KORV.Core.Volume", "list", Json::objectValue)["data"];
    EXPECT_EQ(data["total"].asInt(), 5);
    EXPECT_EQ(data["volumes"][0]["vol_path"], machine::Volume());
    EXPECT_EQ(data["volumes"][0]["writable"], true);
    EXPECT_EQ(data["volumes"][2]["writable"], false);
    EXPECT_EQ(data["volumes"][2]["mounted"], true);
    EXPECT_EQ(data["volumes"][3]["mounted"], false);
}

}  // namespace
