#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/scenarios/case.h"

namespace scenario {

// A platform call as it was made.
struct MadeCall {
    const fake::FunctionTraits* function = nullptr;
    Json::Value args;
    Json::Value reply;
    bool fromWorld = false;  // answered by the given world; no line of the script
};

// Follows one case's script and writes down what happened.
class ScriptDirector : public fake::Director {
public:
    // `failing` is the place in the list of made calls whose call fails; nothing fails without it.
    ScriptDirector(const Case& script, std::optional<std::size_t> failing);

    Json::Value Reply(const fake::FunctionTraits& function, const Json::Value& args) override;
    void Read(const Json::Value& read) override { reads.push_back(read); }
    void Log(const fake::LogLine& line) override { log.push_back(line); }
    void Answer(const Json::Value& answer) override;
    void Misuse(const std::string& what) override { misuse.push_back(what); }

    // The effective ids follow the switches that are made.
    fake::World world;
    std::vector<MadeCall> made;
    std::vector<Json::Value> reads;
    std::vector<fake::LogLine> log;
    std::vector<Json::Value> answers;
    std::vector<std::string> answeredAfter;  // by answer: the last scripted function before it, or "nothing"
    std::vector<std::string> misuse;

private:
    std::optional<std::size_t> FindLine(const fake::FunctionTraits& function, const Json::Value& args) const;
    void SwitchIds(const fake::FunctionTraits& function, const Json::Value& args, const Json::Value& reply);

    const Case& m_script;
    std::optional<std::size_t> m_failing;
    std::set<std::string> m_scripted;  // functions that the script speaks of
    std::size_t m_next = 0;
};

}  // namespace scenario
