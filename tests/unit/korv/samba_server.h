#pragma once

#include <string>

#include <sys/types.h>

// A real Samba server on loopback, in a network namespace of this process's own, and the helpers by which
// CIFS is mounted through FUSE where the kernel has none.
class SambaServer {
public:
    static constexpr int kPort = 1445;
    static constexpr const char* kAccount = "alice";
    static constexpr const char* kPassword = "s3 ,c#r=et\"'";

    // Serves //127.0.0.1/data for kAccount, //127.0.0.1/open for guests too, and //127.0.0.1/denied for
    // nobody. `folder` is made.
    explicit SambaServer(const std::string& folder);
    ~SambaServer();
    SambaServer(const SambaServer&) = delete;
    SambaServer& operator=(const SambaServer&) = delete;

    void Start();
    void Kill();
    void Pause();
    void Resume();

    // What //127.0.0.1/data shows.
    std::string DataFolder() const { return m_folder + "/data"; }

private:
    std::string m_folder;
    pid_t m_server = -1;
};

// Gives this process a network of its own with loopback alone, once, and puts the helpers of tests/helpers in
// their place. Throws when the machine doesn't let it.
void EnterPrivateNetwork();
