#include "platform/pavane/shared_folder_storage.h"

decltype(SharedFolderStorage::m_DBAccess) SharedFolderStorage::m_DBAccess(PVDB::DB_DEFAULT,
                                                                          "shared_folder_storage");
