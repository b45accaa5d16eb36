// Reading of requests: what is malformed is refused before any method sees it.
#include <gtest/gtest.h>

#include "korv/framework/multipart.h"
#include "korv/framework/wire_request.h"

namespace {

using namespace std::string_literals;

TEST(WireRequest, TheParametersStandBesideTheNames) {
    const auto request = korv::ParseWireRequest(R"({"api":"A","version":1,"method":"m","x":[1],"y":"z"})");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->api, "A");
    EXPECT_EQ(request->version, 1);
    EXPECT_EQ(request->method, "m");
    EXPECT_EQ(request->params.getMemberNames(), (std::vector<std::string>{"x", "y"}));
}

struct BadText {
    const char* name;
    std::string text;
};

class MalformedRequest : public testing::TestWithParam<BadText> {};

TEST_P(MalformedRequest, IsRefused) { EXPECT_FALSE(korv::ParseWireRequest(GetParam().text)); }

std::string With(const std::string& members) {
    return R"({"api":"A","version":1,"method":"m",)" + members + "}";
}

INSTANTIATE_TEST_SUITE_P(
    Texts, MalformedRequest,
    testing::Values(
        BadText{"empty", ""}, BadText{"open", "{"}, BadText{"list", "[]"}, BadText{"text", "\"x\""},
        BadText{"null", "null"}, BadText{"two_objects", With(R"("x":1)") + With(R"("x":1)")},
        BadText{"trailing_text", With(R"("x":1)") + "x"}, BadText{"no_api", R"({"version":1,"method":"m"})"},
        BadText{"no_version", R"({"api":"A","method":"m"})"},
        BadText{"no_method", R"({"api":"A","version":1})"},
        BadText{"api_number", R"({"api":1,"version":1,"method":"m"})"},
        BadText{"version_text", R"({"api":"A","version":"1","method":"m"})"},
        BadText{"version_real", R"({"api":"A","version":1.0,"method":"m"})"},
        BadText{"version_huge", R"({"api":"A","version":4294967297,"method":"m"})"},
        BadText{"version_bool", R"({"api":"A","version":true,"method":"m"})"},
        BadText{"method_null", R"({"api":"A","version":1,"method":null})"},
        BadText{"key_twice", With(R"("x":1,"x":2)")}, BadText{"key_twice_deep", With(R"("x":{"y":1,"y":2})")},
        BadText{"comment", "/**/" + With(R"("x":1)")}, BadText{"single_quotes", With(R"('x':1)")},
        BadText{"not_a_number", With(R"("x":NaN)")}, BadText{"nul_byte", With("\"x\":\"a\0b\""s)},
        BadText{"nul_escape", With(R"("x":"a\u0000b")")}, BadText{"nul_in_key", With(R"("a\u0000b":1)")},
        BadText{"nul_deep", With(R"("x":[{"y":"\u0000"}])")}, BadText{"no_utf8", With("\"x\":\"\xFF\"")},
        BadText{"no_utf8_key", With("\"\xC3\":1")}, BadText{"lone_low_surrogate", With(R"("x":"\udc00")")},
        BadText{"lone_high_surrogate", With(R"("x":"\ud800")")},
        BadText{"depth_bomb", With("\"x\":" + std::string(100000, '['))},
        BadText{"depth_bomb_closed", With("\"x\":" + std::string(1000, '[') + std::string(1000, ']'))},
        BadText{"upload_name_as_text", With(R"("key_file_tmp":"/etc/shadow")")},
        BadText{"upload_name_as_list", With(R"("_file_tmp":[])")}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST(WireRequest, DepthUpToTheLimitIsRead) {
    EXPECT_TRUE(korv::ParseWireRequest(With("\"x\":" + std::string(40, '[') + std::string(40, ']'))));
}

TEST(Cookies, AreSplitAndTrimmed) {
    const auto cookies = korv::ParseCookies(" a=1; b = x=y ;c;a=2;d=");
    EXPECT_EQ(cookies, (std::map<std::string, std::string>{{"a", "1"}, {"b", "x=y"}, {"d", ""}}));
    EXPECT_TRUE(korv::ParseCookies("").empty());
}

TEST(Multipart, OnlyFormDataHasABoundary) {
    EXPECT_EQ(korv::MultipartBoundary("multipart/form-data; boundary=aB1"), "aB1");
    EXPECT_EQ(korv::MultipartBoundary("Multipart/Form-Data; charset=x; boundary=\"a b\"; y"), "a b");
    EXPECT_FALSE(korv::MultipartBoundary("multipart/mixed; boundary=x"));
    EXPECT_FALSE(korv::MultipartBoundary("application/json"));
    EXPECT_FALSE(korv::MultipartBoundary("multipart/form-data; boundary="));
    EXPECT_FALSE(korv::MultipartBoundary("multipart/form-data; boundary=\"\""));
    EXPECT_FALSE(korv::MultipartBoundary("multipart/form-data; boundary=" + std::string(71, 'x')));
}

std::string Part(const std::string& disposition, const std::string& content) {
    return "--B\r\nContent-Type: text/plain\r\ncontent-disposition: form-data; " + disposition + "\r\n\r\n" +
           content + "\r\n";
}

TEST(Multipart, PartsKeepTheirBytes) {
    const std::string bytes = "\r\n--A\0--\r\n"s;
    const std::string body =
        Part("name=\"request\"", "{}") + Part("filename=\"f\"; name=\"key_file_tmp\"", bytes) + "--B--\r\n";
    const auto parts = korv::ParseMultipart(body, "B");
    ASSERT_TRUE(parts);
    ASSERT_EQ(parts->size(), 2U);
    EXPECT_EQ((*parts)[0].name, "request");
    EXPECT_EQ((*parts)[0].content, "{}");
    EXPECT_EQ((*parts)[1].name, "key_file_tmp");
    EXPECT_EQ((*parts)[1].content, bytes);
}

TEST(Multipart, EveryPrefixOfABodyIsRefused) {
    const std::string body = Part("name=\"request\"", "{}") + Part("name=\"x\"", "y") + "--B--";
    ASSERT_TRUE(korv::ParseMultipart(body, "B"));
    for (std::size_t length = 0; length < body.size(); ++length) {
        EXPECT_FALSE(korv::ParseMultipart(body.substr(0, length), "B")) << length;
    }
}

TEST(Multipart, PartsWithoutANameAreRefused) {
    EXPECT_FALSE(korv::ParseMultipart(Part("filename=\"x\"", "y") + "--B--", "B"));
    EXPECT_FALSE(korv::ParseMultipart(Part("name=\"\"", "y") + "--B--", "B"));
    EXPECT_FALSE(korv::ParseMultipart(Part("name=\"a\\\"b\"", "y") + "--B--", "B"));
    EXPECT_FALSE(korv::ParseMultipart("--B\r\n\r\nno header\r\n--B--", "B"));
}

TEST(Multipart, TooManyPartsAreRefused) {
    std::string body;
    for (int count = 0; count < 33; ++count) {
        body += Part("name=\"x\"", "y");
    }
    EXPECT_FALSE(korv::ParseMultipart(body + "--B--", "B"));
}

}  // namespace
