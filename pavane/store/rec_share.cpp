// The fields of a recording share record.

#include "platform/pavane/rec_share.h"

#include "include/trailing_slashes.h"

RecShare::RecShare() = default;

int RecShare::GetId() const { return m_id; }
int RecShare::GetIdOnRec() const { return m_idOnRec; }
int RecShare::GetOwnerRvId() const { return m_ownerRvId; }
const std::string& RecShare::GetName() const { return m_name; }
const std::string& RecShare::GetPath() const { return m_path; }
const std::string& RecShare::GetVolume() const { return m_volume; }
const std::string& RecShare::GetDescription() const { return m_description; }
bool RecShare::GetHidden() const { return m_hidden; }
SHARE_ENC_TYPE RecShare::GetEncType() const { return m_encType; }
_tag_FSTYPE RecShare::GetFsType() const { return m_fsType; }
SHARE_MOUNT_TYPE RecShare::GetMountType() const { return m_mountType; }
const std::string& RecShare::GetMountSource() const { return m_mountSource; }
bool RecShare::GetAutoMount() const { return m_autoMount; }
bool RecShare::GetMigrating() const { return m_migrating; }
int RecShare::GetRecLimitGB() const { return m_recLimitGB; }
std::uint64_t RecShare::GetTotalSizeMB() const { return m_totalSizeMB; }
SHARE_MOUNT_STATUS RecShare::GetMountStatus() const { return m_mountStatus; }
bool RecShare::IsEnableRecLimit() const { return m_enableRecLimit; }

void RecShare::SetIdOnRec(int idOnRec) { m_idOnRec = idOnRec; }
void RecShare::SetOwnerRvId(int ownerRvId) { m_ownerRvId = ownerRvId; }
void RecShare::SetName(const std::string& name) { m_name = name; }
void RecShare::SetPath(const std::string& path) { m_path = WithoutTrailingSlashes(path); }
void RecShare::SetVolume(const std::string& volume) { m_volume = volume; }
void RecShare::SetDescription(const std::string& description) { m_description = description; }
void RecShare::SetHidden(bool hidden) { m_hidden = hidden; }
void RecShare::SetEncType(SHARE_ENC_TYPE encType) { m_encType = encType; }
void RecShare::SetFsType(_tag_FSTYPE fsType) { m_fsType = fsType; }
void RecShare::SetMountType(SHARE_MOUNT_TYPE mountType) { m_mountType = mountType; }
void RecShare::SetMountSource(const std::string& mountSource) { m_mountSource = mountSource; }
void RecShare::SetAutoMount(bool autoMount) { m_autoMount = autoMount; }
void RecShare::SetMigrating(bool migrating) { m_migrating = migrating; }
void RecShare::SetRecLimitGB(int recLimitGB) { m_recLimitGB = recLimitGB; }
void RecShare::SetTotalSizeMB(std::uint64_t totalSizeMB) { m_totalSizeMB = totalSizeMB; }
void RecShare::EnableRecLimit(bool enable) { m_enableRecLimit = enable; }
