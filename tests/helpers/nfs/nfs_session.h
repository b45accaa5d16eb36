#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <nfsc/libnfs.h>
#include <sys/types.h>

// Speaks NFS version 3 with one server. Not safe for threads.
class NfsSession {
public:
    struct Server {
        std::string host;
        std::string folder;
        int port = 0;       // 0: the server's port mapper is asked
        int mountPort = 0;  // likewise
        int timeout_s = 0;  // of each request
        bool isSoft = false;
    };

    explicit NfsSession(Server server) : m_server(std::move(server)) {}
    NfsSession(const NfsSession&) = delete;
    NfsSession& operator=(const NfsSession&) = delete;

    // Mounts once. 0, or a negative error number; `words` then holds what the server or the library said.
    int Connect(std::string& words);

    // Runs `work` in the name of an account and gives its result, 0 or more, or a negative error number.
    // Where the server does not answer it connects anew and runs it again: with a soft mount once, else for
    // ever.
    int Run(uid_t uid, gid_t gid, const std::function<int(nfs_context*)>& work);

    // Counts the connections: what was opened over an earlier one is gone.
    std::uint64_t Generation() const { return m_generation; }

private:
    int RunOnce(uid_t uid, gid_t gid, const std::function<int(nfs_context*)>& work);

    Server m_server;
    std::unique_ptr<nfs_context, void (*)(nfs_context*)> m_context{nullptr, nfs_destroy_context};
    std::uint64_t m_generation = 0;
};
