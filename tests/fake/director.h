#pragma once

#include <string>

#include <json/json.h>

#include "tests/fake/functions.h"

namespace fake {

// One entry of the diagnostic log as it was written. Category and level are empty when none were given.
struct LogLine {
    std::string category;
    std::string level;
    std::string file;
    int line = 0;
    std::string function;
    std::string text;
};

// Stands behind all of the fake platform: hears what the module does and says what it gets.
class Director {
public:
    virtual ~Director() = default;

    // A platform function was called with `args` (an array). Gives the reply in the form of the function's
    // benign reply; members that a scripted reply leaves out have been filled in.
    virtual Json::Value Reply(const FunctionTraits& function, const Json::Value& args) = 0;
    // A member of the request was asked: [function, arguments ...].
    virtual void Read(const Json::Value& read) = 0;
    virtual void Log(const LogLine& line) = 0;
    // The request was answered: {"success": data} or {"error": {"code": n, "data": data}}.
    virtual void Answer(const Json::Value& answer) = 0;
    // Something that no platform call may do, e.g. a result that is freed twice.
    virtual void Misuse(const std::string& what) = 0;
};

// Makes `director` hear the calls of the process until the object is destroyed. Not nested.
class DirectorScope {
public:
    explicit DirectorScope(Director& director);
    ~DirectorScope();
    DirectorScope(const DirectorScope&) = delete;
    DirectorScope& operator=(const DirectorScope&) = delete;
};

// Null when nobody directs: then intercepted system calls go to the system and platform calls throw.
Director* CurrentDirector();

// Asks the current director. `args` is the array of recorded arguments.
Json::Value Ask(const char* function, const Json::Value& args);

// An array of the given values, for Ask.
template <class... Values>
Json::Value Args(const Values&... values) {
    Json::Value args(Json::arrayValue);
    (args.append(Json::Value(values)), ...);
    return args;
}

}  // namespace fake
