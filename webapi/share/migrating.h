#pragma once

#include <list>
#include <string>

// Adds to `count` the local cameras whose recordings are being moved out of one of `sharePaths`.
//   sharePaths  absolute folder paths, compared byte for byte (no trailing slash, no case folding)
//   count       in/out, cameras, each at most once; the caller sets it to 0
// Reads one migration file per camera; a file that is missing or names no source counts as not moving.
// Never fails, never logs, keeps no reference.
void CountMigratingCamsOnShares(int& count, const std::list<std::string>& sharePaths);
