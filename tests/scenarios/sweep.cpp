#include "tests/scenarios/sweep.h"

#include <map>

#include "tests/scenarios/compare.h"

namespace scenario {

namespace {

struct Fault {
    const MadeCall& call;
    int nth;  // which call of this function, from 1
};

// The entry of the case's `tolerates` that covers the fault; null when none does.
const Tolerated* FindTolerance(const Case& script, const Fault& fault) {
    for (const Tolerated& one : script.tolerates) {
        if (one.function == fault.call.function->name && one.nth.value_or(fault.nth) == fault.nth) {
            return &one;
        }
    }
    return nullptr;
}

std::string JudgeFault(const Case& script, const Fault& fault, const Outcome& outcome,
                       std::map<const Tolerated*, bool>& needed) {
    std::string report = CheckLeftovers(script, outcome);
    if (!outcome.thrown.empty() && !script.throws) {
        report += "an exception left the module: " + outcome.thrown + "\n";
    }
    if (HasSucceeded(script, outcome).value_or(false) && fault.call.function->tellsFailure) {
        if (const Tolerated* tolerance = FindTolerance(script, fault)) {
            needed[tolerance] = true;
        } else {
            report += "success in spite of it\n";
        }
    }
    if (report.empty()) {
        return "";
    }
    return "with " + CallLine(*fault.call.function, fault.call.args) + " failing (no. " +
           std::to_string(fault.nth) + " of them):\n  " + report;
}

}  // namespace

std::string Sweep(const Case& script, const std::vector<MadeCall>& made) {
    std::map<const Tolerated*, bool> needed;
    for (const Tolerated& one : script.tolerates) {
        needed[&one] = false;
    }
    std::map<std::string, int> count;
    std::string report;
    for (std::size_t i = 0; i < made.size(); ++i) {
        const Fault fault{made[i], ++count[made[i].function->name]};
        const fake::FunctionTraits& function = *made[i].function;
        if (!function.canFail || OneLine(function.failing) == OneLine(made[i].reply)) {
            continue;
        }
        Outcome outcome(script, i);
        Run(script, outcome);
        report += JudgeFault(script, fault, outcome, needed);
    }
    for (const auto& [tolerance, isNeeded] : needed) {
        if (!isNeeded) {
            report += "tolerates " + tolerance->function + ", but no such failure ends in success\n";
        }
    }
    return report.empty() ? "" : "fault sweep: " + report;
}

}  // namespace scenario
