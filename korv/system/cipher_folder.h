#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace korv {

// What became of a request to a cipher folder.
enum class CipherEnd {
    kDone,
    kWrongPassword,
    kBadPassword,  // can't be one: empty, too long, or with a line end or zero byte in it
    kNotEmpty,     // the folder to encrypt into, or to mount at, holds something
    kNoFolder,     // the cipher folder or the mount point is not there or not a folder
    kNotCipher,    // the folder's configuration is missing or damaged
    kMounted,      // mounted already
    kNotMounted,
    kBusy,  // someone uses the files in it
    kNoSpace,
    kToolMissing,  // gocryptfs or FUSE is not installed
    kTimeout,
    kFailed,
};

enum class CipherState {
    kAbsent,  // there is no cipher folder
    kLocked,
    kUnlocked,  // mounted, and what mounted it answers
    kBroken,    // mounted, but what mounted it is gone or hangs; unmounting lazily helps
};

// What encrypted files are mounted for.
enum class CipherUse {
    kServe,
    kProve,  // to see whether a password opens them, while they may be mounted elsewhere
};

// A folder of encrypted files and the place where their plain form is mounted, by gocryptfs. The passwords go
// through a pipe: never into arguments, the environment, a file or a log. Every call becomes root for its own
// length, blocks at most for its deadline and a little, and never throws.
class CipherFolder {
public:
    // Where the cipher folder of the share with `token` is: in a hidden folder of its volume, which no share
    // can be named as, since those have no leading dot; only root can enter it. Renaming the share doesn't
    // move it.
    static std::string PathFor(const std::string& volume, const std::string& token);

    // The cipher folder, of the volume that holds `mountPath`, whose plain form is mounted there and in
    // sight; empty when none is. Asks the kernel's list of mounts only.
    static std::string PathBehind(const std::string& mountPath);

    // What of a file's bytes is plain: each block of so many plain bytes takes that many encrypted ones.
    static constexpr std::uint64_t kPlainBlock_bytes = 4096;
    static constexpr std::uint64_t kCipherBlock_bytes = 4128;

    // Whether this machine has what encryption takes.
    static bool IsPossible();
    // Whether `password` can be one: 1 to 1024 bytes without line ends and zero bytes.
    static bool IsPassword(const std::string& password);

    // Where cipher folders are mounted, sorted. None when the kernel's list can't be read.
    static std::vector<std::string> MountPoints();

    // Absolute paths without symbolic links in them.
    CipherFolder(std::string cipherPath, std::string mountPath);

    // Makes the cipher folder, which must be absent or empty; the folders above it are made too, for root
    // alone. The password opens it from now on. After a failure nothing of it is left.
    CipherEnd Init(const std::string& password) const;

    // Mounts the plain form at the mount path, an empty folder. All users see it, as its ACLs allow. Only one
    // process serves a folder's files at a time: what it inherits holds a lock on the folder while it lives.
    // One that is still starting, by a caller that was killed meanwhile, is waited for, and is then kMounted.
    CipherEnd Mount(const std::string& password, CipherUse use = CipherUse::kServe) const;

    // Unmounts; waits up to `patience` for those who use it. Then kBusy, or, with `isLazy`, detached: out of
    // sight at once, gone when its last user is.
    CipherEnd Unmount(std::chrono::milliseconds patience, bool isLazy) const;

    // The old password opens it no more when this is kDone, and still does otherwise.
    CipherEnd ChangePassword(const std::string& oldPassword, const std::string& newPassword) const;

    CipherState State() const;
    // False when an initialization was cut short, which nothing can be mounted from.
    bool IsComplete() const;

    const std::string& CipherPath() const { return m_cipherPath; }
    const std::string& MountPath() const { return m_mountPath; }

private:
    bool IsMounted() const;
    // kDone once the lock on the open cipher folder is had.
    CipherEnd WaitForTurn(int files) const;

    std::string m_cipherPath;
    std::string m_mountPath;
};

}  // namespace korv
