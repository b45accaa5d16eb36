#pragma once

#include <string>

#include "include/dbmapping.h"

// A row of the table that tells which application uses which shared folder.
// The data access object is defined in pavane/store/shared_folder_storage.cpp.
struct SharedFolderStorage {
    std::string name;
    int shareId = 0;
    int applicationId = 0;

    static PVDB::DBMapping<SharedFolderStorage, PVDB::Column<"name", &SharedFolderStorage::name>,
                           PVDB::Column<"share_id", &SharedFolderStorage::shareId>,
                           PVDB::Column<"application_id", &SharedFolderStorage::applicationId>>
        m_DBAccess;
};
