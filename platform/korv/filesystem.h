#pragma once

#include <string>

// Paths and folders of this machine. Implemented in korv/system/filesystem.cpp.

// True when `path` is an existing directory, a symbolic link to one included. False also when it can't be
// read; true also when the file system mounted there doesn't answer within the platform's deadline, since
// nothing says then that the directory has gone.
bool IsExistDir(const std::string& path);

// True when `path` exists and is no directory. False also when it can't be read.
bool IsFileExist(const std::string& path);

// `path` without its last component and without a trailing slash: "/volume1/rec" gives "/volume1", "/rec"
// gives "". A path without a slash gives "". Pure text: nothing is read from the disk.
std::string GetDirPath(const std::string& path);

// The last component of `path`: "/volume1/rec" and "/volume1/rec/" give "rec"; a path without a slash gives
// itself, one of slashes only gives "". Pure text.
std::string GetBaseName(const std::string& path);
