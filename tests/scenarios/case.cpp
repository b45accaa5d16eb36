#include "tests/scenarios/case.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <set>

#include "tests/fake/records.h"
#include "tests/scenarios/case_parts.h"
#include "tests/scenarios/routines.h"
#include "tests/scenarios/yaml_file.h"

namespace scenario {

namespace {

using Reader = void (*)(const YamlNode& node, Case& read);

void ReadVia(const YamlNode& node, Case& read) {
    read.routine = node.Text();
    read.isEntry = true;
    if (read.routine != "Process" && read.routine != "ProcessRelay") {
        node.Fail("via is Process or ProcessRelay");
    }
}

void ReadRoutine(const YamlNode& node, Case& read) {
    if (read.isEntry) {
        node.Fail("a case has either via or routine");
    }
    read.routine = node.Text();
    if (FindRoutine(read.routine) == nullptr) {
        node.Fail("there is no routine '" + read.routine + "'");
    }
}

void ReadArgs(const YamlNode& node, Case& read) { read.routineArgs = ReadObject(node); }

void ReadReturns(const YamlNode& node, Case& read) { read.returns = node.ToJson(); }

void ReadThrows(const YamlNode& node, Case& read) { read.throws = node.Text(); }

void ReadSweep(const YamlNode& node, Case& read) {
    node.ForEachMember([&read](const std::string& name, const YamlNode& value) {
        if (name != "off") {
            value.Fail("sweep knows only off, with the reason");
        }
        read.noSweepBecause = value.Text();
        if (read.noSweepBecause.empty()) {
            value.Fail("why is the sweep off?");
        }
    });
}

const std::map<std::string, Reader>& CaseReaders() {
    static const std::map<std::string, Reader> readers = {
        {"case", [](const YamlNode& node, Case& read) { read.sentence = node.Text(); }},
        {"via", ReadVia},
        {"routine", ReadRoutine},
        {"args", ReadArgs},
        {"request", [](const YamlNode& node, Case& read) { read.request = ReadRequest(node); }},
        {"given", [](const YamlNode& node, Case& read) { read.world = ReadWorld(node); }},
        {"calls", [](const YamlNode& node, Case& read) { read.calls = ReadCalls(node); }},
        {"never", [](const YamlNode& node, Case& read) { read.never = ReadNever(node); }},
        {"reads", [](const YamlNode& node, Case& read) { read.reads = ReadReads(node); }},
        {"log", [](const YamlNode& node, Case& read) { read.log = ReadLog(node); }},
        {"response", [](const YamlNode& node, Case& read) { read.answers = ReadAnswers(node); }},
        {"throws", ReadThrows},
        {"returns", ReadReturns},
        {"error", [](const YamlNode& node, Case& read) { read.error = ReadErrorState(node); }},
        {"tolerates", [](const YamlNode& node, Case& read) { read.tolerates = ReadTolerates(node); }},
        {"sweep", ReadSweep},
    };
    return readers;
}

// What a case must say and what it may not say follows from what it calls.
void CheckMembers(const YamlNode& node, const Case& read, const std::set<std::string>& members) {
    const auto has = [&members](const char* name) { return members.count(name) > 0; };
    if (read.sentence.empty()) {
        node.Fail("a case needs a sentence");
    }
    if (read.routine.empty()) {
        node.Fail("a case needs via or routine");
    }
    if (read.isEntry) {
        if (has("response") == has("throws")) {
            node.Fail("a case through an entry has either response or throws");
        }
        if (has("args") || has("returns") || has("error")) {
            node.Fail("args, returns and error belong to a routine");
        }
        if (read.request.method.empty()) {
            node.Fail("request needs a method");
        }
        return;
    }
    const Routine& routine = *FindRoutine(read.routine);
    for (const std::string& name : read.routineArgs.getMemberNames()) {
        if (!routine.args.isMember(name)) {
            node.Fail(read.routine + " has no argument '" + name + "'");
        }
        if (!routine.args[name].isNull() && !fake::IsSameKind(read.routineArgs[name], routine.args[name])) {
            node.Fail("argument '" + name + "' has the wrong type");
        }
    }
    if (routine.returnsSomething && has("returns") == has("throws")) {
        node.Fail(read.routine + " has either returns or throws");
    }
    if (!routine.returnsSomething && has("returns")) {
        node.Fail(read.routine + " returns nothing");
    }
    if (routine.answers && has("response") == has("throws")) {
        node.Fail(read.routine + " has either response or throws");
    }
}

Case ReadCase(const YamlNode& node) {
    Case read;
    read.file = node.file();
    read.line = node.line();
    std::set<std::string> members;
    node.ForEachMember([&](const std::string& name, const YamlNode& value) {
        const auto reader = CaseReaders().find(name);
        if (reader == CaseReaders().end()) {
            value.Fail("a case has no '" + name + "'");
        }
        reader->second(value, read);
        members.insert(name);
    });
    CheckMembers(node, read, members);
    return read;
}

void CheckSentencesDiffer(const CaseFile& file) {
    std::set<std::string> seen;
    for (const Case& one : file.cases) {
        if (!seen.insert(ToIdentifier(one.sentence)).second) {
            throw LoadError(one.file, one.line, "an earlier case has the same sentence");
        }
    }
}

}  // namespace

std::string ToIdentifier(const std::string& sentence) {
    std::string identifier;
    for (const char character : sentence) {
        if (std::isalnum(static_cast<unsigned char>(character)) != 0) {
            identifier += character;
        } else if (!identifier.empty() && identifier.back() != '_') {
            identifier += '_';
        }
    }
    while (!identifier.empty() && identifier.back() == '_') {
        identifier.pop_back();
    }
    return identifier;
}

CaseFile LoadCaseFile(const std::string& file) {
    const YamlNode root = LoadYamlFile(file);
    CaseFile read;
    read.suite = ToIdentifier(std::filesystem::path(file).stem().string());
    std::string name;
    root.ForEachMember([&](const std::string& member, const YamlNode& value) {
        if (member == "name") {
            name = value.Text();
        } else if (member == "purpose") {
            read.purpose = value.Text();
        } else if (member == "cases") {
            value.ForEachItem([&read](const YamlNode& item) { read.cases.push_back(ReadCase(item)); });
        } else {
            value.Fail("a scenario file has no '" + member + "'");
        }
    });
    if (name.empty() || read.purpose.empty() || read.cases.empty()) {
        root.Fail("a scenario file needs name, purpose and cases");
    }
    CheckSentencesDiffer(read);
    return read;
}

}  // namespace scenario
