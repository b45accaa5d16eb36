#pragma once

#include <string>
#include <vector>

// The password that a job needs when it goes on after a restart: <stateDir>/jobs/<id>.password, 0600 and
// root's in a folder of root's (0700), as long as the job is not over. Need saved uid 0.
namespace korv {

// Written to the disk when this returns; replaces one of an id that was never used. Throws std::system_error.
void KeepJobPassword(long long id, const std::string& password);

// Empty when there is none.
std::string ReadJobPassword(long long id);

// The jobs that have one.
std::vector<long long> ListJobPasswords();

// Overwrites and removes it; nothing to do when there is none.
void ForgetJobPassword(long long id);

}  // namespace korv
