#include "korv/system/tree_sync.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "include/folder_stream.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/folder_stack.h"
#include "korv/system/sync_entry.h"
#include "korv/system/target_tree.h"

namespace korv {

namespace {

using Where = CopyError::Where;

constexpr ino_t kSubvolumeInode = 256;  // of Btrfs; a snapshot has its original's times
// One pass. Source and target are walked in step.
class Pass {
public:
    Pass(int source, int target, SyncMode mode, const SyncTimes& times, const CopyObserver& observer,
         WrittenFiles* written)
        : m_source(FileDescriptor(fcntl(source, F_DUPFD_CLOEXEC, 0))),
          m_target(target, mode == SyncMode::kFollow, observer, m_counts),
          m_mode(mode),
          m_times(times),
          m_observer(observer),
          m_written(written),
          m_levels(1) {}

    SyncCounts Run() {
        while (true) {
            FolderEntry entry;
            if (m_levels.back().stream.Next(m_source.Current(), entry)) {
                m_observer(0);
                Visit(std::string(entry.name));
                continue;
            }
            const int error = m_levels.back().stream.Error();
            if (error != 0 && error != ENOENT) {
                FailCopy(Where::kSource, error, "list a folder");
            }
            FinishFolder();
            if (m_source.Depth() == 0) {
                return m_counts;
            }
            Leave(m_source, Where::kSource);
            Leave(m_target.folders, Where::kTarget);
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
        // kFollow: the file that was carried over to it, and the one in whose place it came, if any.
        ino_t carried = 0;
        struct stat replaced {};
    };

    static void Leave(FolderStack& stack, Where where) {
        if (const int error = stack.Leave()) {
            FailCopy(where, error, "go up from a folder");
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
        bool isThere = !m_levels.back().isFresh &&
                       StatEntry(m_target.folders.Current(), name.c_str(), copy, Where::kTarget);
        if (isThere && !IsSameKind(status, copy)) {
            if (m_mode == SyncMode::kFollow) {
                return VisitBeside(name, status);
            }
            m_target.Remove(name);
            isThere = false;
        }
        VisitAs(name, name, status, isThere ? &copy : nullptr);
    }

    void VisitAs(const std::string& name, const std::string& copyName, const struct stat& status,
                 const struct stat* copy) {
        if (S_ISDIR(status.st_mode)) {
            VisitFolder(name, copyName, status, copy != nullptr);
        } else if (status.st_nlink > 1 && m_mode != SyncMode::kFollow) {
            VisitName(name, status, copy);
        } else {
            VisitFile(name, copyName, status, copy);
        }
    }

    // Where people are now something of another kind has the name, and keeps it.
    void VisitBeside(const std::string& name, const struct stat& status) {
        const std::string copyName = NameBeside(name, status.st_ino);
        struct stat copy {};
        const bool isThere = StatEntry(m_target.folders.Current(), copyName.c_str(), copy, Where::kTarget);
        if (isThere && !IsSameKind(status, copy)) {
            FailCopy(Where::kTarget, EEXIST, "carry over an entry");
        }
        const std::uint64_t copiedBefore = m_counts.copiedEntries;
        VisitAs(name, copyName, status, isThere ? &copy : nullptr);
        m_counts.carriedBeside += m_counts.copiedEntries - copiedBefore;
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

    void VisitFolder(const std::string& name, const std::string& copyName, const struct stat& status,
                     bool isThere) {
        const bool isFollowing = m_mode == SyncMode::kFollow;
        const bool isSuspect = IsSuspect(status) || (!isThere && !isFollowing);
        if (!isThere) {
            // Removed or replaced where people are now, unless somebody still works in it.
            if ((isFollowing && !isSuspect && !(name != copyName && IsTouched(status)) && !IsAlive(name)) ||
                !m_target.MakeFolder({m_source.Current(), name.c_str()}, copyName, status)) {
                return;
            }
        }
        if (const int error = m_source.Enter(name.c_str())) {
            // Replaced or moved away meanwhile: the next pass sees what is there then.
            if (error != ENOENT && error != ENOTDIR && error != ELOOP && error != ESTALE) {
                FailCopy(Where::kSource, error, "enter a folder");
            }
            return;
        }
        if (const int error = m_target.folders.Enter(copyName.c_str())) {
            FailCopy(Where::kTarget, error, "enter a folder");
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
                if (streams.size() > FolderStack::kOpenLevels) {
                    streams[streams.size() - FolderStack::kOpenLevels - 1].Suspend();
                }
            } else if (S_ISREG(status.st_mode)) {
                const FileDescriptor file = OpenRegular(walk.Current(), entry.name.data());
                if (IsTouched(status) || (file && IsBeingWritten(file.Get()))) {
                    return true;
                }
            }
        }
        return false;
    }

    // One of several names of a file: the first that comes is copied, the others are linked to it.
    void VisitName(const std::string& name, const struct stat& status, const struct stat* copy) {
        const auto key = std::make_pair(status.st_dev, status.st_ino);
        const auto first = m_firstNames.find(key);
        if (first == m_firstNames.end()) {
            VisitFile(name, name, status, copy);
            m_firstNames[key].path = m_target.folders.FullPathOf(name);
            m_firstNames[key].left = status.st_nlink - 1;
            return;
        }
        if (!m_target.Link(first->second.path, 0, name, copy)) {
            VisitFile(name, name, status, copy);  // its first name has vanished before it was copied
        }
        if (--first->second.left == 0) {
            m_firstNames.erase(first);
        }
    }

    void VisitFile(const std::string& name, const std::string& copyName, const struct stat& status,
                   const struct stat* copy) {
        if (S_ISREG(status.st_mode)) {
            VisitRegular(name, copyName, status, copy);
        } else if (m_mode == SyncMode::kFollow ? IsToCarry(status) && copy == nullptr
                                               : copy == nullptr || !IsSameSpecial(name, status, *copy)) {
            m_target.CopySpecial({m_source.Current(), name.c_str()}, copyName, status, copy);
        }
    }

    bool IsToCarry(const struct stat& status) const { return m_levels.back().isSuspect || IsTouched(status); }

    // What had a writer in an earlier pass may have other content than its times say. An earlier run of this
    // program may have seen one, too.
    bool HadWriter(const struct stat& status) const {
        return m_written != nullptr && m_written->files.contains({status.st_dev, status.st_ino});
    }
    bool MayHaveToCarry(const struct stat& status) const {
        return m_written == nullptr || !m_written->isKnown || HadWriter(status) || IsToCarry(status) ||
               m_firstNames.contains({status.st_dev, status.st_ino});
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

    void VisitRegular(const std::string& name, const std::string& copyName, const struct stat& status,
                      const struct stat* copy) {
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
            return Follow(copyName, source.Get(), status, copy, hadWriter && !hasWriter);
        }
        if (copy != nullptr && IsAsItMustBe(name, source.Get(), status, *copy)) {
            return;
        }
        const bool isExact = m_target.CopyRegular(source.Get(), name, copy);
        if (m_mode == SyncMode::kVerify) {
            ++m_counts.differing;
            if (isExact) {
                VerifyAgain(name, source.Get());
            }
        }
    }

    void Follow(const std::string& name, int source, const struct stat& status, const struct stat* copy,
                bool isWriterGone) {
        const auto key = std::make_pair(status.st_dev, status.st_ino);
        const auto first = m_firstNames.find(key);
        const bool isCarriedFile = first != m_firstNames.end();
        const bool isToCarry =
            isWriterGone || (copy == nullptr ? IsToCarry(status) : IsNewer(status, *copy)) ||
            (isCarriedFile && copy != nullptr && IsSameFile(*copy, first->second.replaced));
        if (isToCarry &&
            !(isCarriedFile && m_target.Link(first->second.path, first->second.carried, name, copy))) {
            m_target.CopyRegular(source, name, copy);
            if (status.st_nlink > 1 && m_target.LastPlaced() != 0) {
                const struct stat replaced = copy == nullptr ? FirstName().replaced : *copy;
                m_firstNames[key] = {m_target.folders.FullPathOf(name), 0, m_target.LastPlaced(), replaced};
            }
        }
        if (isWriterGone) {
            m_written->files.erase({status.st_dev, status.st_ino});
        }
    }

    // Under another name, and untouched but for that.
    static bool IsSameFile(const struct stat& left, const struct stat& right) {
        return left.st_ino == right.st_ino && IsSameKindAndTime(left, right);
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
            OpenBeneath(m_target.folders.Current(), name.c_str(), O_RDONLY | O_NOATIME | O_NONBLOCK));
        struct stat now {};
        CheckCopy(target && fstat(target.Get(), &now) == 0, Where::kTarget, "open a copy");
        posix_fadvise(target.Get(), 0, 0, POSIX_FADV_DONTNEED);  // what the disk holds counts
        return HasSameAttributes(source, status, target.Get(), now) &&
               HasSameContent(source, target.Get(), m_observer);
    }

    // A copy made anew that differs from a source that nobody touched will never be right.
    void VerifyAgain(const std::string& name, int source) {
        struct stat before {};
        struct stat after {};
        CheckCopy(fstat(source, &before) == 0, Where::kSource, "look at a file");
        const bool isRight = HasSameContentAndAttributes(name, source, before);
        CheckCopy(fstat(source, &after) == 0, Where::kSource, "look at a file");
        const bool isUntouched =
            before.st_ctim.tv_sec == after.st_ctim.tv_sec && before.st_ctim.tv_nsec == after.st_ctim.tv_nsec;
        if (!isRight && isUntouched && !IsBeingWritten(source)) {
            FailCopy(Where::kTarget, EIO, "read back what was written");
        }
    }

    bool IsSameSpecial(const std::string& name, const struct stat& status, const struct stat& copy) const {
        if (!IsSameKindAndTime(status, copy) || (m_mode == SyncMode::kCatchUp && IsTouched(status)) ||
            !HasSameAttributes(-1, status, -1, copy)) {
            return false;
        }
        return !S_ISLNK(status.st_mode) ||
               ReadLink({m_source.Current(), name.c_str()}, Where::kSource) ==
                   ReadLink({m_target.folders.Current(), name.c_str()}, Where::kTarget);
    }

    // The source's list has come to its end.
    void FinishFolder() {
        const bool hasCopied = m_counts.copiedEntries > m_levels.back().copiedBefore;
        const bool mayMissEntries = !IsFolderAsSeen() || m_levels.back().isTouched;
        if (m_mode == SyncMode::kFollow || (!mayMissEntries && !hasCopied)) {
            return;
        }
        if (mayMissEntries && !m_levels.back().isFresh) {
            m_target.RemoveVanished(m_source.Current());
        }
        m_target.CopyFolderAttributes(m_source.Current());
    }

    SyncCounts m_counts;
    FolderStack m_source;
    TargetTree m_target;
    SyncMode m_mode;
    const SyncTimes m_times;
    const CopyObserver& m_observer;
    WrittenFiles* m_written;
    std::vector<Level> m_levels;
    std::map<std::pair<dev_t, ino_t>, FirstName> m_firstNames;
};

}  // namespace

SyncCounts SyncTree(int source, int target, SyncMode mode, const SyncTimes& times,
                    const CopyObserver& observer, WrittenFiles* written) {
    return Pass(source, target, mode, times, observer, written).Run();
}

}  // namespace korv
