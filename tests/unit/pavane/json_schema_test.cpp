#include "pavane/store/json_schema.h"

#include <array>
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

TEST(JsonSchemaTest, ASchemaThatNeverEndsIsNone) {
    std::string schema = "string";
    for (int i = 0; i < 100; ++i) {
        schema.insert(0, "{type: array, element: ");
        schema += "}";
    }
    EXPECT_FALSE(pavane::JsonSchema::Parse(schema));
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
