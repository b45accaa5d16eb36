#pragma once

#include <string>

// Prepares the worker process for one request. Implemented in korv/framework/process_environment.cpp.
class PVTaskSet {
public:
    // Binds the process to the processors that the configuration names for `task`; the empty name means the
    // machine's default set. Failure leaves the affinity as it was and is logged by the platform.
    static void SetAffinity(const std::string& task);
};

class DualAuth {
public:
    // Puts the second-factor state of the session into the process environment for code that reads it there:
    // the variable PAV_DUAL_AUTH is set to `cookie` when both texts are non-empty, else removed.
    //   cookie     the value of the cookie "pav_dual_auth"
    //   sessionId  the caller's session id
    static void CheckToSetEnv(const std::string& cookie, const std::string& sessionId);
};
