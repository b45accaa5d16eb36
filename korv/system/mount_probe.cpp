#include "korv/system/mount_probe.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <linux/magic.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include "platform/korv/configuration.h"

#include "include/run_as_scope.h"
#include "include/trailing_slashes.h"
#include "korv/system/mount_table.h"
#include "korv/system/root_child.h"

namespace korv {

namespace {

constexpr std::chrono::seconds kDeadline(5);
constexpr std::uint64_t kBytesPerMb = std::uint64_t{1024} * 1024;

// The file that whoever looks at `path` holds locked, so that one look at a time waits for a server and all
// others for that look. One that the kernel won't let die goes on holding it.
FileDescriptor LockLook(const std::string& path) {
    const std::string folder = KORV::GetConfiguration().runDir + "/mount-looks";
    const RunAsScope root = IF_RUN_AS;
    std::filesystem::create_directories(folder);
    const std::string file = folder + "/" + std::to_string(std::hash<std::string>{}(path));
    FileDescriptor lock(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock || flock(lock.Get(), LOCK_EX) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot lock a look at a mount");
    }
    return lock;
}

MountSight SightOf(int error) { return error == ESTALE ? MountSight::kStale : MountSight::kFailing; }

FileSystemType TypeOf(const std::string& path) {
    const auto along = MountsAlong(path);
    const std::string_view name = along.empty() ? "" : std::string_view(along.back()->fsType);
    if (name == "cifs" || name == "smb3") {
        return FileSystemType::kCifs;
    }
    return name == "nfs" || name == "nfs4" ? FileSystemType::kNfs : FileSystemType::kOther;
}

// A file system may answer for its size out of what it remembers; the list of its entries has to come from
// where they are. Being refused is an answer too: an export may keep root out and let the recorder in.
bool CanList(const std::string& path) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(path.c_str()), closedir);
    if (entries != nullptr) {
        errno = 0;
        if (readdir(entries.get()) != nullptr || errno == 0) {
            return true;
        }
    }
    return errno == EACCES || errno == EPERM;
}

void Look(const std::string& path, MountFacts& facts) {
    struct stat above {};
    struct stat here {};
    struct statfs size {};
    const std::string parent = std::filesystem::path(path).parent_path();
    if (!IsMounted(path)) {
        facts.sight = MountSight::kNotMounted;
        return;
    }
    if (stat(parent.c_str(), &above) != 0 || stat(path.c_str(), &here) != 0 ||
        statfs(path.c_str(), &size) != 0 || !CanList(path)) {
        facts.sight = SightOf(errno);
        return;
    }
    if (above.st_dev == here.st_dev) {
        facts.sight = MountSight::kNotMounted;
        return;
    }
    if (here.st_nlink == 0) {  // removed at the server, where somebody still holds it open
        facts.sight = MountSight::kStale;
        return;
    }
    facts.type = TypeOf(path);
    facts.sizeMb = size.f_blocks * static_cast<std::uint64_t>(size.f_frsize) / kBytesPerMb;
    facts.sight = MountSight::kAlive;
}

// One look under way, with the memory that it answers in.
class PendingLook {
public:
    explicit PendingLook(const std::string& path)
        : m_facts(NewFacts()),
          m_child([path, facts = m_facts.get()] { return Work(path, *facts); }, kDeadline) {}

    MountFacts Result() {
        const ChildEnd end = m_child.Wait();
        if (end.isInTime && end.exitCode != 0) {
            throw std::runtime_error("a mount could not be looked at: " + end.output);
        }
        return end.isInTime ? *m_facts : MountFacts{};
    }

private:
    static void Free(MountFacts* facts) { munmap(facts, sizeof(MountFacts)); }

    static std::unique_ptr<MountFacts, void (*)(MountFacts*)> NewFacts() {
        void* const memory =
            mmap(nullptr, sizeof(MountFacts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            throw std::bad_alloc();
        }
        return {new (memory) MountFacts, Free};
    }

    static int Work(const std::string& path, MountFacts& facts) {
        const FileDescriptor lock = LockLook(path);
        Look(path, facts);
        return 0;
    }

    std::unique_ptr<MountFacts, void (*)(MountFacts*)> m_facts;
    RootChild m_child;
};

}  // namespace

bool IsMounted(const std::string& path) {
    if (ListMounts().empty()) {
        throw std::runtime_error("cannot read the table of mounts");
    }
    const std::string point = WithoutTrailingSlashes(path);
    const auto along = MountsAlong(point);
    return !along.empty() && along.back()->mountPoint == point;
}

MountFacts LookAtMount(const std::string& path) { return PendingLook(WithoutTrailingSlashes(path)).Result(); }

std::vector<MountFacts> LookAtMounts(const std::vector<std::string>& paths) {
    std::vector<PendingLook> looks;
    looks.reserve(paths.size());
    for (const std::string& path : paths) {
        looks.emplace_back(WithoutTrailingSlashes(path));
    }
    std::vector<MountFacts> results;
    results.reserve(paths.size());
    for (PendingLook& look : looks) {
        results.push_back(look.Result());
    }
    return results;
}

}  // namespace korv
