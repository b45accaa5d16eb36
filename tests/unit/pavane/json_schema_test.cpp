#include "pavane/store/json_schema.h"

#include <array>
#include <chrono>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/pavane/json.h"
#include "platform/pavane/key_value_file.h"

#include "tests/unit/pavane/test_node.h"

namespace {

constexpr const char* kShareList =
    "{type: array, element: {type: object, required: {name: string, vol_path: string}}}";

Json::Value Parse(const std::string& text) {
    Json::Value value;
    Json::Reader reader;
    EXPECT_TRUE(reader.parse(text, value)) << text;
    return value;
}

bool Fits(const std::string& schema, const std::string& value) {
    return PVJson::Validate(schema, Parse(value)) == 0;
}

}  // namespace

TEST(JsonSchemaTest, AListOfSharesNeedsANameAndAVolumeOfEach) {
    EXPECT_TRUE(Fits(kShareList, "[]"));
    EXPECT_TRUE(Fits(kShareList, R"([{"name":"rec","vol_path":"/volume1"}])"));
    EXPECT_TRUE(Fits(kShareList, R"([{"name":"","vol_path":"","more":[1]},{"name":"b","vol_path":"c"}])"));
    EXPECT_FALSE(Fits(kShareList, R"([{"name":"rec"}])"));
    EXPECT_FALSE(Fits(kShareList, R"([{"name":"rec","vol_path":null}])"));
    EXPECT_FALSE(
        Fits(kShareList, R"([{"name":"rec","vol_path":"/volume1"},{"name":7,"vol_path":"/volume1"}])"));
    EXPECT_FALSE(Fits(kShareList, R"([["name","vol_path"]])"));
    EXPECT_FALSE(Fits(kShareList, R"({"name":"rec","vol_path":"/volume1"})"));
    EXPECT_NE(PVJson::Validate(kShareList, Json::Value()), 0);
}

TEST(JsonSchemaTest, EachTypeAdmitsItsOwnValuesOnly) {
    const std::array<std::string, 8> values{"[]",  "{}",   R"("a")", "7", "18446744073709551615",
                                            "7.5", "true", "null"};
    const std::array<std::pair<const char*, const char*>, 7> expected{{{"array", "10000000"},
                                                                       {"object", "01000000"},
                                                                       {"string", "00100000"},
                                                                       {"integer", "00011000"},
                                                                       {"number", "00011100"},
                                                                       {"boolean", "00000010"},
                                                                       {"any", "11111111"}}};
    for (const auto& [type, fits] : expected) {
        std::string seen;
        for (const std::string& value : values) {
            seen += Fits("{type: " + std::string(type) + "}", value) ? '1' : '0';
            EXPECT_EQ(Fits(type, value), seen.back() == '1');
        }
        EXPECT_EQ(seen, fits) << type;
    }
}

TEST(JsonSchemaTest, OptionalMembersCountWhereTheyAre) {
    const std::string schema =
        "{type: object, optional: {size: integer, tags: {type: array, element: string}}}";
    EXPECT_TRUE(Fits(schema, "{}"));
    EXPECT_TRUE(Fits(schema, R"({"size":1,"tags":["a"]})"));
    EXPECT_FALSE(Fits(schema, R"({"size":"1"})"));
    EXPECT_FALSE(Fits(schema, R"({"tags":["a",2]})"));
}

TEST(JsonSchemaTest, WhatIsNoSchemaFitsNothing) {
    const std::string deep(200, '[');
    for (const std::string& schema :
         {std::string(), std::string("{"), std::string("text"), std::string("[array]"), std::string("{}"),
          std::string("{type: text}"), std::string("{type: [array]}"), std::string("{type: array, size: 3}"),
          std::string("{type: string, element: string}"), std::string("{type: array, required: {a: string}}"),
          std::string("{type: object, required: [name]}"), std::string("{type: object, required: {a: text}}"),
          deep}) {
        EXPECT_FALSE(pavane::JsonSchema::Parse(schema)) << schema;
        EXPECT_EQ(PVJson::Validate(schema, Parse("[]")), -1) << schema;
    }
}

TEST(JsonSchemaTest, ARuleOrAMemberStandsOnce) {
    for (const char* schema : {"{type: array, type: object}", "{type: array, type: array}",
                               "{type: array, element: string, element: integer}",
                               "{type: object, required: {name: string, name: integer}}",
                               "{type: object, required: {name: string, \"name\": string}}",
                               "{type: object, required: {a: any}, required: {b: any}}"}) {
        EXPECT_FALSE(pavane::JsonSchema::Parse(schema)) << schema;
    }
    EXPECT_TRUE(pavane::JsonSchema::Parse("{type: object, required: {a: any}, optional: {a: string}}"));
}

TEST(JsonSchemaTest, NamesAreTextsAndTagsSayNothingElse) {
    for (const char* schema :
         {"!!int array", "!mine array", "!!str {type: array}", "!!seq {type: array}", "{type: !!int array}",
          "{!!int type: array}", "{type: object, required: !!set {a: any}}",
          "{type: object, required: {!!int 7: any}}", "{type: object, required: {[a]: any}}",
          "{type: object, required: {~: any}}"}) {
        EXPECT_FALSE(pavane::JsonSchema::Parse(schema)) << schema;
    }
    for (const char* schema : {"!!str array", "\"array\"", "!!map {!!str type: 'array'}",
                               "{type: object, required: !!map {7: any, 'null': any}}"}) {
        EXPECT_TRUE(pavane::JsonSchema::Parse(schema)) << schema;
    }
}

TEST(JsonSchemaTest, ATextIsOneDocument) {
    for (const char* schema : {"array\n---\nobject\n", "array\n...\nobject\n", "{type: array}\n---\n",
                               "{type: array} more", "---\n", "# nothing\n"}) {
        EXPECT_FALSE(pavane::JsonSchema::Parse(schema)) << schema;
    }
    EXPECT_TRUE(pavane::JsonSchema::Parse("---\narray\n...\n"));
}

TEST(JsonSchemaTest, ASchemaHasAtMost64Levels) {
    const auto nested = [](int levels) {
        std::string schema = "string";
        for (int i = 0; i < levels; ++i) {
            schema.insert(0, "{type: array, element: ");
            schema += "}";
        }
        return schema;
    };
    EXPECT_TRUE(pavane::JsonSchema::Parse(nested(64)));
    EXPECT_FALSE(pavane::JsonSchema::Parse(nested(65)));
}

TEST(JsonSchemaTest, ASchemaThatNeverEndsIsNone) {
    EXPECT_FALSE(pavane::JsonSchema::Parse("&a {type: array, element: *a}"));
    EXPECT_FALSE(pavane::JsonSchema::Parse("&a {type: object, required: {x: *a, y: *a}, optional: {z: *a}}"));
}

// Each level names the one before it twice: 2^25 nodes in a thousand bytes.
TEST(JsonSchemaTest, ASchemaThatUnfoldsToTooManyNodesIsNone) {
    constexpr int kLevels = 25;
    std::string level = "&a0 string";
    for (int i = 1; i <= kLevels; ++i) {
        std::string next = "&a" + std::to_string(i) + " {type: object, required: {x: ";
        next += level + ", y: *a" + std::to_string(i - 1) + "}}";
        level = next;
    }
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(pavane::JsonSchema::Parse(level));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST(JsonSchemaTest, AnAliasStandsForWhatItNames) {
    const std::string schema = "{type: object, required: {a: &text {type: string}, b: *text}}";
    EXPECT_TRUE(Fits(schema, R"({"a":"1","b":"2"})"));
    EXPECT_FALSE(Fits(schema, R"({"a":"1","b":2})"));
}

TEST(JsonSchemaTest, CopyPropsReplacesMembersOfTheSameName) {
    Json::Value to = Parse(R"({"a":1,"b":{"c":2}})");
    PVJson::CopyProps(to, Parse(R"({"b":3,"d":[4]})"));
    EXPECT_EQ(to, Parse(R"({"a":1,"b":3,"d":[4]})"));
    PVJson::CopyProps(to, Json::Value());
    EXPECT_EQ(to, Parse(R"({"a":1,"b":3,"d":[4]})"));
    Json::Value fresh;
    PVJson::CopyProps(fresh, GetJsonAPIInfo("KORV.Pavane.Share", "List", 1));
    EXPECT_EQ(fresh, Parse(R"({"api":"KORV.Pavane.Share","method":"List","version":1})"));
}

TEST(KeyValueFile, GivesTheLengthOfAValueAndLeavesOthersAlone) {
    const std::string path = TestNode::Instance().Folder() + "/values";
    std::ofstream(path) << "srcDir=\"/volume1/rec/it's\"\nempty=\"\"\nlong=" << std::string(4096, 'x')
                        << "\n";
    std::string value = "before";
    EXPECT_EQ(PVFileGetVal(path, "absent", value), -1);
    EXPECT_EQ(PVFileGetVal(path, "empty", value), 0);
    EXPECT_EQ(PVFileGetVal(path + "/none", "srcDir", value), -1);
    EXPECT_EQ(value, "before");
    EXPECT_EQ(PVFileGetVal(path, "srcDir", value), 17);
    EXPECT_EQ(value, "/volume1/rec/it's");
    EXPECT_EQ(PVFileGetVal(path, "long", value), 4096);
}
