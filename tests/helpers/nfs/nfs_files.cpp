#define FUSE_USE_VERSION 31

#include "tests/helpers/nfs/nfs_files.h"

#include <fcntl.h>
#include <fuse.h>

#include <cerrno>
#include <map>

#include <sys/stat.h>
#include <sys/statvfs.h>

namespace {

constexpr double kRemembered_s = 1;
constexpr mode_t kModeBits = 07777;
constexpr int kOpenFlags = O_ACCMODE | O_APPEND | O_TRUNC | O_SYNC;

NfsSession* g_session = nullptr;

template <class Work>
int Run(const Work& work) {
    const fuse_context* const caller = fuse_get_context();
    return g_session->Run(caller->uid, caller->gid, work);
}

// A file that somebody has open. The server knows nothing of that: it is opened anew over each connection.
struct OpenFile {
    nfsfh* handle = nullptr;
    std::uint64_t generation = 0;
    int flags = 0;
};

std::map<std::uint64_t, OpenFile>& OpenFiles() {
    static std::map<std::uint64_t, OpenFile> files;
    return files;
}

OpenFile& FileOf(const fuse_file_info* info) { return OpenFiles().at(info->fh); }

int Reopen(nfs_context* nfs, const char* path, OpenFile& file) {
    if (file.handle != nullptr && file.generation == g_session->Generation()) {
        return 0;
    }
    const int result = nfs_open(nfs, path, file.flags & ~O_TRUNC, &file.handle);
    file.generation = result == 0 ? g_session->Generation() : 0;
    return result;
}

struct stat ToStat(const nfs_stat_64& from) {
    struct stat to {};
    to.st_dev = static_cast<dev_t>(from.nfs_dev);
    to.st_ino = from.nfs_ino;
    to.st_mode = static_cast<mode_t>(from.nfs_mode);
    to.st_nlink = from.nfs_nlink;
    to.st_uid = static_cast<uid_t>(from.nfs_uid);
    to.st_gid = static_cast<gid_t>(from.nfs_gid);
    to.st_rdev = static_cast<dev_t>(from.nfs_rdev);
    to.st_size = static_cast<off_t>(from.nfs_size);
    to.st_blksize = static_cast<blksize_t>(from.nfs_blksize);
    to.st_blocks = static_cast<blkcnt_t>(from.nfs_blocks);
    to.st_atim = {static_cast<time_t>(from.nfs_atime), static_cast<long>(from.nfs_atime_nsec)};
    to.st_mtim = {static_cast<time_t>(from.nfs_mtime), static_cast<long>(from.nfs_mtime_nsec)};
    to.st_ctim = {static_cast<time_t>(from.nfs_ctime), static_cast<long>(from.nfs_ctime_nsec)};
    return to;
}

void* Begin(fuse_conn_info* /*connection*/, fuse_config* config) {
    config->entry_timeout = kRemembered_s;
    config->attr_timeout = kRemembered_s;
    config->negative_timeout = 0;
    config->use_ino = 1;
    return nullptr;
}

int GetAttributes(const char* path, struct stat* facts, fuse_file_info* /*info*/) {
    nfs_stat_64 found{};
    const int result = Run([&](nfs_context* nfs) { return nfs_lstat64(nfs, path, &found); });
    *facts = ToStat(found);
    return result;
}

int ReadLink(const char* path, char* target, size_t size) {
    return Run([&](nfs_context* nfs) { return nfs_readlink(nfs, path, target, static_cast<int>(size)); });
}

int MakeFolder(const char* path, mode_t mode) {
    return Run([&](nfs_context* nfs) { return nfs_mkdir2(nfs, path, static_cast<int>(mode)); });
}

int Unlink(const char* path) {
    return Run([&](nfs_context* nfs) { return nfs_unlink(nfs, path); });
}

int RemoveFolder(const char* path) {
    return Run([&](nfs_context* nfs) { return nfs_rmdir(nfs, path); });
}

int SymLink(const char* target, const char* path) {
    return Run([&](nfs_context* nfs) { return nfs_symlink(nfs, target, path); });
}

int Rename(const char* from, const char* to, unsigned flags) {
    return flags != 0 ? -EINVAL : Run([&](nfs_context* nfs) { return nfs_rename(nfs, from, to); });
}

int Link(const char* from, const char* to) {
    return Run([&](nfs_context* nfs) { return nfs_link(nfs, from, to); });
}

int ChangeMode(const char* path, mode_t mode, fuse_file_info* /*info*/) {
    return Run([&](nfs_context* nfs) { return nfs_chmod(nfs, path, static_cast<int>(mode & kModeBits)); });
}

int ChangeOwner(const char* path, uid_t uid, gid_t gid, fuse_file_info* /*info*/) {
    return Run([&](nfs_context* nfs) {
        return nfs_lchown(nfs, path, static_cast<int>(uid), static_cast<int>(gid));
    });
}

int Truncate(const char* path, off_t size, fuse_file_info* /*info*/) {
    return Run([&](nfs_context* nfs) { return nfs_truncate(nfs, path, static_cast<uint64_t>(size)); });
}

// What is not to be set keeps its time; the library sets both.
int SetTimes(const char* path, const timespec times[2], fuse_file_info* /*info*/) {
    return Run([&](nfs_context* nfs) {
        nfs_stat_64 facts{};
        if (const int result = nfs_lstat64(nfs, path, &facts); result != 0) {
            return result;
        }
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        timeval wanted[2] = {{static_cast<time_t>(facts.nfs_atime), 0},
                             {static_cast<time_t>(facts.nfs_mtime), 0}};
        for (int i = 0; i < 2; ++i) {
            if (times[i].tv_nsec != UTIME_OMIT) {
                const timespec& time = times[i].tv_nsec == UTIME_NOW ? now : times[i];
                wanted[i] = {time.tv_sec, time.tv_nsec / 1000};
            }
        }
        return nfs_lutimes(nfs, path, wanted);
    });
}

int Keep(OpenFile file, int result, fuse_file_info* info) {
    static std::uint64_t last = 0;
    if (result == 0) {
        file.generation = g_session->Generation();
        info->fh = ++last;
        OpenFiles()[last] = file;
    }
    return result;
}

int Open(const char* path, fuse_file_info* info) {
    OpenFile file;
    file.flags = info->flags & kOpenFlags;
    const int result = Run([&](nfs_context* nfs) { return nfs_open(nfs, path, file.flags, &file.handle); });
    return Keep(file, result, info);
}

int Create(const char* path, mode_t mode, fuse_file_info* info) {
    OpenFile file;
    file.flags = info->flags & kOpenFlags;
    const int result = Run([&](nfs_context* nfs) {
        const int flags = file.flags | (info->flags & O_EXCL) | O_CREAT;
        return nfs_create(nfs, path, flags, static_cast<int>(mode & kModeBits), &file.handle);
    });
    return Keep(file, result, info);
}

int Read(const char* path, char* data, size_t size, off_t offset, fuse_file_info* info) {
    OpenFile& file = FileOf(info);
    return Run([&](nfs_context* nfs) {
        const int opened = Reopen(nfs, path, file);
        return opened != 0 ? opened : nfs_pread(nfs, file.handle, static_cast<uint64_t>(offset), size, data);
    });
}

int Write(const char* path, const char* data, size_t size, off_t offset, fuse_file_info* info) {
    OpenFile& file = FileOf(info);
    return Run([&](nfs_context* nfs) {
        const int opened = Reopen(nfs, path, file);
        return opened != 0 ? opened : nfs_pwrite(nfs, file.handle, static_cast<uint64_t>(offset), size, data);
    });
}

// What was written counts as stored when the file is closed.
int Store(const char* path, fuse_file_info* info) {
    OpenFile& file = FileOf(info);
    if ((file.flags & O_ACCMODE) == O_RDONLY) {
        return 0;
    }
    return Run([&](nfs_context* nfs) {
        const int opened = Reopen(nfs, path, file);
        return opened != 0 ? opened : nfs_fsync(nfs, file.handle);
    });
}

int Sync(const char* path, int /*isDataOnly*/, fuse_file_info* info) { return Store(path, info); }

int Release(const char* /*path*/, fuse_file_info* info) {
    const OpenFile file = FileOf(info);
    OpenFiles().erase(info->fh);
    return Run([&](nfs_context* nfs) {
        return file.generation == g_session->Generation() ? nfs_close(nfs, file.handle) : 0;
    });
}

int Size(const char* path, struct statvfs* facts) {
    return Run([&](nfs_context* nfs) { return nfs_statvfs(nfs, path, facts); });
}

int ReadFolder(const char* path, void* list, fuse_fill_dir_t fill, off_t /*offset*/, fuse_file_info* /*info*/,
               fuse_readdir_flags /*flags*/) {
    return Run([&](nfs_context* nfs) {
        nfsdir* folder = nullptr;
        const int result = nfs_opendir(nfs, path, &folder);
        if (result != 0) {
            return result;
        }
        bool isFull = false;
        while (const nfsdirent* const entry = isFull ? nullptr : nfs_readdir(nfs, folder)) {
            struct stat facts {};
            facts.st_ino = entry->inode;
            facts.st_mode = entry->mode;
            isFull = fill(list, entry->name, &facts, 0, fuse_fill_dir_flags(0)) != 0;
        }
        nfs_closedir(nfs, folder);
        return isFull ? -ENOMEM : 0;
    });
}

fuse_operations MakeOperations() {
    fuse_operations calls{};
    calls.init = Begin;
    calls.getattr = GetAttributes;
    calls.readlink = ReadLink;
    calls.mkdir = MakeFolder;
    calls.unlink = Unlink;
    calls.rmdir = RemoveFolder;
    calls.symlink = SymLink;
    calls.rename = Rename;
    calls.link = Link;
    calls.chmod = ChangeMode;
    calls.chown = ChangeOwner;
    calls.truncate = Truncate;
    calls.utimens = SetTimes;
    calls.open = Open;
    calls.create = Create;
    calls.read = Read;
    calls.write = Write;
    calls.flush = Store;
    calls.fsync = Sync;
    calls.release = Release;
    calls.statfs = Size;
    calls.readdir = ReadFolder;
    return calls;
}

}  // namespace

const fuse_operations& NfsOperations(NfsSession& session) {
    static const fuse_operations calls = MakeOperations();
    g_session = &session;
    return calls;
}
