#include "korv/system/key_value_file.h"

#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <sys/stat.h>

#include "platform/korv/configuration.h"
#include "platform/korv/key_value_file.h"

#include "korv/system/accounts.h"
#include "tests/unit/korv/private_machine.h"
#include "tests/unit/korv/silent_file_system.h"

namespace {

class KeyValueFileTest : public MachineTest {
protected:
    std::string Path() const { return machine::Volume() + "/settings.conf"; }
    void Write(const std::string& text) { std::ofstream(Path()) << text; }

    std::string Get(const std::string& key) {
        std::array<char, 16> value{"unchanged"};
        const int length = KLIBCFileGetKeyValue(Path().c_str(), key.c_str(), value.data(), value.size(), 0);
        return std::to_string(length) + ":" + value.data();
    }

    bool Has(const std::string& key, const std::string& value) {
        return KLIBCFileCheckKeyValue(Path().c_str(), key.c_str(), value.c_str(), 0) != 0;
    }
};

}  // namespace

TEST_F(KeyValueFileTest, ReadsPlainAndQuotedValues) {
    Write("plain=yes\ndouble=\"two words\"\nsingle='it \"is\"'\n  spaced \t=  out  \r\nempty=\nlast=no end");
    EXPECT_EQ(Get("plain"), "3:yes");
    EXPECT_EQ(Get("double"), "9:two words");
    EXPECT_EQ(Get("single"), "7:it \"is\"");
    EXPECT_EQ(Get("spaced"), "3:out");
    EXPECT_EQ(Get("empty"), "0:");
    EXPECT_EQ(Get("last"), "6:no end");
    EXPECT_EQ(Get("absent"), "-1:unchanged");
}

TEST_F(KeyValueFileTest, TellsCommentsKeysAndHalfQuotesApart) {
    Write(
        "#key=comment\n # "
        "key=too\nkeys=no\nmykey=no\nkey=a=b\n=nothing\nalone\nhalf=\"open\nback=\"a\\\"b\\\\c\\d\"\n");
    EXPECT_EQ(Get("key"), "3:a=b");
    EXPECT_EQ(Get("half"), "5:\"open");
    EXPECT_EQ(Get("back"), "7:a\"b\\c\\d");
    EXPECT_EQ(Get("alone"), "-1:unchanged");
    EXPECT_EQ(Get("#key"), "-1:unchanged");
}

TEST_F(KeyValueFileTest, TheLastOfAKeyCounts) {
    Write("supportntfswrite=no\nsupportntfswrite=\"yes\"\n");
    EXPECT_TRUE(Has("supportntfswrite", "yes"));
    EXPECT_FALSE(Has("supportntfswrite", "no"));
    EXPECT_FALSE(Has("supportntfswrite", "YES"));
    EXPECT_FALSE(Has("supporthfsplus", "yes"));
}

TEST_F(KeyValueFileTest, AValueThatDoesNotFitIsAFailure) {
    Write("fits=123456789012345\nlong=1234567890123456\n");
    EXPECT_EQ(Get("fits"), "15:123456789012345");
    EXPECT_EQ(Get("long"), "-1:unchanged");
}

TEST_F(KeyValueFileTest, WhatIsNoFileHasNoValuesAndDoesNotBlock) {
    EXPECT_EQ(Get("key"), "-1:unchanged");
    ASSERT_EQ(mkfifo(Path().c_str(), 0600), 0);
    EXPECT_EQ(Get("key"), "-1:unchanged");
    std::filesystem::remove(Path());
    std::filesystem::create_directory(Path());
    EXPECT_EQ(Get("key"), "-1:unchanged");
    EXPECT_FALSE(Has("key", "value"));
}

TEST_F(KeyValueFileTest, ReadsBackWhatWasWritten) {
    const korv::KeyValues values{{"sdb", "done"}, {"sdc", "a \"b\\ 'c'  "}, {"sdd", ""}};
    korv::WriteKeyValues(Path(), values);
    EXPECT_EQ(korv::ReadKeyValues(Path()), values);
    struct stat status {};
    ASSERT_EQ(stat(Path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
    EXPECT_EQ(machine::Entries(machine::Volume()), std::vector<std::string>{"settings.conf"});
}

// What others put in the place of a file that isn't there yet.
TEST_F(KeyValueFileTest, WritesOverWhatIsNoFileAndKeepsWhatAFolderHolds) {
    const korv::KeyValues values{{"sdb", "done"}};
    std::filesystem::create_directory(Path());
    std::ofstream(Path() + "/mine") << "kept";
    ASSERT_EQ(chown(Path().c_str(), 54321, 54321), 0);
    korv::WriteKeyValues(Path(), values);
    EXPECT_EQ(korv::ReadKeyValues(Path()), values);
    const auto entries = machine::Entries(machine::Volume());
    ASSERT_EQ(entries.size(), 2U);
    const std::string& name = entries[entries[0] == "settings.conf" ? 1 : 0];
    const std::string aside = machine::Volume() + "/" + name;
    EXPECT_EQ(aside.size(), Path().size() + std::string(".XXXXXX").size());
    std::string text;
    std::ifstream(aside + "/mine") >> text;
    EXPECT_EQ(text, "kept");
    struct stat status {};
    ASSERT_EQ(stat(aside.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 54321U);

    std::filesystem::remove(Path());
    std::filesystem::create_directory_symlink(aside, Path());
    korv::WriteKeyValues(Path(), values);
    EXPECT_FALSE(std::filesystem::is_symlink(Path()));
    EXPECT_EQ(korv::ReadKeyValues(Path()), values);
    EXPECT_EQ(machine::Entries(machine::Volume()), entries);
}

// Nobody waits for its server.
TEST_F(KeyValueFileTest, WritesInThePlaceOfWhatAnybodyMayHaveMounted) {
    std::filesystem::create_directory(Path());
    const SilentFileSystem silent(Path(), SilentFileSystem::Silence::kEverything);
    korv::WriteKeyValues(Path(), {{"sdb", "done"}});
    EXPECT_EQ(korv::ReadKeyValues(Path()), (korv::KeyValues{{"sdb", "done"}}));
}

TEST_F(KeyValueFileTest, RefusesWhatWouldReadAsSomethingElse) {
    EXPECT_THROW(korv::KeyValueText({{"a", "b\nc=d"}}), std::invalid_argument);
    EXPECT_THROW(korv::KeyValueText({{"a b", "c"}}), std::invalid_argument);
    EXPECT_THROW(korv::KeyValueText({{"#a", "c"}}), std::invalid_argument);
    EXPECT_THROW(korv::KeyValueText({{"", "c"}}), std::invalid_argument);
}

TEST_F(KeyValueFileTest, WhereAnybodyMayMakeFilesOnlyTrustedOnesCount) {
    constexpr uid_t kSomebody = 54321;
    const auto service = korv::FindUser(KORV::GetConfiguration().serviceUser);
    ASSERT_TRUE(service);
    ASSERT_EQ(chmod(machine::Volume().c_str(), 01777), 0);
    Write("key=value\n");
    EXPECT_EQ(Get("key"), "5:value");
    ASSERT_EQ(chown(Path().c_str(), service->uid, 0), 0);
    EXPECT_EQ(Get("key"), "5:value");
    ASSERT_EQ(chown(Path().c_str(), kSomebody, 0), 0);
    EXPECT_EQ(Get("key"), "-1:unchanged");
    EXPECT_FALSE(Has("key", "value"));
    ASSERT_EQ(chmod(machine::Volume().c_str(), 0755), 0);
    EXPECT_EQ(Get("key"), "5:value");
}

TEST_F(KeyValueFileTest, ALinkCountsOnlyWhereNotAnybodyCanMakeIt) {
    const std::string target = machine::Volume() + "/target";
    std::ofstream(target) << "key=value\n";
    std::filesystem::create_symlink(target, Path());
    EXPECT_EQ(Get("key"), "5:value");
    ASSERT_EQ(chmod(machine::Volume().c_str(), 01777), 0);
    EXPECT_EQ(Get("key"), "-1:unchanged");
    ASSERT_EQ(chmod(machine::Volume().c_str(), 0755), 0);
}

TEST_F(KeyValueFileTest, ReplacesALinkInsteadOfFollowingIt) {
    const std::string victim = machine::Volume() + "/victim";
    std::ofstream(victim) << "precious";
    std::filesystem::create_symlink(victim, Path());
    korv::WriteKeyValues(Path(), {{"a", "b"}});
    std::string text;
    std::getline(std::ifstream(victim), text);
    EXPECT_EQ(text, "precious");
    EXPECT_FALSE(std::filesystem::is_symlink(Path()));
}
