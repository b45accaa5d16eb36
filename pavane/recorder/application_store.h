#pragma once

#include <map>

// Which of the package's applications are switched off or can't run, and which shared folders applications
// use. Failures are thrown (pavane/store/database.h).
namespace pavane {

struct ApplicationFlags {
    bool isCompatible = true;
    bool isEnabled = true;
};

// By application id; applications that are as they come are missing.
std::map<int, ApplicationFlags> ReadApplicationFlags();

void WriteApplicationFlags(int applicationId, const ApplicationFlags& flags);

}  // namespace pavane
