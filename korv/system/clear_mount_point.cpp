#include "korv/system/clear_mount_point.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>

#include <sys/mount.h>

#include "korv/system/root_child.h"

namespace korv {

bool ClearMountPoint(const std::string& folder) {
    constexpr std::chrono::seconds kDeadline(10);
    const auto clear = [&folder] {
        while (umount2(folder.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0) {
        }
        return rmdir(folder.c_str()) == 0 || errno == ENOENT ? 0 : 1;
    };
    const ChildEnd end = RunAsRootChild(clear, kDeadline);
    return end.isInTime && end.exitCode == 0;
}

}  // namespace korv
