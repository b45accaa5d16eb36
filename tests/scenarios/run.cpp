#include "tests/scenarios/run.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

#include "tests/fake/database.h"
#include "tests/fake/shared_folders.h"
#include "tests/scenarios/routines.h"
#include "webapi/share/entry.h"

namespace scenario {

namespace {

std::string TypeName(const std::type_info& type) {
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
    return status == 0 ? name.get() : type.name();
}

Json::Value CompleteArgs(const Case& script, Json::Value args) {
    for (const std::string& name : script.routineArgs.getMemberNames()) {
        args[name] = script.routineArgs[name];
    }
    return args;
}

void Call(const Case& script, Outcome& outcome) {
    KORV::APIRequest request(std::make_unique<KORV::APIRequest::State>(script.request));
    KORV::APIResponse response(std::make_unique<KORV::APIResponse::State>());
    if (script.isEntry) {
        (script.routine == "Process" ? Process : ProcessRelay)(&request, &response);
        return;
    }
    const Routine& routine = *FindRoutine(script.routine);
    const Json::Value args = CompleteArgs(script, routine.args);
    RoutineContext context{request, response, args, outcome.director.world, {}};
    outcome.returns = routine.run(context);
    outcome.error = context.error;
}

}  // namespace

void Run(const Case& script, Outcome& outcome) {
    const fake::LogConfigurationScope configuration(script.world.log);
    const fake::DirectorScope directed(outcome.director);
    try {
        Call(script, outcome);
    } catch (const std::exception& error) {
        outcome.thrownType = TypeName(typeid(error));
        outcome.thrown = outcome.thrownType + ": " + error.what();
    }
    outcome.openResults = fake::OpenResultCount();
    outcome.openShareRecords = fake::OpenShareRecordCount();
    fake::DropOpenResults();
    fake::DropOpenShareRecords();
}

std::optional<bool> HasSucceeded(const Case& script, const Outcome& outcome) {
    if (!outcome.thrownType.empty()) {
        return false;
    }
    const Routine* routine = script.isEntry ? nullptr : FindRoutine(script.routine);
    if (routine == nullptr || routine->answers) {
        bool success = false;
        for (const Json::Value& answer : outcome.director.answers) {
            success = success || answer.isMember("success");
            if (answer.isMember("error")) {
                return false;
            }
        }
        return success;
    }
    if (routine->succeeded == nullptr) {
        return std::nullopt;
    }
    return routine->succeeded(outcome.returns);
}

}  // namespace scenario
