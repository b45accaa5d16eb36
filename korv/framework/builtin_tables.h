#pragma once

#include <array>

#include "platform/korv/api_table.h"

// The method tables that libkorv itself brings; each is defined beside its methods.
namespace korv {

const KORV::APITableRow* SessionTable();          // korv/framework/session_api.cpp
const KORV::APITableRow* ShareTable();            // korv/services/share_api.cpp
const KORV::APITableRow* SharePermissionTable();  // korv/services/share_permission_api.cpp
const KORV::APITableRow* AppPrivilegeTable();     // korv/services/app_privilege_api.cpp
const KORV::APITableRow* VolumeTable();           // korv/services/volume_api.cpp
const KORV::APITableRow* MountTable();            // korv/services/mount_api.cpp
const KORV::APITableRow* JobTable();              // korv/services/job_api.cpp
const KORV::APITableRow* ShareCryptoTable();      // korv/services/crypto_api.cpp

inline std::array<const KORV::APITableRow*, 8> BuiltInTables() {
    return {SessionTable(), ShareTable(), SharePermissionTable(), AppPrivilegeTable(), VolumeTable(),
            MountTable(),   JobTable(),   ShareCryptoTable()};
}

}  // namespace korv
