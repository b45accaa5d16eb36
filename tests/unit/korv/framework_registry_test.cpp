// Which method answers, and which of its answers counts.
#include <array>

#include <gtest/gtest.h>

#include "korv/framework/answer.h"
#include "korv/framework/api_registry.h"

namespace {

void One(KORV::APIRequest* /*request*/, KORV::APIResponse* /*response*/) {}
void Two(KORV::APIRequest* /*request*/, KORV::APIResponse* /*response*/) {}

constexpr KORV::APITableRow kEnd = {nullptr, 0, nullptr, nullptr};

TEST(ApiRegistry, FindsEachMethodOfEachVersion) {
    const std::array table = {KORV::APITableRow{"B", 1, "m", One}, KORV::APITableRow{"B", 2, "m", Two}, kEnd};
    korv::ApiRegistry registry;
    registry.Add(table.data());
    EXPECT_EQ(registry.Find("B", 1, "m").entry, One);
    EXPECT_EQ(registry.Find("B", 2, "m").entry, Two);
}

TEST(ApiRegistry, TellsAnUnknownMethodFromAnUnknownApi) {
    const std::array table = {KORV::APITableRow{"B", 2, "m", One}, kEnd};
    korv::ApiRegistry registry;
    EXPECT_FALSE(registry.Find("B", 2, "m").hasApi);
    registry.Add(table.data());
    EXPECT_TRUE(registry.Find("B", 2, "z").hasApi);
    EXPECT_TRUE(registry.Find("B", 2, "a").hasApi);
    EXPECT_TRUE(registry.Find("B", 2, "").hasApi);
    EXPECT_EQ(registry.Find("B", 2, "M").entry, nullptr);
    EXPECT_FALSE(registry.Find("B", 1, "m").hasApi);
    EXPECT_FALSE(registry.Find("B", 3, "m").hasApi);
    EXPECT_FALSE(registry.Find("A", 2, "m").hasApi);
    EXPECT_FALSE(registry.Find("C", 2, "m").hasApi);
    EXPECT_FALSE(registry.Find("b", 2, "m").hasApi);
}

TEST(ApiRegistry, ReadsNothingPastTheNullRow) {
    const std::array table = {KORV::APITableRow{"B", 1, "m", One}, kEnd, KORV::APITableRow{"C", 1, "m", One},
                              kEnd};
    korv::ApiRegistry registry;
    registry.Add(table.data());
    EXPECT_FALSE(registry.Find("C", 1, "m").hasApi);
}

TEST(ApiRegistry, RefusesAWholeTableForOneBadRow) {
    const std::array holed = {KORV::APITableRow{"B", 1, "m", One}, KORV::APITableRow{"B", 1, "n", nullptr},
                              kEnd};
    const std::array twice = {KORV::APITableRow{"B", 1, "m", One}, KORV::APITableRow{"B", 1, "m", Two}, kEnd};
    korv::ApiRegistry registry;
    EXPECT_THROW(registry.Add(holed.data()), std::runtime_error);
    EXPECT_THROW(registry.Add(twice.data()), std::runtime_error);
    EXPECT_FALSE(registry.Find("B", 1, "m").hasApi);
}

Json::Value Data() {
    Json::Value data;
    data["k"] = "v";
    return data;
}

TEST(Answer, SuccessAndErrorHaveTheirShapes) {
    korv::TextAnswer success;
    success.Success(Data());
    EXPECT_EQ(success.Text(), R"({"success":true,"data":{"k":"v"}})");
    korv::TextAnswer empty;
    empty.Success(Json::Value());
    EXPECT_EQ(empty.Text(), R"({"success":true})");
    korv::TextAnswer error;
    error.Error(442, Data());
    EXPECT_EQ(error.Text(), R"({"success":false,"error":{"code":442,"errors":{"k":"v"}},"data":{"k":"v"}})");
    korv::TextAnswer bare;
    bare.Error(105, Json::Value());
    EXPECT_EQ(bare.Text(), R"({"success":false,"error":{"code":105}})");
}

TEST(Answer, BothFormsSayTheSame) {
    for (const bool isError : {false, true}) {
        for (const Json::Value& data : {Json::Value(), Data(), Json::Value(Json::arrayValue)}) {
            Json::Value value;
            korv::ValueAnswer inProcess(value);
            korv::TextAnswer wire;
            if (isError) {
                inProcess.Error(7, data);
                wire.Error(7, data);
            } else {
                inProcess.Success(data);
                wire.Success(data);
            }
            Json::Value parsed;
            std::istringstream(wire.Text()) >> parsed;
            EXPECT_EQ(parsed, value);
        }
    }
}

TEST(Answer, TheFirstErrorStays) {
    korv::TextAnswer answer;
    answer.Success(Data());
    EXPECT_FALSE(answer.IsError());
    answer.Error(400, Json::Value());
    answer.Success(Data());
    answer.Error(401, Data());
    EXPECT_EQ(answer.Code(), 400);
    EXPECT_EQ(answer.Text(), R"({"success":false,"error":{"code":400}})");
}

TEST(Answer, ALaterSuccessReplacesAnEarlierOne) {
    korv::TextAnswer answer;
    answer.Success(Data());
    answer.Success(Json::Value());
    EXPECT_EQ(answer.Text(), R"({"success":true})");
}

}  // namespace
