#pragma once

#include <string>

#include <sys/types.h>

// A mounted file system that never answers some questions, like one whose server is gone.
class SilentFileSystem {
public:
    enum class Silence {
        kEverything,  // as soon as it is mounted
        kSize,        // statfs only: its root is a folder for everybody
        kNothing,     // its entries and their list are an error
    };

    // Mounts it at `path`, an existing folder, for this process's mount namespace. Throws std::system_error.
    //   listError  what whoever opens its root for its entries, or looks for one of them, is told, an errno
    SilentFileSystem(const std::string& path, Silence silence, int listError = 0);
    // Whoever waits gets an error.
    ~SilentFileSystem();
    SilentFileSystem(const SilentFileSystem&) = delete;
    SilentFileSystem& operator=(const SilentFileSystem&) = delete;

private:
    std::string m_path;
    pid_t m_server = -1;
};
