#include "korv/system/share_name.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using korv::IsValidShareName;
using korv::ShareNameKey;

TEST(ShareName, AllowsWhatPeopleCallTheirFolders) {
    for (const std::string& name :
         {std::string("rec"), std::string("a"), std::string("Front door 2"),
          std::string("50% off; rm -rf $HOME"), std::string("it's \"quoted\"`x`"), std::string("über"),
          std::string("録画"), std::string("a..b"), std::string("rec."), std::string("-rf"),
          std::string("homes2"), std::string("[global]"), std::string(64, 'x')}) {
        EXPECT_TRUE(IsValidShareName(name)) << name;
    }
}

TEST(ShareName, RefusesWhatIsNoNameOfAFolder) {
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string(".hidden"), std::string("a/b"),
          std::string("/"), std::string("../etc"), std::string("a\nb"), std::string("a\tb"),
          std::string("a\0b", 3), std::string("\x7f"), std::string("a\xc2\x85"),
          std::string("a\xe2\x80\xa8z"), std::string(" a"), std::string("a "), std::string("\xc2\xa0z"),
          std::string("a\xe3\x80\x80"), std::string(65, 'x'), std::string(300, 'x')}) {
        EXPECT_FALSE(IsValidShareName(name)) << testing::PrintToString(name);
    }
}

TEST(ShareName, RefusesIllFormedUtf8) {
    for (const std::string& name :
         {std::string("a\xff"), std::string("\xc3"), std::string("\xc0\xaf"), std::string("\xed\xa0\x80"),
          std::string("\xf4\x90\x80\x80"), std::string("\xe2\x82"), std::string("\x80")}) {
        EXPECT_FALSE(IsValidShareName(name)) << testing::PrintToString(name);
    }
}

TEST(ShareName, CountsBytesNotCharacters) {
    std::string name;
    for (int i = 0; i < 32; ++i) {
        name += "ü";
    }
    EXPECT_TRUE(IsValidShareName(name));
    EXPECT_FALSE(IsValidShareName(name + "x"));
}

TEST(ShareName, RefusesReservedNamesInAnyCase) {
    for (const char* name : {"homes", "HOMES", "Homes", "NetBackup", "netbackup", "NETBACKUP"}) {
        EXPECT_FALSE(IsValidShareName(name)) << name;
    }
}

TEST(ShareNameKeyOf, IsTheSameForNamesThatDifferInCase) {
    EXPECT_EQ(ShareNameKey("Rec"), ShareNameKey("rEC"));
    EXPECT_EQ(ShareNameKey("ÜBER"), ShareNameKey("über"));
    EXPECT_EQ(ShareNameKey("STRASSE"), ShareNameKey("straße"));
    EXPECT_EQ(ShareNameKey("ΣΊΣΥΦΟΣ"), ShareNameKey("σίσυφος"));
    EXPECT_EQ(ShareNameKey("\xc3\xa9"), ShareNameKey("E\xcc\x81"));
}

TEST(ShareNameKeyOf, DiffersForOtherNames) {
    EXPECT_NE(ShareNameKey("rec"), ShareNameKey("rec1"));
    EXPECT_NE(ShareNameKey("e"), ShareNameKey("é"));
    EXPECT_NE(ShareNameKey("i"), ShareNameKey("ı"));
}

}  // namespace
