#pragma once

#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "tests/fake/api.h"
#include "tests/fake/director.h"
#include "tests/fake/world.h"

namespace scenario {

// A platform call that must be made, and what it gets.
struct ScriptedCall {
    const fake::FunctionTraits* function = nullptr;
    Json::Value args;
    Json::Value reply;
    int line = 0;
};

// An entry of the diagnostic log that must be written; a line number that may move is left out.
struct ExpectedLog {
    fake::LogLine entry;
    bool anyLine = true;
};

// An answer that must be given: {"success": data} or {"error": {"code": n, "data": data}}.
struct ExpectedAnswer {
    Json::Value answer;
    std::string after;  // the function of the line of the script that stands before it; empty = not looked at
};

// A call whose failure the method gets over: the `nth` one of a function (from 1), or each.
struct Tolerated {
    std::string function;
    std::optional<int> nth;
};

// The error state of a handler.
struct ErrorState {
    int code = 0;
    std::string param1;
    std::string param2;
};

// One case of a scenario file, as plain data.
struct Case {
    std::string file;
    int line = 0;
    std::string sentence;

    std::string routine;  // "Process", "ProcessRelay" or a routine's name
    bool isEntry = false;
    Json::Value routineArgs{Json::objectValue};
    KORV::APIRequest::State request;
    fake::World world;

    std::vector<ScriptedCall> calls;
    std::vector<std::string> never;  // background functions that must not be called
    std::optional<std::vector<Json::Value>> reads;
    std::vector<ExpectedLog> log;
    std::vector<ExpectedAnswer> answers;
    std::optional<std::string> throws;  // the exception's type
    Json::Value returns;
    ErrorState error;

    std::vector<Tolerated> tolerates;
    std::string noSweepBecause;
};

// The cases of one file: its suite name is the file's name without folder and ending.
struct CaseFile {
    std::string suite;
    std::string purpose;
    std::vector<Case> cases;
};

// Throws LoadError for anything that isn't exactly in the format.
CaseFile LoadCaseFile(const std::string& file);

// The sentence as an identifier: letters and digits stay, everything between them becomes one underscore.
std::string ToIdentifier(const std::string& sentence);

}  // namespace scenario
