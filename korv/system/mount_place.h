#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "korv/system/file_descriptor.h"
#include "korv/system/mount_failure.h"
#include "korv/system/mount_record.h"
#include "korv/system/share_store.h"

// Folders inside shares on which remote folders are mounted. Everything but FindMountPlaces runs as root, in
// a child: a path may lead along a server that is gone. No link is ever followed.
namespace korv {

struct MountPlace {
    ShareRow share;
    std::string below;  // "cameras/door", below the share's folder

    std::string Path() const { return share.Path() + "/" + below; }
};

// The folder that `path` means: below a volume ("/volume1/video/door") or, without the volume, below a share
// ("/video/door"). Where a share has a volume's name both readings may exist; the first is the one with the
// volume. Trailing slashes don't count.
//   failure  out, when nothing is found: kBadMountPoint for a text that is no plain path (control characters,
//            backslashes, empty, "." or ".." parts, parts of more than 255 bytes), else kNotInShare
std::vector<MountPlace> FindMountPlaces(const std::string& path, MountFailure& failure);

// Who asks for a mount.
struct MountCaller {
    std::string name;
    bool isAdmin = false;
};

// What has been done to a folder, so that it can be undone.
struct MountFolderState {
    bool isMade = false;
    MountGuard guard = MountGuard::kNone;
    mode_t guardMode = 0;
};

// A folder that is ready to be mounted on, or why it is not.
struct OpenedPlace {
    FileDescriptor folder;
    MountFailure failure = MountFailure::kNone;
};

// What a first mount may do to the folder, for whoever has to undo it should its maker die: make it, when it
// is missing, and take away its mode.
MountFolderState ForeseeFolderState(const MountPlace& place);

// Makes the folder ready for a first mount: it lies on the share's own file system, the caller may write into
// the share and into the folder (or the one above, when it has to be made), it is empty and from now on
// guarded.
//   state  in/out, follows every change at once: whoever kills the work can see how far it came
OpenedPlace PrepareMountFolder(const MountPlace& place, const MountCaller& caller, MountFolderState& state);

// Opens the folder for a later mount and guards it anew if need be. kNotEmpty when something lies in it after
// all, which a mount would cover.
OpenedPlace ReopenMountFolder(const MountPlace& place, MountFolderState& state);

// Takes the guard away, whether or not it is there: kNoRights stands for either kind, and gives the folder
// its mode back. Takes the folder away too when it was made for the mount and is empty.
void ReleaseMountFolder(const MountPlace& place, const MountFolderState& state);

// Opens the folder above the mount point, so that a mount can be taken away without looking into it.
FileDescriptor OpenAbove(const MountPlace& place);

// The last part of the mount point's path.
std::string LastPart(const std::string& path);

}  // namespace korv
