#include "cli/base64.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

TEST(Base64, GivesTheBytesBack) {
    EXPECT_EQ(cli::DecodeBase64(""), "");
    EXPECT_EQ(cli::DecodeBase64("YQ=="), "a");
    EXPECT_EQ(cli::DecodeBase64("YWI="), "ab");
    EXPECT_EQ(cli::DecodeBase64("YWJj"), "abc");
    EXPECT_EQ(cli::DecodeBase64("AP+A"), std::string("\x00\xFF\x80", 3));
    EXPECT_EQ(cli::DecodeBase64("+/+/"), "\xFB\xFF\xBF");
}

TEST(Base64, RefusesWhatIsNone) {
    for (const char* text :
         {"Y", "YQ", "YWI", "YQ=", "=", "====", "Y===", "YQ==YQ==", "YW-j", "YW j", "YWJj\n"}) {
        EXPECT_THROW(cli::DecodeBase64(text), std::runtime_error) << text;
    }
}
