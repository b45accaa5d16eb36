#pragma once

#include <map>
#include <string>

// What tests compare trees by.
namespace manifest {

// Path -> one line with all that a copy must keep: kind, mode, owner, size, time of modification, content,
// attributes, where a link leads, device, and the first other name of the same file.
using Manifest = std::map<std::string, std::string>;
Manifest Of(const std::string& root);

// The paths whose lines differ, with both lines; empty when the trees are the same.
std::string Difference(const Manifest& left, const Manifest& right);

// A tree with one of everything: `files` files of up to 300 KiB besides, in some twenty folders.
void MakeTree(const std::string& root, int files);

}  // namespace manifest
