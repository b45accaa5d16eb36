#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace korv {

// How a program ended.
//   exitCode  its exit status; -1 when it could not be started, was killed or missed its deadline
//   output    what it wrote to standard output and standard error, at most 16 MiB of it
struct ProgramEnd {
    int exitCode = -1;
    std::string output;
};

// Runs the program at `path` with `arguments` as root, without a shell, with a fixed environment and nothing
// on standard input, and waits for it; kills it at the deadline. Secrets don't belong into arguments, which
// everybody can read. Needs saved uid 0, and that nobody else waits for this process's children.
ProgramEnd RunProgram(const std::string& path, const std::vector<std::string>& arguments,
                      std::chrono::milliseconds deadline);

}  // namespace korv
