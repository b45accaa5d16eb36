#pragma once

#include <string>

#include "korv/system/file_descriptor.h"

// The file that tells this daemon's process id, and the lock that keeps a second daemon off the same folders.
// The file is removed with the object.
class PidFile {
public:
    // Waits for a moment for a daemon that is just ending. Throws std::runtime_error when one is running.
    explicit PidFile(std::string path);
    ~PidFile();
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;

private:
    std::string m_path;
    korv::FileDescriptor m_file;
};
