#include "platform/korv/share_key.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "korv/system/exported_key.h"
#include "korv/system/share_creation.h"
#include "tests/unit/korv/private_machine.h"

namespace {

const std::size_t kTenMillion = 10'000'000;

const std::string kNode(32, 'a');
const std::string kSalt = KORVShareEncExportKeySaltGet();

korv::ExportedKey Key() { return {kNode, "token-1", "video", "s3cret $ ü\""}; }

TEST(ExportedKey, ComesBackAsItWas) {
    const auto content = korv::SealKey(Key(), kSalt);
    ASSERT_TRUE(content);
    EXPECT_LE(content->size(), korv::kLongestKeyFile);
    EXPECT_EQ(content->find("s3cret"), std::string::npos);
    const auto key = korv::OpenKey(*content, kSalt);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->nodeId, kNode);
    EXPECT_EQ(key->shareToken, "token-1");
    EXPECT_EQ(key->shareName, "video");
    EXPECT_EQ(key->password, Key().password);
    EXPECT_NE(*content, *korv::SealKey(Key(), kSalt)) << "a nonce is used once";
    EXPECT_FALSE(korv::OpenKey(*content, "another salt"));
}

TEST(ExportedKey, IsRefusedAfterAnyChange) {
    const std::string content = *korv::SealKey(Key(), kSalt);
    for (std::size_t i = 0; i < content.size(); ++i) {
        std::string changed = content;
        changed[i] = static_cast<char>(changed[i] ^ 1);
        EXPECT_FALSE(korv::OpenKey(changed, kSalt)) << "byte " << i;
        EXPECT_FALSE(korv::OpenKey(content.substr(0, i), kSalt)) << "the first " << i << " bytes";
    }
    EXPECT_FALSE(korv::OpenKey(content + "x", kSalt));
    EXPECT_FALSE(korv::OpenKey(std::string(kTenMillion, 'x'), kSalt));
}

TEST(ExportedKey, HasRoomForTheLongestPartsOnly) {
    korv::ExportedKey key = Key();
    key.shareName.assign(255, 'n');
    key.shareToken.assign(255, 't');
    key.password.assign(2048, 'p');
    const auto content = korv::SealKey(key, kSalt);
    ASSERT_TRUE(content);
    EXPECT_LE(content->size(), korv::kLongestKeyFile);
    EXPECT_EQ(korv::OpenKey(*content, kSalt)->password, key.password);
    key.password += 'p';
    EXPECT_FALSE(korv::SealKey(key, kSalt));
    key.password.clear();
    EXPECT_FALSE(korv::SealKey(key, kSalt));
}

TEST(ExportedKey, TravelsAsATextThatNamesItsShare) {
    const auto parts = korv::ParseKeyText(korv::KeyText(Key()));
    ASSERT_TRUE(parts);
    EXPECT_EQ(parts->shareToken, "token-1");
    EXPECT_EQ(parts->password, Key().password);
    EXPECT_FALSE(korv::ParseKeyText("s3cret $ typed"));
    EXPECT_FALSE(korv::ParseKeyText("$korvkey$1$no-end"));
}

class ShareKeyFile : public MachineTest {
protected:
    static std::string Path() { return machine::StateFolder() + "/upload"; }

    int ReadFile(std::size_t size = 4096) {
        m_buffer.fill('x');
        return KORVShareEncKeyFileRead(Path().c_str(), KORVShareEncExportKeySaltGet(), m_buffer.data(), size);
    }

    bool IsWiped() const {
        return std::all_of(m_buffer.begin(), m_buffer.end(), [](char each) { return each == '\0'; });
    }

    static void Write(const std::string& content) { std::ofstream(Path(), std::ios::binary) << content; }

    std::array<char, 4096> m_buffer{};
};

TEST_F(ShareKeyFile, GivesTheKeyOfAShareThatIsThere) {
    korv::ShareRow share;
    share.name = "video";
    share.volPath = machine::Volume();
    ASSERT_EQ(korv::CreateShare(share).end, korv::CreationEnd::kCreated);
    const korv::ExportedKey key{korv::NodeId(), korv::FindShare("video")->token, "video", "s3cret"};
    Write(*korv::SealKey(key, kSalt));
    EXPECT_GE(ReadFile(), 0);
    EXPECT_EQ(korv::ParseKeyText(m_buffer.data())->password, "s3cret");
    EXPECT_EQ(KLIBCErrGet(), 0);
    EXPECT_LT(ReadFile(8), 0) << "a buffer that is too small";
    EXPECT_EQ(m_buffer[0], '\0');
    EXPECT_EQ(m_buffer[8], 'x') << "nothing beyond the buffer is touched";
}

TEST_F(ShareKeyFile, TellsThatItsShareIsGone) {
    Write(*korv::SealKey({korv::NodeId(), "no-such-token", "video", "s3cret"}, kSalt));
    EXPECT_LT(ReadFile(), 0);
    EXPECT_EQ(KLIBCErrGet(), 0xA800);
    EXPECT_TRUE(IsWiped());
}

TEST_F(ShareKeyFile, OfAnotherNodeIsLeftToThatNode) {
    Write(*korv::SealKey({kNode, "no-such-token", "video", "s3cret"}, kSalt));
    EXPECT_GE(ReadFile(), 0);
    EXPECT_EQ(korv::ParseKeyText(m_buffer.data())->shareToken, "no-such-token");
}

TEST_F(ShareKeyFile, RefusesWhatIsNoKeyFile) {
    EXPECT_LT(ReadFile(), 0) << "missing";
    EXPECT_NE(KLIBCErrGet(), 0);
    for (const std::string& content :
         {std::string(), std::string("random bytes"), std::string(kTenMillion, 'x'),
          korv::SealKey(Key(), kSalt)->substr(1)}) {
        Write(content);
        EXPECT_LT(ReadFile(), 0);
        EXPECT_NE(KLIBCErrGet(), 0);
        EXPECT_NE(KLIBCErrGet(), 0xA800);
        EXPECT_TRUE(IsWiped());
    }
    std::remove(Path().c_str());
    ASSERT_EQ(mkfifo(Path().c_str(), 0600), 0);
    EXPECT_LT(ReadFile(), 0) << "a pipe must not block";
    EXPECT_LT(KORVShareEncKeyFileRead("", kSalt.c_str(), m_buffer.data(), m_buffer.size()), 0);
}

TEST_F(ShareKeyFile, NamesTheNodeOnceForAll) {
    const std::string id = korv::NodeId();
    EXPECT_EQ(id.size(), 32U);
    EXPECT_EQ(korv::NodeId(), id);
}

}  // namespace
