#include <algorithm>
#include <filesystem>
#include <fstream>

#include "korv/system/child_process.h"
#include "korv/system/database.h"
#include "korv/system/samba_config.h"
#include "korv/system/samba_export.h"
#include "tests/unit/korv/private_machine.h"

namespace {

korv::ShareRow Share(const std::string& name, const std::string& description = "") {
    korv::ShareRow share;
    share.name = name;
    share.volPath = "/volume1";
    share.description = description;
    share.token = "token of " + name;
    return share;
}

void Add(const korv::ShareRow& share) {
    korv::WriteTransaction transaction(korv::Database());
    korv::AddShare(share);
    transaction.Commit();
}

std::string ReadAll(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// What Samba itself makes of the file.
std::string Listing(const std::string& file) {
    return korv::RunProgram("/usr/bin/testparm", {"-s", "--suppress-prompt", file}, std::chrono::seconds(10))
        .output;
}

TEST(SambaNames, WithSambasOwnCharactersOrMeaningsAreNotExported) {
    for (const char* name :
         {"a]b", "[a]", "a%b", "%U",  "a;b",    "a=b",    "a\\b",     "a\"b",   "a,b",  "a:b",   "a*b", "a?b",
          "a<b", "a>b", "a|b", "a+b", "global", "GLOBAL", "printers", "Print$", "IPC$", "homes", "a  b"}) {
        EXPECT_FALSE(korv::IsSambaExportable(Share(name))) << name;
    }
    for (const char* name : {"rec", "Front door", "über", "a.b", "#rec", "rec$", "(rec)", "it's"}) {
        EXPECT_TRUE(korv::IsSambaExportable(Share(name))) << name;
    }
}

TEST(SambaComments, StayOneLineOfText) {
    EXPECT_EQ(korv::SambaComment("Front door"), "Front door");
    EXPECT_EQ(korv::SambaComment("a\nroot preexec = x"), "a root preexec = x");
    EXPECT_EQ(korv::SambaComment("a\r\n[global]\x01\x7f"), "a  [global]");
    EXPECT_EQ(korv::SambaComment("a\xe2\x80\xa8z\xc2\x85w"), "a z w");
    EXPECT_EQ(korv::SambaComment("100% %U"), "100％ ％U");
    EXPECT_EQ(korv::SambaComment("ends \\\\ "), "ends");
    EXPECT_EQ(korv::SambaComment("\xff\xfe"), "\xef\xbf\xbd\xef\xbf\xbd");
    EXPECT_EQ(korv::SambaComment(std::string("a\0b", 3)), "a b");
    EXPECT_EQ(korv::SambaComment(std::string(1000, 'x')).size(), 256U);
    EXPECT_EQ(korv::SambaComment(" \\ "), "");
}

class SambaExportTest : public MachineTest {};

TEST_F(SambaExportTest, SaysToSambaWhatTheRowsSay) {
    korv::ShareRow hidden = Share("Front door", "100% of \"x\"; # y\n[evil]\npath = /etc\\");
    hidden.isHidden = true;
    Add(hidden);
    Add(Share("über", ""));
    Add(Share("a]b", "not for Samba"));
    EXPECT_EQ(korv::ExportSharesToSamba(), "");
    const std::string listing = Listing(machine::SambaInclude());
    std::vector<std::string> names = korv::SectionsOfListing(listing);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"Front door", "über"}));
    EXPECT_NE(listing.find("browseable = No"), std::string::npos);
    EXPECT_NE(listing.find("path = /volume1/Front door\n"), std::string::npos);
    EXPECT_NE(listing.find("path = /volume1/über\n"), std::string::npos);
    EXPECT_EQ(listing.find("\tpath = /etc"), std::string::npos);
    EXPECT_EQ(listing.find("Unknown"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(machine::SambaInclude() + ".new"));
}

TEST_F(SambaExportTest, ReplacesTheFileOnlyWhenSomethingHasChanged) {
    Add(Share("rec"));
    EXPECT_EQ(korv::ExportSharesToSamba(), "");
    const auto before = std::filesystem::last_write_time(machine::SambaInclude());
    EXPECT_EQ(korv::ExportSharesToSamba(), "");
    EXPECT_EQ(std::filesystem::last_write_time(machine::SambaInclude()), before);
    Add(Share("rec2"));
    EXPECT_EQ(korv::ExportSharesToSamba(), "");
    EXPECT_NE(ReadAll(machine::SambaInclude()).find("[rec2]"), std::string::npos);
}

TEST_F(SambaExportTest, ByManyProcessesAtOnceEndsWithAllShares) {
    korv::Database();
    korv::CloseDatabase();
    machine::InChildren(16, [](int i) {
        Add(Share("rec" + std::to_string(i)));
        return korv::ExportSharesToSamba().empty() ? 0 : 1;
    });
    EXPECT_EQ(korv::SectionsOfListing(Listing(machine::SambaInclude())).size(), 16U);
}

TEST(SambaListing, IsReadByItsSections) {
    EXPECT_EQ(
        korv::SectionsOfListing("# Global parameters\n[global]\n\tidmap = tdb\n\n[a b]\n\tpath = [x]\n[c]\n"),
        (std::vector<std::string>{"a b", "c"}));
}

TEST(ChildProcess, GivesStatusAndOutput) {
    const auto end =
        korv::RunProgram("/bin/sh", {"-c", "echo out; echo err >&2; exit 3"}, std::chrono::seconds(5));
    EXPECT_EQ(end.exitCode, 3);
    EXPECT_EQ(end.output, "out\nerr\n");
}

TEST(ChildProcess, IsKilledAtItsDeadlineEvenWhenSilent) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(korv::RunProgram("/bin/sleep", {"60"}, std::chrono::milliseconds(200)).exitCode, -1);
    EXPECT_EQ(
        korv::RunProgram("/bin/sh", {"-c", "exec >&- 2>&-; exec sleep 60"}, std::chrono::milliseconds(200))
            .exitCode,
        -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST(ChildProcess, ThatCannotBeStartedFails) {
    EXPECT_EQ(korv::RunProgram("/no/such/program", {}, std::chrono::seconds(5)).exitCode, -1);
}

}  // namespace
