#pragma once

#include <string>

namespace korv {

// Opens `path` (0640, root:adm when that group exists) as the framework's log of this process and the
// processes that it forks from now on. Throws std::runtime_error when it cannot be opened.
void OpenLog(const std::string& path);

// Writes one line with time and process id; to standard error while no log is open. Control characters become
// '?'. Never throws, never fails; callers keep secrets out of `text`.
void LogLine(const std::string& text) noexcept;

}  // namespace korv
