// System calls that the linker's --wrap turns to the director while a scenario runs, and to the system
// otherwise.

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <sys/statfs.h>

#include "tests/fake/director.h"

using fake::Args;
using fake::Ask;

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

uid_t __real_geteuid();
gid_t __real_getegid();
int __real_setresuid(uid_t ruid, uid_t euid, uid_t suid);
int __real_setresgid(gid_t rgid, gid_t egid, gid_t sgid);
unsigned __real_sleep(unsigned seconds);
int __real_statfs64(const char* path, struct statfs64* info);
void* __real_calloc(std::size_t count, std::size_t size);

uid_t __wrap_geteuid() {
    return fake::CurrentDirector() != nullptr ? static_cast<uid_t>(Ask("geteuid", Args()).asInt())
                                              : __real_geteuid();
}

gid_t __wrap_getegid() {
    return fake::CurrentDirector() != nullptr ? static_cast<gid_t>(Ask("getegid", Args()).asInt())
                                              : __real_getegid();
}

int __wrap_setresuid(uid_t ruid, uid_t euid, uid_t suid) {
    if (fake::CurrentDirector() == nullptr) {
        return __real_setresuid(ruid, euid, suid);
    }
    return Ask("setresuid", Args(static_cast<int>(ruid), static_cast<int>(euid), static_cast<int>(suid)))
        .asInt();
}

int __wrap_setresgid(gid_t rgid, gid_t egid, gid_t sgid) {
    if (fake::CurrentDirector() == nullptr) {
        return __real_setresgid(rgid, egid, sgid);
    }
    return Ask("setresgid", Args(static_cast<int>(rgid), static_cast<int>(egid), static_cast<int>(sgid)))
        .asInt();
}

void __wrap_syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    if (fake::CurrentDirector() == nullptr) {
        vsyslog(priority, format, arguments);
    } else {
        char text[1024];
        std::vsnprintf(text, sizeof text, format, arguments);  // NOLINT(clang-analyzer-valist.Uninitialized)
        Ask("syslog", Args(priority, text));
    }
    va_end(arguments);
}

unsigned __wrap_sleep(unsigned seconds) {
    return fake::CurrentDirector() != nullptr ? Ask("sleep", Args(seconds)).asUInt() : __real_sleep(seconds);
}

int __wrap_statfs64(const char* path, struct statfs64* info) {
    if (fake::CurrentDirector() == nullptr) {
        return __real_statfs64(path, info);
    }
    const Json::Value reply = Ask("statfs64", Args(path));
    info->f_bsize = reply["bsize"].asInt64();
    info->f_blocks = reply["blocks"].asUInt64();
    info->f_bavail = reply["bavail"].asUInt64();
    return reply["result"].asInt();
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
    const bool isThere = fake::CurrentDirector() == nullptr ||
                         Ask("calloc", Args(Json::UInt64{count}, Json::UInt64{size})).asBool();
    return isThere ? __real_calloc(count, size) : nullptr;
}
}
// NOLINTEND(bugprone-reserved-identifier)
