#include <sodium.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "platform/korv/api_runner.h"
#include "platform/korv/share_key.h"

#include "include/error_table.h"
#include "korv/framework/api_registry.h"
#include "korv/framework/module_loader.h"
#include "korv/services/share_recovery.h"
#include "korv/system/database.h"
#include "korv/system/encrypted_share.h"
#include "korv/system/mount_probe.h"
#include "korv/system/share_change_store.h"
#include "korv/system/share_creation.h"
#include "tests/unit/korv/private_machine.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kPassword = "s3cret \"$\" ü";

Json::Value Call(const char* method, const std::string& name, const std::string& password = "",
                 const char* user = "admin") {
    korv::LoadModules({}, korv::Registry());
    Json::Value request(Json::objectValue);
    request["name"] = name;
    request["password"] = password;
    Json::Value reply;
    KORV::APIRunner::Exec(reply, "KORV.Core.Share.Crypto", 1, method, request, user);
    return reply;
}

// A code that has no text for those who read it is a failure by itself; unlocking by a key file hands it on.
int CodeOf(const Json::Value& reply) {
    const int code = reply["success"].asBool() ? 0 : reply["error"]["code"].asInt();
    for (const char* const api : {"KORV.Core.Share.Crypto", "KORV.Pavane.Share"}) {
        EXPECT_TRUE(code == 0 || FindError(api, code) != nullptr) << api << " " << code;
    }
    return code;
}

class CryptoApi : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        MakeEncrypted("video");
    }

    void TearDown() override {
        for (const auto& share : korv::ListShares()) {
            korv::CipherOf(share).Unmount(std::chrono::seconds(1), true);
        }
        MachineTest::TearDown();
    }

    static void MakeEncrypted(const std::string& name) {
        korv::ShareRow share;
        share.name = name;
        share.volPath = machine::Volume();
        share.encryption = korv::ShareEncryption::kLocked;
        ASSERT_EQ(korv::CreateShare(share, {}, kPassword).end, korv::CreationEnd::kCreated);
        ASSERT_EQ(korv::LockShare(*korv::FindShare(name)), korv::CipherEnd::kDone);
    }

    static std::string ExportTo(const std::string& file) {
        const Json::Value reply = Call("export", "video", kPassword);
        EXPECT_EQ(CodeOf(reply), 0) << reply;
        const std::string text = reply["data"]["content"].asString();
        std::string content(text.size(), '\0');
        std::size_t length = 0;
        EXPECT_EQ(
            sodium_base642bin(reinterpret_cast<unsigned char*>(content.data()), content.size(), text.data(),
                              text.size(), nullptr, &length, nullptr, sodium_base64_VARIANT_ORIGINAL),
            0);
        content.resize(length);
        std::ofstream(file, std::ios::binary) << content;
        return reply["data"]["file_name"].asString();
    }

    static std::string KeyIn(const std::string& file) {
        std::string buffer(4096, '\0');
        EXPECT_GE(KORVShareEncKeyFileRead(file.c_str(), KORVShareEncExportKeySaltGet(), buffer.data(),
                                          buffer.size()),
                  0);
        return buffer.c_str();
    }

    static std::string File() { return machine::StateFolder() + "/video.key"; }
};

TEST_F(CryptoApi, AShareThatIsBeingRemovedOrRenamedIsNeitherUnlockedNorLocked) {
    const korv::ShareRow share = *korv::FindShare("video");
    korv::SaveShareRemoval({share.token, share.name, share.volPath, false, 0, korv::ThisProcess()});
    constexpr int kInUse = 3305;
    EXPECT_EQ(CodeOf(Call("decrypt", "video", kPassword)), kInUse);
    EXPECT_EQ(CodeOf(Call("lock", "video")), kInUse);
    EXPECT_EQ(korv::EncryptionOf(share), korv::ShareEncryption::kLocked);
    korv::DropShareRemoval(share.token);
    EXPECT_EQ(CodeOf(Call("decrypt", "video", kPassword)), 0);
    EXPECT_EQ(korv::EncryptionOf(share), korv::ShareEncryption::kUnlocked);
}

TEST_F(CryptoApi, LocksAndUnlocks) {
    EXPECT_EQ(CodeOf(Call("decrypt", "video", "wrong")), 3328);
    EXPECT_EQ(korv::EncryptionOf(*korv::FindShare("video")), korv::ShareEncryption::kLocked);
    EXPECT_EQ(CodeOf(Call("decrypt", "video", kPassword)), 0);
    EXPECT_EQ(korv::EncryptionOf(*korv::FindShare("video")), korv::ShareEncryption::kUnlocked);
    EXPECT_EQ(CodeOf(Call("decrypt", "video", kPassword)), 0) << "unlocked already";
    std::ofstream(machine::Volume() + "/video/recording") << "text";
    {
        const std::ifstream user(machine::Volume() + "/video/recording");
        EXPECT_EQ(CodeOf(Call("lock", "video")), 3305);
        EXPECT_EQ(korv::EncryptionOf(*korv::FindShare("video")), korv::ShareEncryption::kUnlocked);
    }
    EXPECT_EQ(CodeOf(Call("lock", "video")), 0);
    EXPECT_EQ(korv::EncryptionOf(*korv::FindShare("video")), korv::ShareEncryption::kLocked);
    EXPECT_FALSE(fs::exists(machine::Volume() + "/video/recording"));
}

TEST_F(CryptoApi, UnlocksByAnExportedKeyThatShareOnly) {
    MakeEncrypted("other");
    EXPECT_EQ(ExportTo(File()), "video.key");
    const std::string key = KeyIn(File());
    EXPECT_EQ(CodeOf(Call("decrypt", "other", key)), 3330) << "although its password is the same";
    EXPECT_EQ(CodeOf(Call("decrypt", "video", key)), 0);
    EXPECT_EQ(CodeOf(Call("export", "video", kPassword)), 0) << "also while it is unlocked";
}

TEST_F(CryptoApi, ExportsOnlyWhatOpensTheShare) {
    EXPECT_EQ(CodeOf(Call("export", "video", "wrong")), 3328);
    EXPECT_EQ(CodeOf(Call("export", "video", "")), 3328);
    EXPECT_TRUE(fs::is_empty(fs::path(machine::StateFolder()).parent_path() / "key-proofs"));
}

std::string ProofsFolder() { return fs::path(machine::StateFolder()).parent_path() / "key-proofs"; }

// As a process leaves it that is killed between the two halves of its proof.
std::string LeaveAProof(const korv::ShareRow& share) {
    std::string place = ProofsFolder() + "/" + share.token;
    fs::create_directories(place);
    const korv::CipherFolder proof(korv::CipherOf(share).CipherPath(), place);
    EXPECT_EQ(proof.Mount(kPassword, korv::CipherUse::kProve), korv::CipherEnd::kDone);
    return place;
}

TEST_F(CryptoApi, ExportsAfterAProofThatWasKilled) {
    const std::string place = LeaveAProof(*korv::FindShare("video"));
    EXPECT_EQ(CodeOf(Call("export", "video", "wrong")), 3328);
    EXPECT_TRUE(fs::is_empty(ProofsFolder()));
    LeaveAProof(*korv::FindShare("video"));
    EXPECT_TRUE(Call("export", "video", kPassword)["success"].asBool());
    EXPECT_TRUE(fs::is_empty(ProofsFolder()));
}

TEST_F(CryptoApi, AProofThatWasKilledIsTakenAwayByARecovery) {
    const std::string place = LeaveAProof(*korv::FindShare("video"));
    korv::RecoverShares();
    EXPECT_FALSE(korv::IsMounted(place));
    EXPECT_TRUE(fs::is_empty(ProofsFolder()));
}

TEST_F(CryptoApi, SeveralExportAShareAtOnce) {
    korv::CloseDatabase();
    const std::vector<int> ends = machine::InChildren(3, [](int index) {
        const Json::Value reply = Call("export", "video", index == 0 ? "wrong" : kPassword);
        return reply["success"].asBool() ? 0 : reply["error"]["code"].asInt() == 3328 ? 1 : 2;
    });
    EXPECT_EQ(ends, (std::vector<int>{1, 0, 0}));
    EXPECT_TRUE(fs::is_empty(ProofsFolder()));
}

TEST_F(CryptoApi, RefusesOtherSharesAndOtherPeople) {
    korv::ShareRow plain;
    plain.name = "plain";
    plain.volPath = machine::Volume();
    ASSERT_EQ(korv::CreateShare(plain).end, korv::CreationEnd::kCreated);
    for (const char* method : {"decrypt", "lock", "export"}) {
        EXPECT_EQ(CodeOf(Call(method, "nosuch", kPassword)), 3303) << method;
        EXPECT_EQ(CodeOf(Call(method, "plain", kPassword)), 3329) << method;
        EXPECT_EQ(CodeOf(Call(method, "video", kPassword, "alice")), 105) << method;
    }
}

}  // namespace
