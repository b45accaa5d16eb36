#include <string>

#include <gtest/gtest.h>

#include "cli/command.h"

namespace {

using cli::DescribeRefusal;
using cli::Refused;

TEST(Refusal, TellsCodeMeaningAndRemedyOfTheApiThatRefused) {
    EXPECT_EQ(DescribeRefusal(Refused("KORV.Pavane.Share", 443, Json::Value())),
              "error 443: The folder exists already.\n  Choose another name.");
    EXPECT_EQ(DescribeRefusal(Refused("KORV.Core.Session", 400, Json::Value())),
              "error 400: The account or the password is wrong.\n  Check both and try again.");
}

TEST(Refusal, ShowsParametersAndMakesThemHarmless) {
    Json::Value details(Json::objectValue);
    details["param1"] = "cameras[0].name\x1b[2J";
    details["param2"] = "";
    const std::string text = DescribeRefusal(Refused("KORV.Pavane.Camera", 401, details));
    EXPECT_NE(text.find("\n  param1: cameras[0].name\\x1b[2J\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("param2"), std::string::npos) << text;
}

TEST(Refusal, AnUnknownCodeIsStillTold) {
    EXPECT_EQ(DescribeRefusal(Refused("KORV.Pavane.Share", 9999, Json::Value())),
              "error 9999 of unknown meaning");
}

}  // namespace
