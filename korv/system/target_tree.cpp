#include "korv/system/target_tree.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "include/folder_stream.h"
#include "korv/system/sync_entry.h"
#include "korv/system/tree_remove.h"

namespace korv {

namespace {

using Where = CopyError::Where;

constexpr mode_t kPrivateFolder = S_IRWXU;
constexpr mode_t kPrivateFile = S_IRUSR | S_IWUSR;
constexpr mode_t kPlainModes = S_IRWXU | S_IRWXG | S_IRWXO;

void MakeEarlier(timespec& time) {
    constexpr long kSecond_ns = 1'000'000'000;
    time.tv_sec -= time.tv_nsec == 0 ? 1 : 0;
    time.tv_nsec = (time.tv_nsec == 0 ? kSecond_ns : time.tv_nsec) - 1;
}

// With its mode at once: on an encrypted folder each further call is a way to another process.
FileDescriptor MakeFile(const EntryRef& made, mode_t mode) {
    const mode_t mask = umask(0);
    FileDescriptor file(
        openat(made.folder, made.name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    umask(mask);
    return file;
}

}  // namespace

TargetTree::TargetTree(int root, bool isInUse, const CopyObserver& observer, SyncCounts& counts)
    : folders(FileDescriptor(fcntl(root, F_DUPFD_CLOEXEC, 0))),
      m_root(root),
      m_observer(observer),
      m_counts(counts) {
    if (isInUse) {
        m_carrying.emplace(root);
    }
}

EntryRef TargetTree::Making(const std::string& name) {
    return m_carrying ? m_carrying->Making() : EntryRef{folders.Current(), name.c_str()};
}

// Where somebody was faster the next pass decides.
bool TargetTree::Place(const std::string& name, const struct stat* copy) {
    const bool isPlaced = !m_carrying || m_carrying->Place(folders.Current(), name.c_str(), copy);
    m_counts.beingWritten += isPlaced ? 0 : 1;
    ++m_counts.copiedEntries;
    return isPlaced;
}

// What people use is replaced by a rename.
void TargetTree::RemoveCopy(const std::string& name, const struct stat* copy) {
    if (copy != nullptr && !m_carrying) {
        CheckCopy(unlinkat(folders.Current(), name.c_str(), 0) == 0 || errno == ENOENT, Where::kTarget,
                  "replace a file");
    }
}

bool TargetTree::MakeFolder(const EntryRef& source, const std::string& name, const struct stat& status) {
    const EntryRef made = Making(name);
    CheckCopy(mkdirat(made.folder, made.name, kPrivateFolder) == 0, Where::kTarget, "make a folder");
    if (m_carrying) {
        const FileDescriptor from(OpenBeneath(source.folder, source.name, O_RDONLY | O_DIRECTORY));
        CheckCopy(static_cast<bool>(from), Where::kSource, "open a folder");
        const FileDescriptor to(OpenBeneath(made.folder, made.name, O_RDONLY | O_DIRECTORY));
        CheckCopy(static_cast<bool>(to), Where::kTarget, "open a folder");
        CopyAttributes(from.Get(), status, to.Get());
    }
    return Place(name, nullptr);
}

void TargetTree::CopySpecial(const EntryRef& source, const std::string& name, const struct stat& status,
                             const struct stat* copy) {
    RemoveCopy(name, copy);
    const EntryRef made = Making(name);
    if (S_ISLNK(status.st_mode)) {
        CheckCopy(symlinkat(ReadLink(source, Where::kSource).c_str(), made.folder, made.name) == 0,
                  Where::kTarget, "make a link");
    } else {
        CheckCopy(
            mknodat(made.folder, made.name, (status.st_mode & S_IFMT) | kPrivateFile, status.st_rdev) == 0,
            Where::kTarget, "make a special file");
    }
    CopyAttributes(source, status, made);
    Place(name, copy);
}

bool TargetTree::CopyRegular(int source, const std::string& name, const struct stat* copy) {
    struct stat before {};
    CheckCopy(fstat(source, &before) == 0, Where::kSource, "look at a file");
    RemoveCopy(name, copy);
    const EntryRef made = Making(name);
    const FileDescriptor target = MakeFile(made, before.st_mode & kPlainModes);
    CheckCopy(static_cast<bool>(target), Where::kTarget, "make a file");
    CopyRights(before, target.Get());  // asked now, its facts needn't be fetched
    CopyContent(source, target.Get(), [this](std::uint64_t bytes) {
        m_counts.copied_bytes += bytes;
        m_observer(bytes);
    });
    const bool hasWriter = IsBeingWritten(source);
    if (hasWriter) {
        MakeEarlier(before.st_mtim);
    }
    CopyAttributesAndTimes(source, before, target.Get(), true);
    // Its time says that it is whole: that must not reach the disk before its content.
    CheckCopy(!m_carrying || fsync(target.Get()) == 0, Where::kTarget, "write to the disk");
    struct stat placed {};
    CheckCopy(fstat(target.Get(), &placed) == 0, Where::kTarget, "look at a file");
    m_lastPlaced = Place(name, copy) ? placed.st_ino : 0;
    return !hasWriter;
}

bool TargetTree::Link(const std::string& firstPath, ino_t inode, const std::string& name,
                      const struct stat* copy) {
    std::string firstName;
    const FileDescriptor folder = OpenFolderOf(m_root, firstPath, firstName);
    struct stat linked {};
    if (!folder || !StatEntry(folder.Get(), firstName.c_str(), linked, Where::kTarget) ||
        (inode != 0 && linked.st_ino != inode)) {
        return false;
    }
    if (copy != nullptr && copy->st_ino == linked.st_ino) {
        return true;
    }
    RemoveCopy(name, copy);
    const EntryRef made = Making(name);
    const bool isLinked = linkat(folder.Get(), firstName.c_str(), made.folder, made.name, 0) == 0;
    CheckCopy(isLinked || errno == ENOENT, Where::kTarget, "link a file");
    if (isLinked) {
        Place(name, copy);
    }
    return isLinked;
}

void TargetTree::Remove(const std::string& name) {
    const TreeRemoval removal = RemoveTree(folders.Current(), name);
    if (!removal.isGone) {
        FailCopy(Where::kTarget, removal.problems.empty() ? EIO : removal.problems.front().error,
                 "remove an entry");
    }
    ++m_counts.removedEntries;
}

void TargetTree::RemoveVanished(int source) {
    FolderStream stream;
    FolderEntry entry;
    while (stream.Next(folders.Current(), entry)) {
        struct stat status {};
        if (!StatEntry(source, entry.name.data(), status, Where::kSource)) {
            Remove(std::string(entry.name));
        }
    }
    errno = stream.Error();
    CheckCopy(errno == 0, Where::kTarget, "list a folder");
}

void TargetTree::CopyFolderAttributes(int source) const {
    struct stat status {};
    struct stat copy {};
    CheckCopy(fstat(source, &status) == 0, Where::kSource, "look at a folder");
    CheckCopy(fstat(folders.Current(), &copy) == 0, Where::kTarget, "look at a folder");
    if (!HasSameAttributes(source, status, folders.Current(), copy)) {
        CopyAttributes(source, status, folders.Current());
    }
}

}  // namespace korv
