#pragma once

#include <string>

namespace korv {

// One process of this machine for all time: its id alone is used again after its end.
struct ProcessIdentity {
    int pid = 0;
    long long start = 0;  // clock ticks between boot and the process's start
    std::string bootId;   // changes with every boot
};

// Throws std::runtime_error when /proc is not there to ask.
ProcessIdentity ThisProcess();

// True when that very process is the one that asks.
bool IsThisProcess(const ProcessIdentity& process);

// True while that very process runs; one that has ended but was not waited for yet does not.
bool IsRunning(const ProcessIdentity& process);

}  // namespace korv
