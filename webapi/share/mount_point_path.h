#pragma once

#include <string>

// The parts of a mount point's path: volume, shared folder, directory. A separator is "/" or a backslash; the
// first character is skipped, whatever it is. 0, or -1 with `name` unchanged when the part is not delimited.

// The text from the second character to the first separator after it.
int GetVolumeNameFromPath(const std::string& path, std::string& name);

// The text between the first and the second separator found from the second character on.
int GetShareNameFromPath(const std::string& path, std::string& name);
