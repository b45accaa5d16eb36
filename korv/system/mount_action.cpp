#include "korv/system/mount_action.h"

#include <fcntl.h>
#include <libmount.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <new>
#include <set>
#include <system_error>

#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include "platform/korv/configuration.h"

#include "include/run_as_scope.h"
#include "korv/system/accounts.h"
#include "korv/system/clear_mount_point.h"
#include "korv/system/mount_probe.h"
#include "korv/system/root_child.h"
#include "korv/system/server_probe.h"

namespace korv {

namespace {

constexpr std::chrono::seconds kDeadline(30);
constexpr std::chrono::seconds kUnmountDeadline(10);
constexpr int kFirstCode = 400;  // an exit status is a failure's code less this
constexpr mode_t kPrivateFile = S_IRUSR | S_IWUSR;
constexpr const char* kOutputEnding = ".output";

std::string AccountFile(const std::string& token) {
    return KORV::GetConfiguration().stateDir + "/mounts/" + token + ".account";
}

std::string AttemptsFolder() { return KORV::GetConfiguration().runDir + "/mounts"; }
std::string StagingFolder(const std::string& token) { return AttemptsFolder() + "/" + token; }

// What the helper writes; removed by ClearAttempt when the attempt was killed over it.
std::string HelperOutput(const std::string& token) { return StagingFolder(token) + kOutputEnding; }

int ExitOf(MountFailure failure) {
    return failure == MountFailure::kNone ? 0 : static_cast<int>(failure) - kFirstCode;
}

MountEnd EndOf(const ChildEnd& child) {
    MountEnd end;
    end.output = child.output;
    if (!child.isInTime) {
        end.failure = MountFailure::kTooSlow;
    } else if (child.exitCode == 0) {
        end.failure = MountFailure::kNone;
    } else if (child.exitCode > 0 && child.exitCode <= ExitOf(MountFailure::kTooSlow)) {
        end.failure = static_cast<MountFailure>(child.exitCode + kFirstCode);
    }  // else it died or threw
    return end;
}

// Memory that a child shares with its parent.
template <class Value>
class Shared {
public:
    explicit Shared(const Value& value) {
        void* const memory =
            mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            throw std::bad_alloc();
        }
        m_value = new (memory) Value(value);
    }
    ~Shared() { munmap(m_value, sizeof(Value)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    Value& operator*() { return *m_value; }

private:
    Value* m_value = nullptr;
};

std::string OptionsFor(const MountRow& row) {
    std::string options = "nosuid,nodev,noexec";
    if (!row.options.empty()) {
        options += "," + row.options;
    }
    if (row.type == RemoteType::kCifs) {
        const std::string file = AccountFile(row.token);
        // What the recorder and the administrators may do is the server's decision about the account, but on
        // this machine nobody else gets in.
        options += access(file.c_str(), F_OK) == 0 ? ",credentials=" + file : std::string(",guest");
        if (const auto recorder = FindUser(KORV::GetConfiguration().serviceUser)) {
            options += ",uid=" + std::to_string(recorder->uid);
        }
        if (const auto administrators = FindGroup(kAdministratorsGroup)) {
            options += ",gid=" + std::to_string(administrators->gid);
        }
        options += ",file_mode=0660,dir_mode=0770";
    } else {
        options += ",retry=0";  // the helper would try for two minutes before it says what is wrong
    }
    return options;
}

bool HasHelper(RemoteType type) {
    const std::string name = std::string("/mount.") + TextOf(type);
    return access(("/sbin" + name).c_str(), X_OK) == 0 || access(("/usr/sbin" + name).c_str(), X_OK) == 0;
}

// Runs libmount. What the helper writes goes to standard error, which is read again for the cause.
MountFailure RunLibmount(const MountRow& row, const std::string& target, const std::string& helperOutput) {
    const std::unique_ptr<libmnt_context, void (*)(libmnt_context*)> context(mnt_new_context(),
                                                                             mnt_free_context);
    if (context == nullptr || mnt_context_set_fstype(context.get(), TextOf(row.type)) != 0 ||
        mnt_context_set_source(context.get(), row.source.c_str()) != 0 ||
        mnt_context_set_target(context.get(), target.c_str()) != 0 ||
        mnt_context_set_options(context.get(), OptionsFor(row).c_str()) != 0) {
        return MountFailure::kFailed;
    }
    mnt_context_disable_mtab(context.get(), 1);
    const FileDescriptor output(
        open(helperOutput.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, kPrivateFile));
    const FileDescriptor usual(dup(STDERR_FILENO));
    dup2(output.Get(), STDERR_FILENO);
    const int result = mnt_context_mount(context.get());
    dup2(usual.Get(), STDERR_FILENO);
    std::string text(4096, '\0');
    const ssize_t length = pread(output.Get(), text.data(), text.size(), 0);
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    dprintf(STDERR_FILENO, "%s", text.c_str());
    unlink(helperOutput.c_str());
    // libmount counts a helper that ran as a success, however it ended.
    const bool isHelped = mnt_context_helper_executed(context.get()) == 1;
    if (result == 0 && (isHelped ? mnt_context_get_helper_status(context.get()) == 0
                                 : mnt_context_get_status(context.get()) == 1)) {
        return MountFailure::kNone;
    }
    const bool isCifs = row.type == RemoteType::kCifs;
    return !isHelped ? FailureOfErrno(isCifs, mnt_context_get_syscall_errno(context.get()))
                     : FailureOfHelper(isCifs, text);
}

bool IsMountRoot(const std::string& path) {
    struct statx facts {};
    return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &facts) == 0 &&
           S_ISDIR(facts.stx_mode) && (facts.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

// Puts a second view of what is mounted at `staging` onto `target`: a mount can't be moved away from where
// mounts spread to other namespaces, its copy can.
MountFailure PutInPlace(const std::string& staging, int target) {
    const FileDescriptor tree(
        open_tree(AT_FDCWD, staging.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_SYMLINK_NOFOLLOW));
    mount_attr attributes{};
    attributes.attr_set = MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC;
    if (!tree || mount_setattr(tree.Get(), "", AT_EMPTY_PATH, &attributes, sizeof attributes) != 0 ||
        move_mount(tree.Get(), "", target, "", MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) != 0) {
        dprintf(STDERR_FILENO, "a mount could not be put in its place: %s\n",
                std::system_category().message(errno).c_str());
        return MountFailure::kFailed;
    }
    return MountFailure::kNone;
}

MountFailure MountAt(const MountRow& row, int target) {
    const std::string staging = StagingFolder(row.token);
    std::filesystem::create_directories(staging);
    std::filesystem::permissions(staging, std::filesystem::perms::owner_all);
    MountFailure failure = RunLibmount(row, staging, HelperOutput(row.token));
    if (failure != MountFailure::kNone) {
        return failure;
    }
    struct statfs size {};
    struct stat folder {};
    if (!IsMountRoot(staging)) {
        return MountFailure::kFailed;
    }
    if (statfs(staging.c_str(), &size) != 0 || stat(staging.c_str(), &folder) != 0) {
        return FailureOfErrno(row.type == RemoteType::kCifs, errno);
    }
    // A folder without a link is one that was removed at the server while somebody held it open.
    return folder.st_nlink == 0 ? MountFailure::kStale : PutInPlace(staging, target);
}

MountFailure MountWork(const MountRow& row, const MountPlace& place, const std::optional<MountCaller>& caller,
                       MountFolderState& state) {
    if (!HasHelper(row.type)) {
        return MountFailure::kNoDriver;
    }
    if (row.hasAccount && access(AccountFile(row.token).c_str(), F_OK) != 0) {
        dprintf(STDERR_FILENO, "the file with its account is lost\n");
        return MountFailure::kWrongAccount;
    }
    const OpenedPlace opened =
        caller ? PrepareMountFolder(place, *caller, state) : ReopenMountFolder(place, state);
    if (opened.failure != MountFailure::kNone) {
        return opened.failure;
    }
    const auto source = ParseMountSource(row.type, row.source);
    if (!source) {
        return MountFailure::kBadSource;
    }
    const MountFailure failure = ProbeServer(source->host, ServerPort(row.type, row.options));
    return failure != MountFailure::kNone ? failure : MountAt(row, opened.folder.Get());
}

MountFailure UnmountWork(const MountPlace& place, bool isForced) {
    if (!IsMounted(place.Path())) {
        return MountFailure::kNone;
    }
    const FileDescriptor above = OpenAbove(place);
    if (!above || fchdir(above.Get()) != 0) {
        return MountFailure::kFailed;
    }
    const std::string name = LastPart(place.below);
    while (IsMounted(place.Path())) {
        if (isForced && umount2(name.c_str(), MNT_FORCE | UMOUNT_NOFOLLOW) == 0) {
            continue;
        }
        if (umount2(name.c_str(), (isForced ? MNT_DETACH : 0) | UMOUNT_NOFOLLOW) != 0) {
            return errno == EBUSY ? MountFailure::kBusy : MountFailure::kFailed;
        }
    }
    return MountFailure::kNone;
}

}  // namespace

void KeepAccount(const std::string& token, const MountAccount& account) {
    if (account.name.empty()) {
        return;
    }
    std::string text;
    const auto slash = account.name.find('\\');
    if (slash != std::string::npos) {
        text = "domain=" + account.name.substr(0, slash) + "\n";
    }
    text += "username=" + (slash == std::string::npos ? account.name : account.name.substr(slash + 1)) +
            "\npassword=" + account.password + "\n";
    const RunAsScope root = IF_RUN_AS;
    const std::string path = AccountFile(token);
    const std::string folder = std::filesystem::path(path).parent_path();
    if (mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        throw std::system_error(errno, std::generic_category(), "cannot make the folder of accounts");
    }
    const FileDescriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kPrivateFile));
    const bool isWritten = file &&
                           write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                           fsync(file.Get()) == 0;
    const int error = errno;
    explicit_bzero(text.data(), text.size());
    if (!isWritten) {
        throw std::system_error(error, std::generic_category(), "cannot keep the account of a mount");
    }
}

int ForgetAccount(const std::string& token) {
    const RunAsScope root = IF_RUN_AS;
    return unlink(AccountFile(token).c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

MountEnd ForeseeMount(const MountPlace& place, MountFolderState& state) {
    Shared<MountFolderState> shared(state);
    const auto foresee = [&] {
        *shared = ForeseeFolderState(place);
        return 0;
    };
    MountEnd end = EndOf(RunAsRootChild(foresee, kUnmountDeadline));
    state = *shared;
    return end;
}

std::set<std::string> ListAttempts() {
    const RunAsScope root = IF_RUN_AS;
    std::set<std::string> tokens;
    std::error_code noneYet;
    for (const auto& entry : std::filesystem::directory_iterator(AttemptsFolder(), noneYet)) {
        const std::string name = entry.path().filename();
        tokens.insert(name.substr(0, name.find(kOutputEnding)));
    }
    return tokens;
}

// A mount that has been put in its place stays alive through its second view. Nothing waits for a server
// here.
void ClearAttempt(const std::string& token) {
    ClearMountPoint(StagingFolder(token));
    const RunAsScope root = IF_RUN_AS;
    unlink(HelperOutput(token).c_str());
}

MountEnd MountRemote(const MountRow& row, const MountPlace& place, const std::optional<MountCaller>& caller,
                     MountFolderState& state) {
    ClearAttempt(row.token);
    Shared<MountFolderState> shared(state);
    const auto work = [&] { return ExitOf(MountWork(row, place, caller, *shared)); };
    MountEnd end = EndOf(RunAsRootChild(work, kDeadline));
    state = *shared;
    ClearAttempt(row.token);
    return end;
}

MountEnd UnmountRemote(const MountPlace& place, bool isForced) {
    MountEnd end =
        EndOf(RunAsRootChild([&] { return ExitOf(UnmountWork(place, isForced)); }, kUnmountDeadline));
    if (end.failure == MountFailure::kTooSlow && !isForced) {
        return UnmountRemote(place, true);
    }
    return end;
}

MountEnd ReleaseMount(const MountPlace& place, const MountFolderState& state) {
    const auto work = [&] {
        ReleaseMountFolder(place, state);
        return 0;
    };
    return EndOf(RunAsRootChild(work, kUnmountDeadline));
}

}  // namespace korv
