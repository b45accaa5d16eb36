#pragma once

namespace pavane {

// How often RefreshShareStates should run.
constexpr int kShareStateInterval_s = 3;

// Brings what this server's records say about encryption and about data being moved in step with the shared
// folders: those change by themselves, when a job ends or somebody locks a folder. Tells connected clients
// when something has changed. Failures are logged.
void RefreshShareStates();

}  // namespace pavane
