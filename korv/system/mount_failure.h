#pragma once

#include <string>

// Why a remote folder could not be mounted, unmounted or mounted again. The numbers are the mount service's
// codes; include/error_table.h tells what each means and what to do about it.
namespace korv {

enum class MountFailure : int {
    kNone = 0,
    kBadSource = 410,
    kUnknownMount = 411,
    kFailed = 412,
    kBadMountPoint = 413,
    kBadAccountText = 414,
    kWrongAccount = 421,
    kUnknownHost = 422,
    kNoAnswer = 424,
    kRefused = 425,
    kNoSuchFolder = 427,
    kNotEmpty = 428,
    kMountPointTaken = 429,
    kNoFolder = 430,
    kNotOwner = 431,
    kMayNotWrite = 432,
    kAccessDenied = 433,
    kNotInShare = 434,
    kProtocol = 435,
    kBadOption = 436,
    kBusy = 438,
    kNoDriver = 439,
    kStale = 440,
    kTooSlow = 441,
};

// The cause behind what a mount helper wrote, by the kernel's error number in it ("mount error(13): ...") or
// by its words; kFailed for a text that tells none.
//   isCifs  with CIFS a refused permission means the account, with NFS this machine's address
MountFailure FailureOfHelper(bool isCifs, const std::string& output);

// The same for an error number.
MountFailure FailureOfErrno(bool isCifs, int error);

}  // namespace korv
