#pragma once

namespace korv {

// What the share services answer; include/error_table.h tells what each means.
enum ShareError : int {
    kShareFailed = 3300,
    kShareNameTaken = 3301,
    kShareNameRefused = 3302,
    kShareUnknown = 3303,
    kShareVolumeUnusable = 3304,
    kShareInUse = 3305,
    kShareNoSpace = 3306,
    kSharePrincipalUnknown = 3307,
    kShareRightRefused = 3308,
    kSharePrincipalKindUnknown = 3309,
    kShareEncryptionRefused = 3328,
    kShareNotEncrypted = 3329,
    kShareKeyOfAnother = 3330,
};

enum JobError : int {
    kJobUnknown = 3314,
    kJobTooLate = 3315,
};

enum AppPrivilegeError : int {
    kAppPrivilegeAccountUnknown = 3310,
    kAppPrivilegeAppRefused = 3311,
    kAppPrivilegeRangeRefused = 3312,
    kAppPrivilegeUnknown = 3313,
};

}  // namespace korv
