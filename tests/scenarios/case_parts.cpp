#include "tests/scenarios/case_parts.h"

#include <map>
#include <set>

namespace scenario {

namespace {

// What a read of the request may be, and how many arguments it has.
const std::map<std::string, unsigned> kReads = {
    {"GetParam", 2},     {"GetCookie", 2},     {"GetSessionID", 0},     {"GetAPIClass", 0},
    {"GetAPIMethod", 0}, {"GetAPIVersion", 0}, {"GetLoginUserName", 0}, {"GetRemoteIP", 0},
    {"IsAuthorized", 0}, {"HasAppPriv", 1},    {"IsAdmin", 0},
};

ExpectedLog ReadLogLine(const YamlNode& node) {
    ExpectedLog expected;
    std::set<std::string> members;
    node.ForEachMember([&](const std::string& name, const YamlNode& value) {
        fake::LogLine& entry = expected.entry;
        if (name == "line") {
            entry.line = value.Int();
            expected.anyLine = false;
        } else if (name == "category") {
            entry.category = value.Text();
        } else if (name == "level") {
            entry.level = value.Text();
        } else if (name == "file") {
            entry.file = value.Text();
        } else if (name == "function") {
            entry.function = value.Text();
        } else if (name == "text") {
            entry.text = value.Text();
        } else {
            value.Fail("a log line has no '" + name + "'");
        }
        members.insert(name);
    });
    if (members.count("file") + members.count("function") + members.count("text") != 3) {
        node.Fail("a log line needs file, function and text");
    }
    if (members.count("category") != members.count("level")) {
        node.Fail("a log line has both category and level or neither");
    }
    return expected;
}

std::string ReadFunctionName(const YamlNode& node) {
    if (fake::FindFunction(node.Text()) == nullptr) {
        node.Fail("there is no platform function '" + node.Text() + "'");
    }
    return node.Text();
}

ExpectedAnswer ReadAnswer(const YamlNode& node) {
    ExpectedAnswer expected;
    Json::Value& answer = expected.answer;
    node.ForEachMember([&](const std::string& name, const YamlNode& value) {
        if (name == "after") {
            expected.after = ReadFunctionName(value);
            return;
        }
        if (name == "success") {
            answer["success"] = value.ToJson();
            return;
        }
        if (name != "error") {
            value.Fail("a response is success or error");
        }
        answer["error"]["code"] = Json::Value();
        answer["error"]["data"] = Json::Value();
        value.ForEachMember([&answer](const std::string& member, const YamlNode& part) {
            if (member == "code") {
                answer["error"]["code"] = part.Int();
            } else if (member == "data") {
                answer["error"]["data"] = part.ToJson();
            } else {
                part.Fail("an error has no '" + member + "'");
            }
        });
        if (answer["error"]["code"].isNull()) {
            value.Fail("an error needs a code");
        }
    });
    if (answer.size() != 1) {
        node.Fail("a response is success or error");
    }
    return expected;
}

Tolerated ReadTolerated(const YamlNode& node) {
    Tolerated one;
    if (!node.raw().IsMap()) {
        one.function = node.Text();
    } else {
        node.ForEachMember([&one](const std::string& name, const YamlNode& value) {
            if (name == "call") {
                one.function = value.Text();
            } else if (name == "nth") {
                one.nth = value.Int();
            } else {
                value.Fail("tolerates has no '" + name + "'");
            }
        });
    }
    const fake::FunctionTraits* function = fake::FindFunction(one.function);
    if (function == nullptr || !function->canFail) {
        node.Fail("'" + one.function + "' is no platform function that can fail");
    }
    return one;
}

}  // namespace

Json::Value ReadObject(const YamlNode& node) {
    node.MustBeMap();
    return node.ToJson();
}

KORV::APIRequest::State ReadRequest(const YamlNode& node) {
    KORV::APIRequest::State request;
    node.ForEachMember([&request](const std::string& name, const YamlNode& value) {
        if (name == "api") {
            request.api = value.Text();
        } else if (name == "version") {
            request.version = value.Int();
        } else if (name == "method") {
            request.method = value.Text();
        } else if (name == "params") {
            request.params = ReadObject(value);
        } else if (name == "cookies") {
            value.ForEachMember([&request](const std::string& cookie, const YamlNode& text) {
                request.cookies[cookie] = text.Text();
            });
        } else if (name == "session") {
            request.session = value.Text();
        } else if (name == "authorized") {
            request.authorized = value.Bool();
        } else if (name == "user") {
            request.user = value.Text();
        } else if (name == "admin") {
            request.admin = value.Bool();
        } else if (name == "app_priv") {
            request.appPriv = value.Bool();
        } else if (name == "remote_ip") {
            request.remoteIp = value.Text();
        } else {
            value.Fail("a request has no '" + name + "'");
        }
    });
    return request;
}

std::vector<Json::Value> ReadReads(const YamlNode& node) {
    std::vector<Json::Value> reads;
    node.ForEachItem([&reads](const YamlNode& item) {
        item.MustBeList();
        const Json::Value read = item.ToJson();
        const auto known = kReads.find(read.empty() || !read[0].isString() ? "" : read[0].asString());
        if (known == kReads.end() || read.size() != known->second + 1) {
            item.Fail("no such read of the request, or a wrong number of arguments");
        }
        reads.push_back(read);
    });
    return reads;
}

std::vector<std::string> ReadNever(const YamlNode& node) {
    std::vector<std::string> names;
    node.ForEachItem([&names](const YamlNode& item) {
        const fake::FunctionTraits* function = fake::FindFunction(item.Text());
        if (function == nullptr || function->kind != fake::Kind::kBackground) {
            item.Fail("'" + item.Text() + "' is no background function");
        }
        names.push_back(function->name);
    });
    return names;
}

std::vector<ExpectedLog> ReadLog(const YamlNode& node) {
    std::vector<ExpectedLog> lines;
    node.ForEachItem([&lines](const YamlNode& item) { lines.push_back(ReadLogLine(item)); });
    return lines;
}

std::vector<ExpectedAnswer> ReadAnswers(const YamlNode& node) {
    std::vector<ExpectedAnswer> answers;
    if (node.raw().IsSequence()) {
        node.ForEachItem([&answers](const YamlNode& item) { answers.push_back(ReadAnswer(item)); });
    } else if (node.raw().IsMap()) {
        answers.push_back(ReadAnswer(node));
    } else if (node.Text() != "none") {
        node.Fail("a response is success, error, a list of those, or none");
    }
    return answers;
}

ErrorState ReadErrorState(const YamlNode& node) {
    constexpr unsigned kParts = 3;
    const Json::Value parts = node.ToJson();
    if (!parts.isArray() || parts.size() != kParts || !parts[0].isInt() || !parts[1].isString() ||
        !parts[2].isString()) {
        node.Fail("error is [code, param1, param2]");
    }
    return {parts[0].asInt(), parts[1].asString(), parts[2].asString()};
}

std::vector<Tolerated> ReadTolerates(const YamlNode& node) {
    std::vector<Tolerated> tolerates;
    node.ForEachItem([&tolerates](const YamlNode& item) { tolerates.push_back(ReadTolerated(item)); });
    return tolerates;
}

}  // namespace scenario
