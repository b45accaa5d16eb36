#include "korv/system/open_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <set>
#include <system_error>
#include <vector>

#include <sys/stat.h>

#include "include/run_as_scope.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/mount_table.h"

namespace korv {

namespace {

namespace fs = std::filesystem;

bool IsBeneath(const std::string& file, const std::string& prefix) {
    return file.compare(0, prefix.size(), prefix) == 0;
}

// A process in a mount namespace of its own may have something else at this place: another volume of the same
// name in a container. A process that can't be asked any more has nothing open.
bool HasFolder(const fs::path& process, const std::string& path) {
    std::error_code error;
    const fs::path itsNamespace = fs::read_symlink(process / "ns/mnt", error);
    if (!error && itsNamespace == fs::read_symlink("/proc/self/ns/mnt", error) && !error) {
        return true;
    }
    return fs::equivalent(process.string() + "/root" + path, path, error) && !error;
}

// The links of /proc/PID/fd can be asked for their targets' kinds without opening anything. A process
// elsewhere may also reach the very folder by another way: then its file is the one that is found here.
bool HasOpen(const fs::path& process, const std::string& path) {
    const std::string prefix = path + "/";
    std::error_code error;
    for (fs::directory_iterator each(process / "fd", error), end; !error && each != end;
         each.increment(error)) {
        std::error_code ignored;
        const std::string target = fs::read_symlink(each->path(), ignored).string();
        if (IsBeneath(target, prefix) && !fs::is_directory(each->path(), ignored) &&
            (HasFolder(process, path) || fs::equivalent(each->path(), target, ignored))) {
            return true;
        }
    }
    return false;
}

// A line of /proc/PID/maps ends with the file's path, if it has one.
bool HasMapped(const fs::path& process, const std::string& prefix) {
    std::ifstream maps(process / "maps");
    std::string line;
    while (std::getline(maps, line)) {
        const std::size_t path = line.find('/');
        if (path != std::string::npos && IsBeneath(line.substr(path), prefix)) {
            return true;
        }
    }
    return false;
}

bool IsOf(const fs::path& process, const std::string& program) {
    std::error_code error;
    const std::string running = fs::read_symlink(process / "exe", error).filename().string();
    return running == program || running == program + " (deleted)";
}

bool Uses(const fs::path& process, const std::string& path) {
    const auto isThere = [&path](const fs::path& link) {
        std::error_code error;
        const std::string target = fs::read_symlink(link, error).string();
        return !error && (target == path || IsBeneath(target, path + "/"));
    };
    if (isThere(process / "cwd") || isThere(process / "root") || HasMapped(process, path + "/")) {
        return true;
    }
    std::error_code error;
    for (fs::directory_iterator each(process / "fd", error), end; !error && each != end;
         each.increment(error)) {
        if (isThere(each->path())) {
            return true;
        }
    }
    return false;
}

// Whether the path that /proc shows leads to the folder or beneath it, by whichever way its process reaches
// it.
bool LeadsInto(const std::string& shown, const std::string& folder) {
    const std::string step = "/" + folder;
    const std::size_t found = shown.find(step);
    const std::size_t end = found + step.size();
    return found != std::string::npos && (end == shown.size() || shown[end] == '/' || shown[end] == ' ');
}

bool IsSameEntry(const struct stat& left, const struct stat& right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

// Goes up from the folder that a link of /proc stands for.
bool IsAtOrBelow(const fs::path& link, const struct stat& folder) {
    FileDescriptor at(open(link.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat below {};
    struct stat status {};
    while (at && fstat(at.Get(), &status) == 0 && !IsSameEntry(status, below)) {
        if (IsSameEntry(status, folder)) {
            return true;
        }
        below = status;
        at = FileDescriptor(openat(at.Get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return false;
}

// The path is looked at first: other file systems must not be asked, since they may not answer.
bool HoldsFolder(const fs::path& process, const std::string& folder, const struct stat& facts) {
    const auto isInto = [&](const fs::path& link) {
        std::error_code ignored;
        return LeadsInto(fs::read_symlink(link, ignored).string(), folder) && IsAtOrBelow(link, facts);
    };
    if (isInto(process / "cwd") || isInto(process / "root")) {
        return true;
    }
    std::error_code error;
    for (fs::directory_iterator each(process / "fd", error), end; !error && each != end;
         each.increment(error)) {
        if (isInto(each->path())) {
            return true;
        }
    }
    return false;
}

// What is mounted at the folder itself, in whatever namespace, is no other way to it.
bool IsMountedElsewhere(const std::vector<Mount>& mounts, const std::string& device, const std::string& root,
                        const std::string& folder) {
    return std::any_of(mounts.begin(), mounts.end(), [&](const Mount& mount) {
        return mount.device == device && !LeadsInto(mount.mountPoint, folder) &&
               (mount.root == root || IsBeneath(mount.root, root == "/" ? root : root + "/"));
    });
}

bool IsProcess(const std::string& name) {
    return std::all_of(name.begin(), name.end(),
                       [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; });
}

}  // namespace

// Processes come and go meanwhile, so that what can't be read is passed over.
bool IsFileOpenBeneath(const std::string& path) {
    const RunAsScope root = IF_RUN_AS;
    std::error_code error;
    for (fs::directory_iterator each("/proc", error), end; !error && each != end; each.increment(error)) {
        if (IsProcess(each->path().filename().string()) &&
            (HasOpen(each->path(), path) ||
             (HasMapped(each->path(), path + "/") && HasFolder(each->path(), path)))) {
            return true;
        }
    }
    return false;
}

bool IsUsedByOthersThan(const std::string& program, const std::string& path) {
    const RunAsScope root = IF_RUN_AS;
    const std::string self = std::to_string(getpid());
    std::error_code error;
    for (fs::directory_iterator each("/proc", error), end; !error && each != end; each.increment(error)) {
        const std::string name = each->path().filename();
        if (IsProcess(name) && name != self && !IsOf(each->path(), program) && Uses(each->path(), path) &&
            HasFolder(each->path(), path)) {
            return true;
        }
    }
    return false;
}

bool IsFolderHeld(const std::string& volume, const std::string& folder) {
    const RunAsScope root = IF_RUN_AS;
    const std::string path = volume + "/" + folder;
    const auto along = MountsAlong(path);
    struct stat facts {};
    if (along.empty() || stat(path.c_str(), &facts) != 0) {
        return false;
    }
    const Mount own = *along.back();
    const std::string rest = path.substr(std::min(path.size(), own.mountPoint.size()));
    const std::string rootInside = own.root == "/" && !rest.empty() ? rest : own.root + rest;
    std::set<std::string> namespaces;
    std::error_code error;
    for (fs::directory_iterator each("/proc", error), end; !error && each != end; each.increment(error)) {
        const std::string name = each->path().filename();
        if (!IsProcess(name)) {
            continue;
        }
        const pid_t pid = std::stoi(name);
        if (pid != getpid() && HoldsFolder(each->path(), folder, facts)) {
            return true;
        }
        std::error_code ignored;
        const std::string itsNamespace = fs::read_symlink(each->path() / "ns/mnt", ignored);
        if (!itsNamespace.empty() && namespaces.insert(itsNamespace).second &&
            IsMountedElsewhere(ReadMountsOf(pid), own.device, rootInside, folder)) {
            return true;
        }
    }
    return false;
}

}  // namespace korv
