#pragma once

#include <string>

namespace pavane {

// Writes down, and tells clients, that the remote mount of the recording share at `path` is normal or not,
// with its type and size when it has become normal or they are still unknown. A path of no recording share is
// nobody's concern here.
void NoteMountState(const std::string& path, bool isNormal);

}  // namespace pavane
