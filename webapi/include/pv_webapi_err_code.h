#pragma once

// The codes that the methods of this module answer. Codes of other web APIs that are passed through unchanged
// have no name here.
enum PV_WEBAPI_ERR_CODE : int {
    PV_WEBAPI_ERR_NONE = 0,
    PV_WEBAPI_ERR_NO_PRIVILEGE = 105,
    PV_WEBAPI_ERR_OPERATION_FAILED = 400,
    PV_WEBAPI_ERR_BAD_PARAMETER = 401,  // also: no such method
    PV_WEBAPI_ERR_NOT_A_SLAVE = 405,
    PV_WEBAPI_ERR_RV_UNREACHABLE = 406,
    PV_WEBAPI_ERR_SHARE_FAILED = 442,
    PV_WEBAPI_ERR_SHARE_EXISTS = 443,
    PV_WEBAPI_ERR_SHARE_IN_USE = 445,
    PV_WEBAPI_ERR_SHARE_MIGRATING = 449,
    PV_WEBAPI_ERR_MOUNT_POINT = 484,
    PV_WEBAPI_ERR_NOT_IN_SHARE = 485,  // 486 and 491 to 506: the mount service's, see webapi/share/mount.cpp
    PV_WEBAPI_ERR_SHARE_ARCHIVED = 525,
    PV_WEBAPI_ERR_SHARE_ENCRYPTION = 526,
    PV_WEBAPI_ERR_KEY_WITHOUT_SHARE = 3326,
};

// What a peer answers when it lacks the API or its version.
inline constexpr int kPeerLacksApi = 102;

// What the NAS's share service answers when it refuses a folder.
inline constexpr int kShareServiceNameTaken = 3301;
inline constexpr int kShareServiceEncryption = 3328;
