#include "tests/scenarios/script_director.h"

#include <algorithm>

#include "tests/scenarios/compare.h"

namespace scenario {

namespace {

// An entry of the system's log with a star for its line number: "scope.cpp:* ERROR: ...".
std::string WithoutLineNumber(std::string entry) {
    const std::size_t begin = entry.find(':') + 1;
    return entry.replace(begin, entry.find_first_not_of("0123456789", begin) - begin, "*");
}

bool IsCall(const ScriptedCall& line, const fake::FunctionTraits& function, const Json::Value& args) {
    const std::string expected = OneLine(line.args);
    const std::string actual = OneLine(args);
    return line.function == &function &&
           (expected == actual || (function.name == "syslog" && expected == WithoutLineNumber(actual)));
}

}  // namespace

ScriptDirector::ScriptDirector(const Case& script, std::optional<std::size_t> failing)
    : world(script.world),
      m_script(script),
      m_failing(failing),
      m_scripted(script.never.begin(), script.never.end()) {
    for (const ScriptedCall& call : script.calls) {
        m_scripted.insert(call.function->name);
    }
}

Json::Value ScriptDirector::Reply(const fake::FunctionTraits& function, const Json::Value& args) {
    MadeCall call{&function, args, function.benign, false};
    const bool isScripted = function.kind == fake::Kind::kCall || m_scripted.count(function.name) > 0;
    if (const std::optional<std::size_t> line = isScripted ? FindLine(function, args) : std::nullopt) {
        call.args = m_script.calls[*line].args;
        call.reply = m_script.calls[*line].reply;
        m_next = *line + 1;
    } else if (function.kind == fake::Kind::kBackground) {
        call.reply = AnswerFromWorld(world, function, args);
        call.fromWorld = !isScripted;
    }
    if (m_failing == made.size()) {
        call.reply = function.failing;
    }
    SwitchIds(function, args, call.reply);
    made.push_back(call);
    return call.reply;
}

void ScriptDirector::Answer(const Json::Value& answer) {
    const auto last =
        std::find_if(made.rbegin(), made.rend(), [](const MadeCall& call) { return !call.fromWorld; });
    answeredAfter.push_back(last != made.rend() ? last->function->name : "nothing");
    answers.push_back(answer);
}

// The next line of the script, or else a later one: after a difference the rest is followed as far as it
// goes.
std::optional<std::size_t> ScriptDirector::FindLine(const fake::FunctionTraits& function,
                                                    const Json::Value& args) const {
    for (std::size_t line = m_next; line < m_script.calls.size(); ++line) {
        if (IsCall(m_script.calls[line], function, args)) {
            return line;
        }
    }
    return std::nullopt;
}

void ScriptDirector::SwitchIds(const fake::FunctionTraits& function, const Json::Value& args,
                               const Json::Value& reply) {
    constexpr int kKeep = -1;
    constexpr Json::ArrayIndex kEffective = 1;
    const bool isUid = function.name == "setresuid";
    if ((!isUid && function.name != "setresgid") || reply.asInt() != 0 || args[kEffective].asInt() == kKeep) {
        return;
    }
    (isUid ? world.euid : world.egid) = args[kEffective].asInt();
}

}  // namespace scenario
