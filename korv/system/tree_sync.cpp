#include "korv/system/tree_sync.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "include/folder_stream.h"
#include "korv/system/carrying_folder.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/folder_stack.h"
#include "korv/system/tree_remove.h"

namespace korv {

namespace {

using Where = CopyError::Where;

constexpr mode_t kPrivateFolder = S_IRWXU;
constexpr mode_t kPrivateFile = S_IRUSR | S_IWUSR;
constexpr ino_t kSubvolumeInode = 256;  // of Btrfs; a snapshot has its original's times
constexpr mode_t kPlainModes = S_IRWXU | S_IRWXG | S_IRWXO;

[[noreturn]] void Fail(Where where, int error, const char* action) { throw CopyError{where, error, action}; }

void Check(bool isRight, Where where, const char* action) {
    if (!isRight) {
        Fail(where, errno, action);
    }
}

// False when there is no such entry.
bool StatEntry(int folder, const char* name, struct stat& status, Where where) {
    if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return true;
    }
    Check(errno == ENOENT, where, "look at an entry");
    return false;
}

bool IsSameKindAndTime(const struct stat& left, const struct stat& right) {
    return (left.st_mode & S_IFMT) == (right.st_mode & S_IFMT) && left.st_rdev == right.st_rdev &&
           left.st_mtim.tv_sec == right.st_mtim.tv_sec && left.st_mtim.tv_nsec == right.st_mtim.tv_nsec;
}

bool IsNewer(const struct stat& left, const struct stat& right) {
    return left.st_mtim.tv_sec != right.st_mtim.tv_sec ? left.st_mtim.tv_sec > right.st_mtim.tv_sec
                                                       : left.st_mtim.tv_nsec > right.st_mtim.tv_nsec;
}

std::string ReadLink(const EntryRef& link, Where where) {
    constexpr std::size_t kLongest = 4096;
    std::string text(kLongest, '\0');
    const ssize_t length = readlinkat(link.folder, link.name, text.data(), text.size());
    Check(length >= 0, where, "read a link");
    text.resize(static_cast<std::size_t>(length));
    return text;
}

// Opens the folder that holds `path`, however long that is, name by name.
FileDescriptor OpenFolderOf(int root, const std::string& path, std::string& name) {
    FileDescriptor folder(fcntl(root, F_DUPFD_CLOEXEC, 0));
    std::size_t start = 0;
    for (std::size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', start)) {
        folder = FileDescriptor(
            OpenBeneath(folder.Get(), path.substr(start, slash - start).c_str(), O_RDONLY | O_DIRECTORY));
        Check(static_cast<bool>(folder), Where::kTarget, "find a file's first name");
        start = slash + 1;
    }
    name = path.substr(start);
    return folder;
}

// A read lease is refused while someone has the file open for writing; a file system without leases can't
// tell.
bool IsBeingWritten(int file) {
    fcntl(file, F_SETSIG, SIGURG);  // ignored, unlike what a broken lease would send by default
    if (fcntl(file, F_SETLEASE, F_RDLCK) == 0) {
        fcntl(file, F_SETLEASE, F_UNLCK);
        return false;
    }
    return errno == EAGAIN;
}

// What is written while it is copied may keep the time that it has: its copy gets an earlier one, so that it
// is copied once more.
void MakeEarlier(timespec& time) {
    constexpr long kSecond_ns = 1'000'000'000;
    time.tv_sec -= time.tv_nsec == 0 ? 1 : 0;
    time.tv_nsec = (time.tv_nsec == 0 ? kSecond_ns : time.tv_nsec) - 1;
}

// One pass. Source and target are walked in step.
class Pass {
public:
    Pass(int source, int target, SyncMode mode, const SyncTimes& times, const CopyObserver& observer,
         WrittenFiles* written)
        : m_source(FileDescriptor(fcntl(source, F_DUPFD_CLOEXEC, 0))),
          m_target(FileDescriptor(fcntl(target, F_DUPFD_CLOEXEC, 0))),
          m_targetRoot(target),
          m_mode(mode),
          m_times(times),
          m_observer(observer),
          m_written(written),
          m_levels(1) {}

    SyncCounts Run() {
        if (m_mode == SyncMode::kFollow) {
            m_carrying.emplace(m_targetRoot);
        }
        while (true) {
            FolderEntry entry;
            if (m_levels.back().stream.Next(m_source.Current(), entry)) {
                m_observer(0);
                Visit(std::string(entry.name));
                continue;
            }
            const int error = m_levels.back().stream.Error();
            if (error != 0 && error != ENOENT) {
                Fail(Where::kSource, error, "list a folder");
            }
            FinishFolder();
            if (m_source.Depth() == 0) {
                return m_counts;
            }
            Leave(m_source, Where::kSource);
            Leave(m_target, Where::kTarget);
            m_levels.pop_back();
        }
    }

private:
    struct Level {
        FolderStream stream;  // of the source
        // The folder, or one above it, may not be the one that an earlier pass saw here. The tree's own
        // folder always is.
        bool isSuspect = false;
        bool isTouched = true;  // since the time that makes suspect
        bool isFresh = false;   // made by this pass, which nobody else writes to yet
        std::uint64_t copiedBefore = 0;
    };

    struct FirstName {
        std::string path;
        nlink_t left = 0;  // names still to come
    };

    static void Leave(FolderStack& stack, Where where) {
        if (const int error = stack.Leave()) {
            Fail(where, error, "go up from a folder");
        }
    }

    void Visit(const std::string& name) {
        struct stat status {};
        if (!StatEntry(m_source.Current(), name.c_str(), status, Where::kSource)) {
            return;
        }
        if (!S_ISDIR(status.st_mode) && IsAsSeen(status)) {
            return;
        }
        if (m_mode == SyncMode::kFollow && S_ISREG(status.st_mode) && !MayHaveToCarry(status)) {
            LookForWriter(name);
            return;
        }
        struct stat copy {};
        bool isThere =
            !m_levels.back().isFresh && StatEntry(m_target.Current(), name.c_str(), copy, Where::kTarget);
        if (isThere && (status.st_mode & S_IFMT) != (copy.st_mode & S_IFMT)) {
            if (m_mode == SyncMode::kFollow && !IsTouched(status)) {
                return;  // people have replaced it
            }
            if (m_mode == SyncMode::kFollow) {
                Fail(Where::kTarget, EEXIST, "carry over an entry");
            }
            Remove(name);
            isThere = false;
        }
        if (S_ISDIR(status.st_mode)) {
            VisitFolder(name, status, isThere);
        } else if (status.st_nlink > 1 && m_mode != SyncMode::kFollow) {
            VisitName(name, status, isThere ? &copy : nullptr);
        } else {
            VisitFile(name, status, isThere ? &copy : nullptr);
        }
    }

    bool IsTouched(const struct stat& status) const {
        return status.st_ctim.tv_sec >= m_times.changedSince_s;
    }

    // An entry that the pass before saw here as it is, and that nobody touched since: the target needn't be
    // asked. Not so a file of several names, whose others may have to be linked to it.
    bool IsAsSeen(const struct stat& status) const {
        return IsFolderAsSeen() && !IsTouched(status) && (S_ISDIR(status.st_mode) || status.st_nlink == 1);
    }

    // The tree's own folder is always looked at: its rename at the switch hides when it was touched.
    bool IsFolderAsSeen() const {
        const bool isLater = m_mode == SyncMode::kCatchUp || m_mode == SyncMode::kSettle;
        return isLater && m_levels.size() > 1 && !m_levels.back().isSuspect;
    }

    // A folder can only be another one than before when the one that it is in was touched, too.
    bool IsSuspect(const struct stat& folder) const {
        const Level& above = m_levels.back();
        return above.isSuspect ||
               (above.isTouched && (IsTouchedSinceSwitch(folder) || folder.st_ino == kSubvolumeInode));
    }

    bool IsTouchedSinceSwitch(const struct stat& folder) const {
        const std::int64_t since_s =
            m_mode == SyncMode::kFollow ? m_times.switched_s : m_times.changedSince_s;
        return folder.st_ctim.tv_sec >= since_s;
    }

    void VisitFolder(const std::string& name, const struct stat& status, bool isThere) {
        const bool isFollowing = m_mode == SyncMode::kFollow;
        const bool isSuspect = IsSuspect(status) || (!isThere && !isFollowing);
        if (!isThere) {
            // Removed where people are now, unless somebody still writes in it.
            if ((isFollowing && !isSuspect && !IsAlive(name)) || !MakeFolder(name, status)) {
                return;
            }
        }
        if (const int error = m_source.Enter(name.c_str())) {
            // Replaced or moved away meanwhile: the next pass sees what is there then.
            if (error != ENOENT && error != ENOTDIR && error != ELOOP && error != ESTALE) {
                Fail(Where::kSource, error, "enter a folder");
            }
            return;
        }
        if (const int error = m_target.Enter(name.c_str())) {
            Fail(Where::kTarget, error, "enter a folder");
        }
        m_levels.emplace_back();
        m_levels.back().isSuspect = isSuspect;
        m_levels.back().isTouched = IsTouchedSinceSwitch(status);
        m_levels.back().isFresh = !isThere && m_mode != SyncMode::kFollow;
        m_levels.back().copiedBefore = m_counts.copiedEntries;
        if (m_levels.size() > FolderStack::kOpenLevels) {
            m_levels[m_levels.size() - FolderStack::kOpenLevels - 1].stream.Suspend();
        }
    }

    // Whether a file below the folder of the source was written lately, or may be at this moment.
    bool IsAlive(const std::string& name) {
        FolderStack walk(FileDescriptor(fcntl(m_source.Current(), F_DUPFD_CLOEXEC, 0)));
        if (walk.Enter(name.c_str()) != 0) {
            return false;
        }
        std::vector<FolderStream> streams(1);
        FolderEntry entry;
        while (!streams.empty()) {
            if (!streams.back().Next(walk.Current(), entry)) {
                streams.pop_back();
                Leave(walk, Where::kSource);
                continue;
            }
            m_observer(0);
            struct stat status {};
            if (!StatEntry(walk.Current(), entry.name.data(), status, Where::kSource)) {
                continue;
            }
            if (S_ISDIR(status.st_mode) && walk.Enter(entry.name.data()) == 0) {
                streams.emplace_back();
            } else if (S_ISREG(status.st_mode)) {
                const FileDescriptor file = OpenRegular(walk.Current(), entry.name.data());
                if (IsTouched(status) || (file && IsBeingWritten(file.Get()))) {
                    return true;
                }
            }
        }
        return false;
    }

    // False when somebody has made something else of that name meanwhile.
    bool MakeFolder(const std::string& name, const struct stat& status) {
        const EntryRef made = Making(name);
        Check(mkdirat(made.folder, made.name, kPrivateFolder) == 0, Where::kTarget, "make a folder");
        if (m_carrying) {
            const FileDescriptor source(
                OpenBeneath(m_source.Current(), name.c_str(), O_RDONLY | O_DIRECTORY));
            const FileDescriptor target(OpenBeneath(made.folder, made.name, O_RDONLY | O_DIRECTORY));
            Check(static_cast<bool>(source), Where::kSource, "open a folder");
            Check(static_cast<bool>(target), Where::kTarget, "open a folder");
            CopyAttributes(source.Get(), status, target.Get());
        }
        ++m_counts.copiedEntries;
        return Place(name, nullptr);
    }

    // Where an entry named `name` is made: where people use the target, out of their reach until it is done.
    EntryRef Making(const std::string& name) {
        return m_carrying ? m_carrying->Making() : EntryRef{m_target.Current(), name.c_str()};
    }

    // Gives what was made its name, in place of `copy`. Where somebody was faster the next pass decides.
    bool Place(const std::string& name, const struct stat* copy) {
        const bool isPlaced = !m_carrying || m_carrying->Place(m_target.Current(), name.c_str(), copy);
        m_counts.beingWritten += isPlaced ? 0 : 1;
        return isPlaced;
    }

    // One of several names of a file: the first that comes is copied, the others are linked to it.
    void VisitName(const std::string& name, const struct stat& status, const struct stat* copy) {
        const auto key = std::make_pair(status.st_dev, status.st_ino);
        const auto first = m_firstNames.find(key);
        if (first == m_firstNames.end()) {
            VisitFile(name, status, copy);
            m_firstNames[key] = {m_target.FullPathOf(name), status.st_nlink - 1};
            return;
        }
        std::string firstName;
        const FileDescriptor folder = OpenFolderOf(m_targetRoot, first->second.path, firstName);
        struct stat linked {};
        if (StatEntry(folder.Get(), firstName.c_str(), linked, Where::kTarget)) {
            if (copy == nullptr || copy->st_ino != linked.st_ino) {
                RemoveCopy(name, copy);
                Check(linkat(folder.Get(), firstName.c_str(), m_target.Current(), name.c_str(), 0) == 0,
                      Where::kTarget, "link a file");
                ++m_counts.copiedEntries;
            }
        } else {
            VisitFile(name, status, copy);  // its first name has vanished before it was copied
        }
        if (--first->second.left == 0) {
            m_firstNames.erase(first);
        }
    }

    void VisitFile(const std::string& name, const struct stat& status, const struct stat* copy) {
        if (S_ISREG(status.st_mode)) {
            VisitRegular(name, status, copy);
        } else if (copy == nullptr || !IsSameSpecial(name, status, *copy)) {
            if (m_mode != SyncMode::kFollow || (IsToCarry(status) && copy == nullptr)) {
                CopySpecial(name, status, copy);
            }
        }
    }

    bool IsToCarry(const struct stat& status) const { return m_levels.back().isSuspect || IsTouched(status); }

    // What had a writer in an earlier pass may have other content than its times say. An earlier run of this
    // program may have seen one, too.
    bool HadWriter(const struct stat& status) const {
        return m_written != nullptr && m_written->files.contains({status.st_dev, status.st_ino});
    }
    bool MayHaveToCarry(const struct stat& status) const {
        return m_written == nullptr || !m_written->isKnown || HadWriter(status) || IsToCarry(status);
    }

    // A file that somebody holds a write lease on can only be waited for, which must not be done at what
    // somebody else may have put in its place. None when it is gone, or no file any more.
    static FileDescriptor OpenRegular(int folder, const char* name) {
        FileDescriptor file(OpenBeneath(folder, name, O_RDONLY | O_NOATIME | O_NONBLOCK));
        if (!file && errno == EAGAIN) {
            const FileDescriptor found(OpenBeneath(folder, name, O_PATH));
            struct stat status {};
            if (found && fstat(found.Get(), &status) == 0 && S_ISREG(status.st_mode)) {
                file = FileDescriptor(open(("/proc/self/fd/" + std::to_string(found.Get())).c_str(),
                                           O_RDONLY | O_NOATIME | O_CLOEXEC));
            } else {
                errno = ENOENT;
            }
        }
        Check(file || errno == ENOENT || errno == ELOOP, Where::kSource, "open a file");
        return file;
    }

    // kFollow: counts a writer, whose file has to be carried over once more when he is done.
    bool NoteWriter(int source, const struct stat& status) {
        if (m_mode != SyncMode::kFollow || !IsBeingWritten(source)) {
            return false;
        }
        ++m_counts.beingWritten;
        if (m_written != nullptr) {
            m_written->files.insert({status.st_dev, status.st_ino});
        }
        return true;
    }

    void LookForWriter(const std::string& name) {
        const FileDescriptor source = OpenRegular(m_source.Current(), name.c_str());
        struct stat status {};
        if (source && fstat(source.Get(), &status) == 0) {
            NoteWriter(source.Get(), status);
        }
    }

    void VisitRegular(const std::string& name, const struct stat& status, const struct stat* copy) {
        if (m_mode == SyncMode::kSettle && IsTouched(status) && (copy == nullptr || IsNewer(status, *copy))) {
            return;  // kFollow's
        }
        const FileDescriptor source = OpenRegular(m_source.Current(), name.c_str());
        if (!source) {
            return;
        }
        const bool hadWriter = HadWriter(status);
        const bool hasWriter = NoteWriter(source.Get(), status);
        if (m_mode == SyncMode::kFollow) {
            return Follow(name, source.Get(), status, copy, hadWriter && !hasWriter);
        }
        if (copy != nullptr && IsAsItMustBe(name, source.Get(), status, *copy)) {
            return;
        }
        CopyRegular(name, source.Get(), copy);
        if (m_mode == SyncMode::kVerify) {
            ++m_counts.differing;
            VerifyAgain(name, source.Get());
        }
    }

    void Follow(const std::string& name, int source, const struct stat& status, const struct stat* copy,
                bool isWriterGone) {
        const bool isToCarry = isWriterGone || (copy == nullptr ? IsToCarry(status) : IsNewer(status, *copy));
        if (isToCarry) {
            CopyRegular(name, source, copy);
        }
        if (isWriterGone) {
            m_written->files.erase({status.st_dev, status.st_ino});
        }
    }

    bool IsAsItMustBe(const std::string& name, int source, const struct stat& status,
                      const struct stat& copy) {
        const bool looksTheSame = IsSameKindAndTime(status, copy) && status.st_size == copy.st_size &&
                                  (copy.st_nlink == 1 || status.st_nlink > 1);
        switch (m_mode) {
            case SyncMode::kCopy:
                m_observer(looksTheSame ? ContentBytes(status) : 0);
                return looksTheSame;
            case SyncMode::kCatchUp:
            case SyncMode::kSettle:
                return looksTheSame && !IsTouched(status);
            case SyncMode::kFollow:
            case SyncMode::kVerify:
                break;
        }
        return looksTheSame && HasSameContentAndAttributes(name, source, status);
    }

    bool HasSameContentAndAttributes(const std::string& name, int source, const struct stat& status) {
        const FileDescriptor target(
            OpenBeneath(m_target.Current(), name.c_str(), O_RDONLY | O_NOATIME | O_NONBLOCK));
        struct stat now {};
        Check(target && fstat(target.Get(), &now) == 0, Where::kTarget, "open a copy");
        posix_fadvise(target.Get(), 0, 0, POSIX_FADV_DONTNEED);  // what the disk holds counts
        return HasSameAttributes(source, status, target.Get(), now) &&
               HasSameContent(source, target.Get(), m_observer);
    }

    // A copy made anew that differs from a source that nobody touched will never be right.
    void VerifyAgain(const std::string& name, int source) {
        struct stat before {};
        struct stat after {};
        Check(fstat(source, &before) == 0, Where::kSource, "look at a file");
        const bool isRight = HasSameContentAndAttributes(name, source, before);
        Check(fstat(source, &after) == 0, Where::kSource, "look at a file");
        const bool isUntouched =
            before.st_ctim.tv_sec == after.st_ctim.tv_sec && before.st_ctim.tv_nsec == after.st_ctim.tv_nsec;
        if (!isRight && isUntouched && !IsBeingWritten(source)) {
            Fail(Where::kTarget, EIO, "read back what was written");
        }
    }

    void CopyRegular(const std::string& name, int source, const struct stat* copy) {
        struct stat before {};
        Check(fstat(source, &before) == 0, Where::kSource, "look at a file");
        if (m_mode != SyncMode::kFollow) {
            RemoveCopy(name, copy);
        }
        const EntryRef made = Making(name);
        const FileDescriptor target(openat(made.folder, made.name,
                                           O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                           before.st_mode & kPlainModes));
        Check(static_cast<bool>(target), Where::kTarget, "make a file");
        CopyRights(before, target.Get());  // asked now, its facts needn't be fetched
        CopyContent(source, target.Get(), [this](std::uint64_t bytes) {
            m_counts.copied_bytes += bytes;
            m_observer(bytes);
        });
        if (IsBeingWritten(source)) {
            MakeEarlier(before.st_mtim);
        }
        CopyAttributesAndTimes(source, before, target.Get());
        // Its time says that it is whole: that must not reach the disk before its content.
        Check(!m_carrying || fsync(target.Get()) == 0, Where::kTarget, "write to the disk");
        Place(name, copy);
        ++m_counts.copiedEntries;
    }

    bool IsSameSpecial(const std::string& name, const struct stat& status, const struct stat& copy) const {
        if (!IsSameKindAndTime(status, copy) || (m_mode == SyncMode::kCatchUp && IsTouched(status)) ||
            !HasSameAttributes(-1, status, -1, copy)) {
            return false;
        }
        return !S_ISLNK(status.st_mode) || ReadLink({m_source.Current(), name.c_str()}, Where::kSource) ==
                                               ReadLink({m_target.Current(), name.c_str()}, Where::kTarget);
    }

    void CopySpecial(const std::string& name, const struct stat& status, const struct stat* copy) {
        if (!m_carrying) {
            RemoveCopy(name, copy);
        }
        const EntryRef source{m_source.Current(), name.c_str()};
        const EntryRef target = Making(name);
        if (S_ISLNK(status.st_mode)) {
            Check(symlinkat(ReadLink(source, Where::kSource).c_str(), target.folder, target.name) == 0,
                  Where::kTarget, "make a link");
        } else {
            Check(mknodat(target.folder, target.name, (status.st_mode & S_IFMT) | kPrivateFile,
                          status.st_rdev) == 0,
                  Where::kTarget, "make a special file");
        }
        CopyAttributes(source, status, target);
        Place(name, copy);
        ++m_counts.copiedEntries;
    }

    void RemoveCopy(const std::string& name, const struct stat* copy) {
        if (copy != nullptr) {
            Check(unlinkat(m_target.Current(), name.c_str(), 0) == 0 || errno == ENOENT, Where::kTarget,
                  "replace a file");
        }
    }

    void Remove(const std::string& name) {
        const TreeRemoval removal = RemoveTree(m_target.Current(), name);
        if (!removal.isGone) {
            Fail(Where::kTarget, removal.problems.empty() ? EIO : removal.problems.front().error,
                 "remove an entry");
        }
        ++m_counts.removedEntries;
    }

    // The source's list has come to its end.
    void FinishFolder() {
        const bool hasCopied = m_counts.copiedEntries > m_levels.back().copiedBefore;
        if (m_mode == SyncMode::kFollow || (IsFolderAsSeen() && !hasCopied)) {
            return;
        }
        if (!m_levels.back().isFresh && !IsFolderAsSeen()) {
            RemoveVanished();
        }
        struct stat status {};
        struct stat copy {};
        Check(fstat(m_source.Current(), &status) == 0, Where::kSource, "look at a folder");
        Check(fstat(m_target.Current(), &copy) == 0, Where::kTarget, "look at a folder");
        if (!HasSameAttributes(m_source.Current(), status, m_target.Current(), copy)) {
            CopyAttributes(m_source.Current(), status, m_target.Current());
        }
    }

    void RemoveVanished() {
        FolderStream stream;
        FolderEntry entry;
        while (stream.Next(m_target.Current(), entry)) {
            struct stat status {};
            if (!StatEntry(m_source.Current(), entry.name.data(), status, Where::kSource)) {
                Remove(std::string(entry.name));
            }
        }
        errno = stream.Error();
        Check(errno == 0, Where::kTarget, "list a folder");
    }

    FolderStack m_source;
    FolderStack m_target;
    int m_targetRoot;
    SyncMode m_mode;
    const SyncTimes m_times;
    const CopyObserver& m_observer;
    WrittenFiles* m_written;
    std::vector<Level> m_levels;
    std::optional<CarryingFolder> m_carrying;  // kFollow
    std::map<std::pair<dev_t, ino_t>, FirstName> m_firstNames;
    SyncCounts m_counts;
};

}  // namespace

SyncCounts SyncTree(int source, int target, SyncMode mode, const SyncTimes& times,
                    const CopyObserver& observer, WrittenFiles* written) {
    return Pass(source, target, mode, times, observer, written).Run();
}

}  // namespace korv
