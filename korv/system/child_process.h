#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
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

// Runs the program at `path` as above with `input` on its standard input, real uid 0 included, and with its
// output thrown away, so that nothing of a secret comes back. A program that leaves a process of its own
// behind has ended when it itself has. Returns its exit status; -1 when it could not be started, was killed
// or missed its deadline.
//   input  at most kLongestInput bytes; never in arguments, environment or a file
//   kept   a descriptor that the program and what it leaves behind inherit, beside standard ones; -1 for none
constexpr std::size_t kLongestInput = 8192;
int RunProgramWithInput(const std::string& path, const std::vector<std::string>& arguments,
                        std::string_view input, std::chrono::milliseconds deadline, int kept = -1);

// Runs `work`, system calls that may hang, as root in a child of this process. Returns what it returned, 0 to
// 254; nothing when the child missed its deadline or died. A child that even a signal can't end is left to
// itself; any other ends with the thread that called.
std::optional<int> RunInChild(const std::function<int()>& work, std::chrono::milliseconds deadline);

}  // namespace korv
