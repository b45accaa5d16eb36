#include "tests/unit/korv/silent_file_system.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

#include <linux/fuse.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

constexpr std::size_t kLargestRequest = std::size_t{256} * 1024;

template <class Body>
void Reply(int device, const fuse_in_header& request, const Body& body) {
    std::array<char, sizeof(fuse_out_header) + sizeof(Body)> answer{};
    const fuse_out_header header{static_cast<std::uint32_t>(answer.size()), 0, request.unique};
    std::memcpy(answer.data(), &header, sizeof(header));
    std::memcpy(answer.data() + sizeof(header), &body, sizeof(body));
    if (write(device, answer.data(), answer.size()) < 0 && errno != ENOENT) {
        _exit(1);
    }
}

void ReplyError(int device, const fuse_in_header& request, int error) {
    const fuse_out_header header{sizeof(header), -error, request.unique};
    if (write(device, &header, sizeof(header)) < 0 && errno != ENOENT) {
        _exit(1);
    }
}

void Serve(int device, const fuse_in_header& request, SilentFileSystem::Silence silence, int listError) {
    switch (request.opcode) {
        case FUSE_INIT: {
            fuse_init_out answer{};
            answer.major = FUSE_KERNEL_VERSION;
            answer.minor = FUSE_KERNEL_MINOR_VERSION;
            answer.max_write = 4096;
            Reply(device, request, answer);
            return;
        }
        case FUSE_GETATTR: {
            fuse_attr_out answer{};
            answer.attr.ino = FUSE_ROOT_ID;
            answer.attr.mode = S_IFDIR | 0777;
            answer.attr.nlink = 2;
            Reply(device, request, answer);
            return;
        }
        case FUSE_STATFS:
            if (silence == SilentFileSystem::Silence::kNothing) {
                Reply(device, request, fuse_statfs_out{});
            }
            return;
        case FUSE_LOOKUP:
        case FUSE_OPENDIR:
            ReplyError(device, request, listError != 0 ? listError : ENOSYS);
            return;
        case FUSE_FORGET:
        case FUSE_INTERRUPT:
            return;
        default:
            ReplyError(device, request, ENOSYS);
    }
}

[[noreturn]] void ServeAll(int device, SilentFileSystem::Silence silence, int listError) {
    static std::array<char, kLargestRequest> block;
    while (true) {
        if (silence == SilentFileSystem::Silence::kEverything) {
            pause();
        }
        if (read(device, block.data(), block.size()) < 0) {
            _exit(0);
        }
        fuse_in_header request{};
        std::memcpy(&request, block.data(), sizeof(request));
        Serve(device, request, silence, listError);
    }
}

}  // namespace

SilentFileSystem::SilentFileSystem(const std::string& path, Silence silence, int listError) : m_path(path) {
    const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    const std::string options =
        "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0,allow_other";
    if (device < 0 || mount("silent", path.c_str(), "fuse.silent", 0, options.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot mount a FUSE file system");
    }
    m_server = fork();
    if (m_server == 0) {
        ServeAll(device, silence, listError);
    }
    close(device);
}

SilentFileSystem::~SilentFileSystem() {
    kill(m_server, SIGKILL);
    int status = 0;
    waitpid(m_server, &status, 0);
    umount2(m_path.c_str(), MNT_DETACH);
}
