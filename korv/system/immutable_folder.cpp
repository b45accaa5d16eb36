#include "korv/system/immutable_folder.h"

#include <cerrno>
#include <system_error>

#include <linux/fs.h>
#include <sys/ioctl.h>

namespace korv {

bool SetImmutable(int folder, bool isImmutable) {
    int flags = 0;
    if (ioctl(folder, FS_IOC_GETFLAGS, &flags) != 0) {
        return false;
    }
    const int wanted = isImmutable ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
    return wanted == flags || ioctl(folder, FS_IOC_SETFLAGS, &wanted) == 0;
}

void MakeMutable(int folder) {
    if (!SetImmutable(folder, false) && errno != ENOTTY && errno != EOPNOTSUPP) {
        throw std::system_error(errno, std::generic_category(), "cannot free a folder");
    }
}

}  // namespace korv
