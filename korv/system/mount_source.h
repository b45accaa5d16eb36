#pragma once

#include <optional>
#include <string>

#include "korv/system/mount_failure.h"

// What a caller says about a remote folder, checked before anything of it reaches libmount or a helper.
namespace korv {

enum class RemoteType { kCifs, kNfs };

// "cifs" or "nfs".
const char* TextOf(RemoteType type);
std::optional<RemoteType> RemoteTypeOf(const std::string& text);

struct MountSource {
    std::string text;  // as mounts are listed: "//host/share/folder" or "host:/folder"
    std::string host;  // name or address; an IPv6 address without brackets
};

// Reads "//host/share[/folder]" (backslashes count as slashes) or "host:/folder", "[2001:db8::7]:/folder".
// None for a text of another form, with control characters, a comma (mount options are separated by it), a
// folder ".." or more than 1,024 bytes.
std::optional<MountSource> ParseMountSource(RemoteType type, const std::string& text);

struct MountAccount {
    std::string name;  // empty = as a guest; "DOMAIN\name" is understood
    std::string password;
};

// False for what the file that hands an account to the helper can't hold: control characters (with them line
// ends and NUL), a name of more than 256 or a password of more than 512 bytes.
bool IsUsableAccount(const MountAccount& account);

// Options as a caller wishes them.
//   wanted    "vers=3.0,ro": separated by commas; blanks around them don't count
//   version   NFS: "3", "4", "4.0", "4.1", "4.2" or empty
//   protocol  NFS: "tcp", "udp" or empty
struct MountWishes {
    RemoteType type = RemoteType::kCifs;
    std::string wanted;
    std::string version;
    std::string protocol;
};

// The wishes as options without blanks, separated by commas, or none when one of them is not allowed: only
// options from a list that cannot change who may do what on this machine (so no suid, dev, exec, uid,
// credentials, ...), each with a value of the right form, each once.
std::optional<std::string> AllowedOptions(const MountWishes& wishes);

// The port that the options, separated by commas, name, or that of the type (445, 2049).
int ServerPort(RemoteType type, const std::string& options);

}  // namespace korv
