#include "cli/size_text.h"

#include <gtest/gtest.h>

namespace {

using cli::FreeText;
using cli::SizeText;

TEST(SizeText, TakesTheUnitThatReadsBest) {
    EXPECT_EQ(SizeText(0), "0 MB");
    EXPECT_EQ(SizeText(1023), "1023 MB");
    EXPECT_EQ(SizeText(1024), "1.0 GB");
    EXPECT_EQ(SizeText(1536), "1.5 GB");
    EXPECT_EQ(SizeText(1023 * 1024), "1023.0 GB");
    EXPECT_EQ(SizeText(1024 * 1024 - 1), "1.0 TB");
    EXPECT_EQ(SizeText(Json::UInt(4294967295U)), "4.0 PB");
}

TEST(SizeText, WhatIsNoSizeHasNoText) {
    EXPECT_EQ(SizeText(-1), "");
    EXPECT_EQ(SizeText("7"), "");
    EXPECT_EQ(SizeText(Json::Value()), "");
}

TEST(SizeText, AFreeSpaceThatCouldNotBeToldIsUnknown) {
    EXPECT_EQ(FreeText(Json::UInt(4294967295U)), "unknown");  // -1, cut to 32 bits
    EXPECT_EQ(FreeText(Json::UInt(2147483648U)), "unknown");
    EXPECT_EQ(FreeText(2147483647), "2.0 PB");
    EXPECT_EQ(FreeText(904), "904 MB");
    EXPECT_EQ(FreeText(0), "0 MB");
    EXPECT_EQ(FreeText("7"), "");
}

}  // namespace
