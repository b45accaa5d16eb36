// The runner sees what it must see: every kind of mismatch is reported, every slip in a file is refused, and
// the format's document speaks of every function and routine.

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/scenarios/case.h"
#include "tests/scenarios/compare.h"
#include "tests/scenarios/routines.h"
#include "tests/scenarios/run.h"
#include "tests/scenarios/yaml_file.h"

namespace {

struct Mismatch {
    const char* sentence;
    const char* reported;
};

const Mismatch kMismatches[] = {
    {"another code", "-     \"code\": 400"},
    {"another kind of number", "- 0.0\n  + 0\n"},
    {"a text for a number", "- \"0\"\n  + 0\n"},
    {"a member too few", "+   \"version\": 1"},
    {"no response at all expected", "response ('-' expected"},
    {"one response of two", "-   \"success\": null"},
    {"a response before its call", "- sleep\n  + nothing"},
    {"an unscripted call", "+ KORV::APIRunner::Exec(\"KORV.Core.Share.Permission\""},
    {"a call left over", "- sleep(1)"},
    {"another argument", "- SlaveRvGetList(1)\n  + SlaveRvGetList(0)"},
    {"two calls the other way round", "calls ('-' expected"},
    {"a background read made more often than scripted", "+ geteuid()"},
    {"a function that must never be called", "+ SlaveRvGetList(0)"},
    {"an unexpected log line", "+ [SHARE ERR] share:"},
    {"a log line left over", "- share f: \"x\""},
    {"another log text", "RV 1 is empty"},
    {"another log line number", "- [SHARE DEBUG] share:1967"},
    {"a log line without its category", "- share HandleListRecShare"},
    {"another read", "- [\"GetParam\", \"recSerialNum\", \"0\"]"},
    {"an exception that nobody expects", "+ Json::LogicError"},
    {"an exception that doesn't come", "- std::out_of_range\n  + none"},
    {"an exception of another type", "- std::out_of_range\n  + Json::LogicError"},
    {"another error state", "- [1, \"a\", \"c\"]"},
    {"an error state that nobody expects", "- [0, \"\", \"\"]"},
    {"another file in the system's log", "- syslog(35, \"another.cpp:* ERROR: IF_RUN_AS(0, 0)\")"},
    {"another line in the system's log", "- syslog(35, \"scope.cpp:78 ERROR: IF_RUN_AS(0, 0)\")"},
    {"ids that stay switched", "effective ids left at 9/0 instead of 0/0"},
    {"another setter's value", "[\"SetHidden\", false]"},
    {"a fault that ends in success", "success in spite of it"},
    {"a tolerance of another call of that function", "success in spite of it"},
    {"a tolerance that nothing needs", "tolerates RecShare::Save, but no such failure"},
};

const scenario::CaseFile& Broken() {
    static const scenario::CaseFile file = scenario::LoadCaseFile(SELFTEST_FOLDER "/mismatches.yaml");
    return file;
}

const scenario::Case& Find(const std::string& sentence) {
    for (const scenario::Case& one : Broken().cases) {
        if (one.sentence == sentence) {
            return one;
        }
    }
    throw std::logic_error("no such case: " + sentence);
}

TEST(ScenarioRunner, PassesASoundCase) { EXPECT_EQ(scenario::Judge(Find("a sound case")), ""); }

TEST(ScenarioRunner, ReportsEveryKindOfMismatch) {
    for (const Mismatch& mismatch : kMismatches) {
        const std::string report = scenario::Judge(Find(mismatch.sentence));
        EXPECT_NE(report.find(mismatch.reported), std::string::npos)
            << mismatch.sentence << " was reported as:\n"
            << report;
    }
    EXPECT_EQ(Broken().cases.size(), std::size(kMismatches) + 1) << "a broken case that nobody looks at";
}

class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& text)
        : m_path(std::filesystem::temp_directory_path() / ("scenario" + std::to_string(getpid()) + ".yaml")) {
        std::ofstream(m_path) << text;
    }
    ~TemporaryFile() {
        std::error_code ignored;
        std::filesystem::remove(m_path, ignored);
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    std::string path() const { return m_path.string(); }

private:
    std::filesystem::path m_path;
};

// The text by which the file is refused, without its name; empty when it is taken.
std::string Refusal(const std::string& text) {
    const TemporaryFile file(text);
    try {
        scenario::LoadCaseFile(file.path());
        return "";
    } catch (const scenario::LoadError& error) {
        const std::string what = error.what();
        return what.substr(file.path().size());
    }
}

const std::string kHead = "name: n\npurpose: p\ncases:\n  - case: c\n";

struct Slip {
    std::string text;
    const char* refusal;
};

TEST(ScenarioRunner, RefusesEverySlipInAFileWithItsLine) {
    const std::string entry = kHead + "    via: Process\n    request: {method: m}\n";
    const std::string ok = "    response: none\n";
    const std::string routine = kHead + "    routine: GetSlaveRVId\n    returns: 0\n";
    ASSERT_EQ(Refusal(entry + ok), "");
    ASSERT_EQ(Refusal(routine), "");
    const Slip slips[] = {
        {"name: n\npurpose: p\n", ":1: a scenario file needs"},
        {"name: n\npurpose: p\ncases: []\ncase: 1\n", ":4: a scenario file has no 'case'"},
        {"name: n\n  purpose: p\n", ":2: "},
        {entry, ":4: a case through an entry has either response or throws"},
        {entry + ok + "    throws: T\n", ":4: a case through an entry has either response or throws"},
        {entry + ok + "    retruns: 0\n", ":8: a case has no 'retruns'"},
        {entry + ok + "    returns: 0\n", ":4: args, returns and error belong to a routine"},
        {entry + ok + ok, ":8: 'response' stands here twice"},
        {entry + "    response: {succes: null}\n", ":7: a response is success or error"},
        {entry + "    response: {error: {data: null}}\n", ":7: an error needs a code"},
        {entry + "    response: {error: {code: 1, date: null}}\n", ":7: an error has no 'date'"},
        {entry + "    response: {success: null, after: Nope}\n", ":7: there is no platform function"},
        {entry + "    response: {after: sleep}\n", ":7: a response is success or error"},
        {entry + "    response: nothing\n", ":7: a response is success, error"},
        {kHead + "    via: Proces\n", ":5: via is"},
        {kHead + "    via: Process\n" + ok, ":4: request needs a method"},
        {kHead + "    via: Process\n    request: {method: m, parms: {}}\n" + ok,
         ":6: a request has no 'parms'"},
        {kHead + "    via: Process\n    request: {method: m, admin: 1}\n" + ok, ":6: must be true or false"},
        {kHead + "    routine: Nope\n", ":5: there is no routine"},
        {kHead + "    routine: GetSlaveRVId\n", ":4: GetSlaveRVId has either returns"},
        {routine + "    args: {x: 1}\n", ":4: GetSlaveRVId has no argument 'x'"},
        {kHead + "    routine: IsCamAvailiable\n    args: {camId: x}\n    returns: true\n",
         ":4: argument 'camId' has the wrong type"},
        {routine + "    given: {cms: {hots: true}}\n", ":7: cms has no 'hots'"},
        {routine + "    given: {shares: [{nmae: x}]}\n", ":7: a record has no field 'nmae'"},
        {routine + "    given: {shares: [{name: 1}]}\n", ":7: field 'name' has a value of the wrong type"},
        {routine + "    given: {log: {levels: {99: 1}}}\n", ":7: a category is a number"},
        {routine + "    given: {log: {pids: [[me, 1]]}}\n", ":7: pids is a list"},
        {routine + "    calls: [{call: Nope}]\n", ":7: there is no platform function 'Nope'"},
        {routine + "    calls: [{call: IsExistDir}]\n", ":7: IsExistDir has 1 arguments, not 0"},
        {routine + "    calls: [{call: IsExistDir, args: [x], reply: 0}]\n", ":7: IsExistDir has no reply"},
        {routine + "    calls: [{call: IsExistDir, args: [x], repyl: true}]\n", ":7: a call has no 'repyl'"},
        {routine + "    calls: [{call: PVLog, args: [1, u, 0, [], 0], fails: true}]\n", ":7: fails takes"},
        {routine + "    calls: [{call: SlaveRV::Load, args: [1], reply: {sever: {}}}]\n",
         ":7: the reply of SlaveRV::Load has no 'sever'"},
        {routine + "    calls: [{call: SlaveRV::Load, args: [1], reply: {server: {ky: a}}}]\n",
         ":7: a record has no field 'ky'"},
        {routine + "    calls: [{call: GetCamLocalList, args: [false, \"\", \"\", false, false], reply: "
                   "[{nam: a}]}]\n",
         ":7: a record has no field 'nam'"},
        {routine + "    calls: [{call: SlaveRVMgr::SlaveRVMgr, args: [true], reply: [{id: 2, statsu: 1}]}]\n",
         ":7: a record has no field 'statsu'"},
        {routine + "    calls: [{call: ApplicationTraits, reply: [{id: 2, enabled: 1}]}]\n",
         ":7: field 'enabled' has a value of the wrong type"},
        {routine + "    calls: [{call: LoadRecShareFromDB, args: [0], reply: [7]}]\n",
         ":7: a record must be a mapping"},
        {routine + "    calls: [{call: KORVExtStgPartsVolInfoGet, args: [sdb, true], "
                   "reply: {partitions: [{share: a}, {labell: x}]}}]\n",
         ":7: a record has no field 'labell'"},
        {routine + "    calls: [{call: KORVExtStgPartsVolInfoGet, args: [sdb, true], "
                   "reply: {partitions: [{state: x}]}}]\n",
         ":7: field 'state' has a value of the wrong type"},
        {routine + "    never: [PVLog]\n", ":7: 'PVLog' is no background function"},
        {routine + "    reads: [[GetParam, x]]\n", ":7: no such read"},
        {routine + "    log: [{file: f, function: g}]\n", ":7: a log line needs"},
        {routine + "    log: [{file: f, function: g, text: t, level: ERR}]\n", ":7: a log line has both"},
        {routine + "    tolerates: [IsExitDir]\n", ":7: 'IsExitDir' is no platform function that can fail"},
        {routine + "    sweep: off\n", ":7: must be a mapping"},
        {routine + "    sweep: {off: \"\"}\n", ":7: why is the sweep off?"},
        {routine + "    error: [1, a]\n", ":7: error is [code, param1, param2]"},
        {routine + "    args: &a {}\n", ":7: anchors and aliases"},
        {routine + "---\nname: m\n", ":1: holds more than one document"},
        {routine + "  - case: C\n    routine: GetSlaveRVId\n    returns: 0\n", ""},
        {routine + "  - case: c!\n    routine: GetSlaveRVId\n    returns: 0\n",
         ":7: an earlier case has the same sentence"},
    };
    for (const Slip& slip : slips) {
        const std::string refusal = Refusal(slip.text);
        EXPECT_EQ(refusal.substr(0, std::string(slip.refusal).size()), slip.refusal)
            << slip.text << "was refused with: " << refusal;
    }
}

std::string Document() {
    std::ifstream in(FORMAT_DOCUMENT);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The cells of the table row that starts with `name`; empty when there is none.
std::vector<std::string> RowOf(const std::string& name) {
    std::istringstream in(Document());
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("| `" + name + "` |", 0) != 0) {
            continue;
        }
        std::vector<std::string> cells;
        std::size_t begin = 2;
        for (std::size_t end = 0; (end = line.find(" | ", begin)) != std::string::npos; begin = end + 3) {
            cells.push_back(line.substr(begin, end - begin));
        }
        return cells;
    }
    return {};
}

// The value between the backticks of a cell, written as in a scenario.
std::string ValueIn(const std::string& cell) {
    const std::size_t begin = cell.find('`') + 1;
    const std::string text = cell.substr(begin, cell.find('`', begin) - begin);
    return scenario::OneLine(scenario::YamlNode("document", YAML::Load(text)).ToJson());
}

TEST(ScenarioFormat, DescribesEveryFunctionAsTheRunnerHasIt) {
    for (const fake::FunctionTraits& function : fake::AllFunctions()) {
        SCOPED_TRACE(function.name);
        const std::vector<std::string> row = RowOf(function.name);
        ASSERT_GE(row.size(), 5U);
        EXPECT_EQ(row[1], function.kind == fake::Kind::kCall ? "call" : "background");
        std::string arguments;
        for (const std::string& name : function.argNames) {
            arguments += (arguments.empty() ? "" : ", ") + name;
        }
        EXPECT_EQ(row[2], arguments.empty() ? "none" : arguments);
        EXPECT_EQ(ValueIn(row[3]), scenario::OneLine(function.benign));
        EXPECT_EQ(row[4] == "cannot", !function.canFail);
        EXPECT_EQ(row[4].find("quiet") != std::string::npos, !function.tellsFailure);
        if (function.canFail) {
            EXPECT_EQ(ValueIn(row[4]), scenario::OneLine(function.failing));
        }
    }
}

TEST(ScenarioFormat, DescribesEveryRoutineWithItsArguments) {
    for (const scenario::Routine& routine : scenario::AllRoutines()) {
        SCOPED_TRACE(routine.name);
        const std::vector<std::string> row = RowOf(routine.name);
        ASSERT_GE(row.size(), 4U);
        for (const std::string& name : routine.args.getMemberNames()) {
            const std::string written = "`" + name + ": " + scenario::OneLine(routine.args[name]) + "`";
            EXPECT_NE(row[1].find(written), std::string::npos) << written;
        }
        EXPECT_EQ(row[1] == "none", routine.args.empty());
        EXPECT_EQ(row[3], routine.answers ? "yes" : "no");
    }
}

TEST(ScenarioFormat, GivesExamplesThatHold) {
    const std::string document = Document();
    const std::string begin = "```yaml\n- case:";
    int examples = 0;
    for (std::size_t at = document.find(begin); at != std::string::npos; at = document.find(begin, at + 1)) {
        const std::size_t start = document.find('\n', at) + 1;
        std::istringstream in(document.substr(start, document.find("```", start) - start));
        std::string text = "name: n\npurpose: p\ncases:\n";
        for (std::string line; std::getline(in, line);) {
            text += "  " + line + "\n";
        }
        const TemporaryFile file(text);
        const scenario::CaseFile loaded = scenario::LoadCaseFile(file.path());
        EXPECT_EQ(scenario::Judge(loaded.cases.front()), "");
        ++examples;
    }
    EXPECT_GT(examples, 0);
}

}  // namespace
