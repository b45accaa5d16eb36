// Rendering of answers: valid JSON for every value, nothing lost.
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>

#include <gtest/gtest.h>

#include "korv/framework/json_text.h"

namespace {

std::string Render(const Json::Value& value) {
    std::string text;
    korv::AppendJson(text, value);
    return text;
}

Json::Value Parse(const std::string& text) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << text << errors;
    return value;
}

Json::Value Text(const std::string& bytes) { return {bytes.data(), bytes.data() + bytes.size()}; }

TEST(JsonText, EveryAsciiCharacterSurvives) {
    std::string all;
    for (char c = 0; c >= 0 && c < 127; ++c) {
        all += c;
    }
    all += '\x7f';
    EXPECT_EQ(Parse(Render(Text(all))).asString(), all);
}

TEST(JsonText, ControlCharactersAreEscaped) {
    EXPECT_EQ(Render(Text(std::string("\0\x01\x1f\n\r\t\"\\/", 9))), R"("\u0000\u0001\u001f\n\r\t\"\\/")");
}

TEST(JsonText, EveryByteThatIsNoUtf8BecomesAReplacement) {
    for (int byte = 0x80; byte <= 0xFF; ++byte) {
        const std::string alone(1, static_cast<char>(byte));
        EXPECT_EQ(Render(Text("a" + alone + "b")),
                  "\"a\xEF\xBF\xBD"
                  "b\"")
            << byte;
    }
}

struct InvalidSequence {
    const char* name;
    const char* bytes;
    int replacements;
};

class InvalidUtf8 : public testing::TestWithParam<InvalidSequence> {};

TEST_P(InvalidUtf8, IsReplaced) {
    std::string expected = "\"";
    for (int count = 0; count < GetParam().replacements; ++count) {
        expected += "\xEF\xBF\xBD";
    }
    EXPECT_EQ(Render(Text(GetParam().bytes)), expected + '"');
}

INSTANTIATE_TEST_SUITE_P(Classes, InvalidUtf8,
                         testing::Values(InvalidSequence{"overlong_slash", "\xC0\xAF", 2},
                                         InvalidSequence{"overlong_3", "\xE0\x80\xAF", 3},
                                         InvalidSequence{"overlong_4", "\xF0\x80\x80\xAF", 4},
                                         InvalidSequence{"surrogate", "\xED\xA0\x80", 3},
                                         InvalidSequence{"past_the_end", "\xF4\x90\x80\x80", 4},
                                         InvalidSequence{"five_bytes", "\xF8\x88\x80\x80\x80", 5},
                                         InvalidSequence{"cut_short", "\xE2\x82", 2},
                                         InvalidSequence{"lone_continuation", "\x80", 1}),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST(JsonText, ValidUtf8OfEveryLengthStays) {
    const std::string text =
        "\xC2\x80 \xDF\xBF \xE0\xA0\x80 \xED\x9F\xBF \xEE\x80\x80 \xEF\xBF\xBF \xF0\x90\x80\x80 "
        "\xF4\x8F\xBF\xBF";
    EXPECT_EQ(Render(Text(text)), '"' + text + '"');
}

TEST(JsonText, WholeNumbersKeepAllSixtyFourBits) {
    EXPECT_EQ(Render(Json::Value(std::numeric_limits<Json::UInt64>::max())), "18446744073709551615");
    EXPECT_EQ(Render(Json::Value(std::numeric_limits<Json::Int64>::min())), "-9223372036854775808");
}

TEST(JsonText, RealsComeBackBitForBit) {
    std::mt19937_64 random(1);
    int compared = 0;
    while (compared < 2000) {
        const std::uint64_t bits = random();
        double number = 0;
        std::memcpy(&number, &bits, sizeof number);
        if (!std::isnormal(number)) {
            continue;
        }
        const std::string text = Render(Json::Value(number));
        ASSERT_EQ(std::strtod(text.c_str(), nullptr), number) << text;
        ++compared;
    }
}

TEST(JsonText, AWholeRealStaysAReal) {
    EXPECT_EQ(Render(Json::Value(1.0)), "1.0");
    EXPECT_EQ(Render(Json::Value(-0.0)), "-0.0");
    EXPECT_EQ(Render(Json::Value(1e300)), "1e+300");
}

TEST(JsonText, RealsThatAreNotFiniteBecomeNull) {
    EXPECT_EQ(Render(Json::Value(std::numeric_limits<double>::quiet_NaN())), "null");
    EXPECT_EQ(Render(Json::Value(std::numeric_limits<double>::infinity())), "null");
    EXPECT_EQ(Render(Json::Value(-std::numeric_limits<double>::infinity())), "null");
}

TEST(JsonText, NestedValuesComeBack) {
    Json::Value value;
    value["empty list"] = Json::arrayValue;
    value["empty object"] = Json::objectValue;
    value["null"] = Json::nullValue;
    value["list"].append(true);
    value["list"].append(-1);
    value["list"][2]["a \"quoted\" key"] = "x";
    EXPECT_EQ(Parse(Render(value)), value);
    EXPECT_EQ(Render(Json::Value(Json::arrayValue)), "[]");
    EXPECT_EQ(Render(Json::Value(Json::objectValue)), "{}");
}

}  // namespace
