#include <syslog.h>

#include <algorithm>

#include "tests/scenarios/compare.h"
#include "tests/scenarios/routines.h"
#include "tests/scenarios/run.h"
#include "tests/scenarios/sweep.h"

namespace scenario {

namespace {

std::vector<std::string> CallLines(const std::vector<ScriptedCall>& calls) {
    std::vector<std::string> lines;
    lines.reserve(calls.size());
    for (const ScriptedCall& call : calls) {
        lines.push_back(CallLine(*call.function, call.args));
    }
    return lines;
}

std::vector<std::string> CallLines(const std::vector<MadeCall>& calls) {
    std::vector<std::string> lines;
    for (const MadeCall& call : calls) {
        if (!call.fromWorld) {
            lines.push_back(CallLine(*call.function, call.args));
        }
    }
    return lines;
}

std::string LogText(const fake::LogLine& entry, bool withLine) {
    const std::string gate = entry.category.empty() ? "" : "[" + entry.category + " " + entry.level + "] ";
    const std::string line = withLine ? ":" + std::to_string(entry.line) : "";
    return gate + entry.file + line + " " + entry.function + ": " + OneLine(entry.text);
}

std::string CompareLog(const std::vector<ExpectedLog>& expected, const std::vector<fake::LogLine>& actual) {
    std::vector<std::string> expectedLines;
    std::vector<std::string> actualLines;
    expectedLines.reserve(expected.size());
    actualLines.reserve(actual.size());
    for (const ExpectedLog& one : expected) {
        expectedLines.push_back(LogText(one.entry, !one.anyLine));
    }
    for (std::size_t i = 0; i < actual.size(); ++i) {
        const bool withLine = i >= expected.size() || !expected[i].anyLine;
        actualLines.push_back(LogText(actual[i], withLine));
    }
    return Difference("log", expectedLines, actualLines);
}

std::string CompareJson(const std::string& what, const std::vector<Json::Value>& expected,
                        const std::vector<Json::Value>& actual) {
    std::vector<std::string> lines[2];
    for (const bool isActual : {false, true}) {
        for (const Json::Value& value : isActual ? actual : expected) {
            const std::vector<std::string> more = ManyLines(value);
            lines[isActual ? 1 : 0].insert(lines[isActual ? 1 : 0].end(), more.begin(), more.end());
        }
    }
    return Difference(what, lines[0], lines[1]);
}

std::vector<std::string> ReadLines(const std::vector<Json::Value>& reads) {
    std::vector<std::string> lines;
    std::transform(reads.begin(), reads.end(), std::back_inserter(lines), OneLine);
    return lines;
}

std::string CompareError(const ErrorState& expected, const ErrorState& actual) {
    const auto text = [](const ErrorState& state) {
        return OneLine(fake::Args(state.code, state.param1, state.param2));
    };
    return Difference("error state", {text(expected)}, {text(actual)});
}

std::string CompareThrown(const Case& script, const Outcome& outcome) {
    if (script.throws.value_or("") == outcome.thrownType) {
        return "";
    }
    return Difference("exception", {script.throws ? *script.throws : "none"},
                      {outcome.thrown.empty() ? "none" : outcome.thrown});
}

std::string CompareAnswers(const Case& script, const ScriptDirector& run) {
    std::vector<Json::Value> expected;
    expected.reserve(script.answers.size());
    for (const ExpectedAnswer& one : script.answers) {
        expected.push_back(one.answer);
    }
    std::string report = CompareJson("response", expected, run.answers);
    for (std::size_t i = 0; report.empty() && i < script.answers.size(); ++i) {
        if (!script.answers[i].after.empty()) {
            report += Difference("answered after", {script.answers[i].after}, {run.answeredAfter[i]});
        }
    }
    return report;
}

std::string Compare(const Case& script, const Outcome& outcome) {
    const ScriptDirector& run = outcome.director;
    std::string report = Difference("calls", CallLines(script.calls), CallLines(run.made));
    if (script.reads) {
        report += Difference("reads", ReadLines(*script.reads), ReadLines(run.reads));
    }
    report += CompareLog(script.log, run.log);
    report += CompareThrown(script, outcome);
    report += CompareAnswers(script, run);
    if (!script.isEntry && !script.throws) {
        if (FindRoutine(script.routine)->returnsSomething) {
            report += CompareJson("returns", {script.returns}, {outcome.returns});
        }
        report += CompareError(script.error, outcome.error);
    }
    return report;
}

}  // namespace

std::string CallLine(const fake::FunctionTraits& function, const Json::Value& args) {
    std::string line = function.name + "(";
    for (Json::ArrayIndex i = 0; i < args.size(); ++i) {
        line += (i > 0 ? ", " : "") + OneLine(args[i]);
    }
    return line + ")";
}

std::string CheckLeftovers(const Case& script, const Outcome& outcome) {
    constexpr int kUnknownId = -1;
    const ScriptDirector& run = outcome.director;
    std::string report;
    for (const std::string& misuse : run.misuse) {
        report += misuse + "\n";
    }
    if (outcome.openResults > 0) {
        report += std::to_string(outcome.openResults) + " database result(s) not freed\n";
    }
    if (outcome.openShareRecords > 0) {
        report += std::to_string(outcome.openShareRecords) + " shared folder record(s) not freed\n";
    }
    const bool reported = std::any_of(run.made.begin(), run.made.end(), [](const MadeCall& call) {
        return call.function->name == "syslog" && call.args[0] == (LOG_AUTH | LOG_CRIT);
    });
    const bool uidLeft = run.world.euid != script.world.euid && script.world.euid != kUnknownId;
    const bool gidLeft = run.world.egid != script.world.egid && script.world.egid != kUnknownId;
    if ((uidLeft || gidLeft) && !reported) {
        report += "effective ids left at " + std::to_string(run.world.euid) + "/" +
                  std::to_string(run.world.egid) + " instead of " + std::to_string(script.world.euid) + "/" +
                  std::to_string(script.world.egid) + "\n";
    }
    return report;
}

std::string Judge(const Case& script) {
    Outcome outcome(script, std::nullopt);
    Run(script, outcome);
    std::string report = Compare(script, outcome) + CheckLeftovers(script, outcome);
    if (report.empty() && script.noSweepBecause.empty()) {
        report = Sweep(script, outcome.director.made);
    }
    return report;
}

}  // namespace scenario
