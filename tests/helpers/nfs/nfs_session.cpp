#include "tests/helpers/nfs/nfs_session.h"

#include <cerrno>
#include <chrono>
#include <thread>

namespace {

constexpr std::chrono::milliseconds kReconnectPause(500);
constexpr int kVersion = 3;

// What the library gives when a connection broke or a request ran out of time; a server may also mean it.
bool MayBeTheConnection(int result) {
    return result == -EIO || result == -EFAULT || result == -EINTR || result == -ETIMEDOUT ||
           result == -ENOTCONN || result == -ECONNREFUSED;
}

}  // namespace

int NfsSession::Connect(std::string& words) {
    std::string url = "nfs://" + m_server.host + "/?auto-traverse-mounts=0&readahead=0";
    if (m_server.port != 0) {
        url += "&nfsport=" + std::to_string(m_server.port);
    }
    if (m_server.mountPort != 0) {
        url += "&mountport=" + std::to_string(m_server.mountPort);
    }
    m_context.reset(nfs_init_context());
    nfs_context* const context = m_context.get();
    if (context == nullptr) {
        return -ENOMEM;
    }
    if (nfs_url* const parsed = nfs_parse_url_incomplete(context, url.c_str())) {
        nfs_destroy_url(parsed);
    }
    nfs_set_version(context, kVersion);
    nfs_set_autoreconnect(context, 0);
    nfs_set_dircache(context, 0);
    nfs_set_timeout(context, m_server.timeout_s * 1000);
    nfs_umask(context, 0);
    const int result = nfs_mount(context, m_server.host.c_str(), m_server.folder.c_str());
    if (result != 0) {
        const char* const error = nfs_get_error(context);
        words = error != nullptr ? error : "";
        m_context.reset();
    } else {
        ++m_generation;
    }
    return result;
}

int NfsSession::RunOnce(uid_t uid, gid_t gid, const std::function<int(nfs_context*)>& work) {
    nfs_set_uid(m_context.get(), static_cast<int>(uid));
    nfs_set_gid(m_context.get(), static_cast<int>(gid));
    return work(m_context.get());
}

int NfsSession::Run(uid_t uid, gid_t gid, const std::function<int(nfs_context*)>& work) {
    std::string words;
    bool isFresh = false;
    for (;;) {
        const int result = m_context ? RunOnce(uid, gid, work) : -ENOTCONN;
        if (!MayBeTheConnection(result) || (isFresh && m_context)) {
            return result;
        }
        const int connected = Connect(words);
        isFresh = connected == 0;
        if (!isFresh && (m_server.isSoft || !MayBeTheConnection(connected))) {
            return connected;
        }
        if (!isFresh) {
            std::this_thread::sleep_for(kReconnectPause);
        }
    }
}
