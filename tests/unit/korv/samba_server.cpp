#include "tests/unit/korv/samba_server.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "korv/system/file_descriptor.h"

namespace fs = std::filesystem;

namespace {

void Check(bool isRight, const char* what) {
    if (!isRight) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

void BringUpLoopback() {
    const korv::FileDescriptor connection(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    request.ifr_name[0] = 'l';
    request.ifr_name[1] = 'o';
    request.ifr_flags = IFF_UP;
    Check(ioctl(connection.Get(), SIOCSIFFLAGS, &request) == 0, "cannot bring up loopback");
}

bool IsListening() {
    const korv::FileDescriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(SambaServer::kPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

void AddAccount(const std::string& configuration) {
    const std::string command = "smbpasswd -c " + configuration + " -s -a " + SambaServer::kAccount;
    int ends[2] = {-1, -1};
    Check(pipe(ends) == 0, "cannot make a pipe");
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[0], STDIN_FILENO);
        const int nothing = open("/dev/null", O_WRONLY);
        dup2(nothing, STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        execlp("smbpasswd", "smbpasswd", "-c", configuration.c_str(), "-s", "-a", SambaServer::kAccount,
               nullptr);
        _exit(1);
    }
    close(ends[0]);
    const std::string twice = std::string(SambaServer::kPassword) + "\n" + SambaServer::kPassword + "\n";
    Check(write(ends[1], twice.data(), twice.size()) == static_cast<ssize_t>(twice.size()), "cannot write");
    close(ends[1]);
    int status = 0;
    waitpid(child, &status, 0);
    if (status != 0) {
        throw std::runtime_error("smbpasswd failed");
    }
}

}  // namespace

void EnterPrivateNetwork() {
    static bool isDone = false;
    if (isDone) {
        return;
    }
    Check(unshare(CLONE_NEWNET) == 0, "cannot have a network of its own");
    BringUpLoopback();
    const std::string lower = std::string("lowerdir=") + TEST_HELPERS + "/sbin:/usr/sbin";
    Check(mount("overlay", "/usr/sbin", "overlay", MS_RDONLY, lower.c_str()) == 0,
          "cannot put helpers in place");
    isDone = true;
}

SambaServer::SambaServer(const std::string& folder) : m_folder(folder) {
    EnterPrivateNetwork();
    for (const char* name : {"private", "lock", "state", "cache", "pid", "ncalrpc", "data"}) {
        fs::create_directories(m_folder + "/" + name);
    }
    fs::permissions(DataFolder(), fs::perms::all);
    std::ofstream(m_folder + "/smb.conf")
        << "[global]\nworkgroup = WORKGROUP\nsmb ports = " << kPort << "\nprivate dir = " << m_folder
        << "/private\nlock directory = " << m_folder << "/lock\nstate directory = " << m_folder
        << "/state\ncache directory = " << m_folder << "/cache\npid directory = " << m_folder
        << "/pid\nncalrpc dir = " << m_folder << "/ncalrpc\nlog file = " << m_folder
        << "/log\ninterfaces = lo\nbind interfaces only = yes\nload printers = no\ndisable spoolss = yes\n"
        << "map to guest = Bad User\n"
        << "[data]\npath = " << DataFolder() << "\nread only = no\nforce user = root\n"
        << "[open]\npath = " << DataFolder() << "\nread only = no\nforce user = root\nguest ok = yes\n"
        << "[denied]\npath = " << DataFolder() << "\nvalid users = root\n";
    AddAccount(m_folder + "/smb.conf");
    Start();
}

SambaServer::~SambaServer() { Kill(); }

void SambaServer::Start() {
    m_server = fork();
    if (m_server == 0) {
        setsid();
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int log = open((m_folder + "/smbd.out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(log, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        execlp("smbd", "smbd", "-F", "-s", (m_folder + "/smb.conf").c_str(), "--no-process-group", nullptr);
        _exit(1);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!IsListening()) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("smbd does not listen");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// smbd's children, one for each client, are in its session.
void SambaServer::Kill() {
    if (m_server > 0) {
        kill(-m_server, SIGKILL);
        waitpid(m_server, nullptr, 0);
        m_server = -1;
    }
}

void SambaServer::Pause() { kill(-m_server, SIGSTOP); }
void SambaServer::Resume() { kill(-m_server, SIGCONT); }
