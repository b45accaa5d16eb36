#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "platform/korv/fs_type.h"

// The recording share record and its store. Implemented in pavane/store/rec_share*.cpp.

enum SHARE_ENC_TYPE : int {
    SHARE_ENC_NONE = 0,
    SHARE_ENC_LOCKED = 1,    // encrypted and not mounted
    SHARE_ENC_UNLOCKED = 2,  // encrypted and usable
};

enum SHARE_MOUNT_TYPE : int {
    SHARE_MOUNT_LOCAL = 0,
    SHARE_MOUNT_NFS = 1,
    SHARE_MOUNT_CIFS = 2,
};

enum SHARE_MOUNT_STATUS : int {
    SHARE_MOUNT_NORMAL = 0,
    SHARE_MOUNT_FAILED = 1,
};

// A shared folder that the application has adopted as a place for recordings. A value type; a fresh one
// describes a local share: mount type 0, no mount source, no automatic mount.
class RecShare {
public:
    RecShare();

    // Fills the record from this server's store: 0 on success, -1 when there is none or it cannot be read.
    int Load(int id);
    // The record of a recording server's share, by its id there and the server's id. Results as Load.
    int LoadByIdOnRec(int idOnRec, int ownerRvId);
    // The record of the folder at `path` of the server `ownerRvId`, byte for byte but for trailing
    // slashes. 0, or non-zero on failure.
    int LoadByPath(const std::string& path, int ownerRvId);
    // Inserts the record (id 0) or updates it. 0 on success; an insert sets the id. Another record that
    // already holds the pair (owner, path) is a failure and changes nothing.
    // A new name or path is taken over by all else in the store that names the folder, and by its service
    // links.
    int Save();

    // Key in this server's store; 0 before the first Save.
    int GetId() const;
    // Key in the store of the recording server that owns the share; 0 for this server's own.
    int GetIdOnRec() const;
    // The recording server that owns the share; 0 = this server.
    int GetOwnerRvId() const;
    const std::string& GetName() const;
    // Absolute path of the folder, no trailing slash; unique per owner.
    const std::string& GetPath() const;
    // Name of the volume that holds the folder, without the leading slash.
    const std::string& GetVolume() const;
    const std::string& GetDescription() const;
    bool GetHidden() const;
    SHARE_ENC_TYPE GetEncType() const;
    _tag_FSTYPE GetFsType() const;
    SHARE_MOUNT_TYPE GetMountType() const;
    const std::string& GetMountSource() const;
    SHARE_MOUNT_STATUS GetMountStatus() const;
    bool GetAutoMount() const;
    // True while recordings are being moved to or from the share.
    bool GetMigrating() const;
    int GetRecLimitGB() const;
    bool IsEnableRecLimit() const;
    std::uint64_t GetTotalSizeMB() const;

    void SetIdOnRec(int idOnRec);
    void SetOwnerRvId(int ownerRvId);
    void SetName(const std::string& name);
    void SetPath(const std::string& path);  // drops trailing slashes
    void SetVolume(const std::string& volume);
    void SetDescription(const std::string& description);
    void SetHidden(bool hidden);
    void SetEncType(SHARE_ENC_TYPE encType);
    void SetFsType(_tag_FSTYPE fsType);
    void SetMountType(SHARE_MOUNT_TYPE mountType);
    void SetMountSource(const std::string& mountSource);
    void SetAutoMount(bool autoMount);
    void SetMigrating(bool migrating);
    void SetRecLimitGB(int recLimitGB);
    void EnableRecLimit(bool enable);
    void SetTotalSizeMB(std::uint64_t totalSizeMB);

private:
    friend struct RecShareAccess;  // the platform's own way to the fields

    int m_id = 0;
    int m_idOnRec = 0;
    int m_ownerRvId = 0;
    std::string m_name;
    std::string m_path;
    std::string m_volume;
    std::string m_description;
    bool m_hidden = false;
    SHARE_ENC_TYPE m_encType = SHARE_ENC_NONE;
    _tag_FSTYPE m_fsType = FSTYPE_UNKNOWN;
    SHARE_MOUNT_TYPE m_mountType = SHARE_MOUNT_LOCAL;
    std::string m_mountSource;
    SHARE_MOUNT_STATUS m_mountStatus = SHARE_MOUNT_NORMAL;
    bool m_autoMount = false;
    bool m_migrating = false;
    int m_recLimitGB = 100;
    bool m_enableRecLimit = false;
    std::uint64_t m_totalSizeMB = 0;
};

// The records of the server `rvId`, by ascending id. 0 gives every record of the store: this server's own
// and, on a host, those kept for its recording servers. An empty list also on failure (the platform logs it).
std::list<RecShare> LoadRecShareFromDB(int rvId);

// Deletes the records with these ids, all or none; an id without a record is no failure. 0 on success.
int DelRecShareById(const std::list<int>& ids);

// Implemented in pavane/recorder/share_status.cpp. Whether the recording share is in order: 0 = its folder is
// there, mounted if it is remote, unlocked and writable by the recorder; non-zero otherwise, also when there
// is no such share.
int CheckRecShareStatus(int id);

// The paths of the recording shares that the server `rvId` owns. Empty on failure.
std::list<std::string> LoadRecSharePath(int rvId);

// Records a changed state of a remote mount in the store and in `share`. Failures are logged.
//   refreshFacts  true: when the mount is normal, also read the file system's type and size anew
//   onlyIfChanged true: leave the store alone when the state is what it was
void UpdateShareMountInfo(SHARE_MOUNT_STATUS status, RecShare& share, bool refreshFacts, bool onlyIfChanged);
