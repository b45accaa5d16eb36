// The record and its store. Setters are heard when the record is saved: in their order, with their values.

#include "platform/pavane/rec_share.h"

#include <map>
#include <utility>

#include "tests/fake/director.h"
#include "tests/fake/records.h"

namespace {

// By record, since its last load or save. A copy of a record starts without any.
std::map<const RecShare*, Json::Value>& Setters() {
    static std::map<const RecShare*, Json::Value> setters;
    return setters;
}

template <class Value>
void Note(const RecShare* share, const char* setter, const Value& value) {
    Setters()[share].append(fake::Args(setter, value));
}

int LoadFrom(const Json::Value& reply, RecShare& share) {
    Setters().erase(&share);
    const int result = reply["result"].asInt();
    if (result == 0) {
        fake::FillRecShare(share, reply["record"]);
    }
    return result;
}

}  // namespace

RecShare::RecShare() { Setters().erase(this); }

int RecShare::Load(int id) { return LoadFrom(fake::Ask("RecShare::Load", fake::Args(id)), *this); }

int RecShare::LoadByIdOnRec(int idOnRec, int ownerRvId) {
    return LoadFrom(fake::Ask("RecShare::LoadByIdOnRec", fake::Args(idOnRec, ownerRvId)), *this);
}

int RecShare::LoadByPath(const std::string& path, int ownerRvId) {
    return LoadFrom(fake::Ask("RecShare::LoadByPath", fake::Args(path, ownerRvId)), *this);
}

int RecShare::Save() {
    Json::Value setters(Json::arrayValue);
    if (const auto found = Setters().find(this); found != Setters().end()) {
        setters = std::exchange(found->second, Json::Value());
        Setters().erase(found);
    }
    const Json::Value reply = fake::Ask("RecShare::Save", fake::Args(m_id, setters));
    const int result = reply["result"].asInt();
    if (result == 0 && m_id == 0) {
        m_id = reply["id"].asInt();
    }
    return result;
}

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
SHARE_MOUNT_STATUS RecShare::GetMountStatus() const { return m_mountStatus; }
bool RecShare::GetAutoMount() const { return m_autoMount; }
bool RecShare::GetMigrating() const { return m_migrating; }
int RecShare::GetRecLimitGB() const { return m_recLimitGB; }
bool RecShare::IsEnableRecLimit() const { return m_enableRecLimit; }
std::uint64_t RecShare::GetTotalSizeMB() const { return m_totalSizeMB; }

void RecShare::SetIdOnRec(int idOnRec) { Note(this, "SetIdOnRec", m_idOnRec = idOnRec); }
void RecShare::SetOwnerRvId(int ownerRvId) { Note(this, "SetOwnerRvId", m_ownerRvId = ownerRvId); }
void RecShare::SetName(const std::string& name) { Note(this, "SetName", m_name = name); }
void RecShare::SetPath(const std::string& path) { Note(this, "SetPath", m_path = path); }
void RecShare::SetVolume(const std::string& volume) { Note(this, "SetVolume", m_volume = volume); }
void RecShare::SetDescription(const std::string& text) { Note(this, "SetDescription", m_description = text); }
void RecShare::SetHidden(bool hidden) { Note(this, "SetHidden", m_hidden = hidden); }
void RecShare::SetEncType(SHARE_ENC_TYPE encType) {
    Note(this, "SetEncType", static_cast<int>(m_encType = encType));
}
void RecShare::SetFsType(_tag_FSTYPE fsType) { Note(this, "SetFsType", static_cast<int>(m_fsType = fsType)); }
void RecShare::SetMountType(SHARE_MOUNT_TYPE mountType) {
    Note(this, "SetMountType", static_cast<int>(m_mountType = mountType));
}
void RecShare::SetMountSource(const std::string& source) {
    Note(this, "SetMountSource", m_mountSource = source);
}
void RecShare::SetAutoMount(bool autoMount) { Note(this, "SetAutoMount", m_autoMount = autoMount); }
void RecShare::SetMigrating(bool migrating) { Note(this, "SetMigrating", m_migrating = migrating); }
void RecShare::SetRecLimitGB(int recLimitGB) { Note(this, "SetRecLimitGB", m_recLimitGB = recLimitGB); }
void RecShare::EnableRecLimit(bool enable) { Note(this, "EnableRecLimit", m_enableRecLimit = enable); }
void RecShare::SetTotalSizeMB(std::uint64_t totalSizeMB) {
    Note(this, "SetTotalSizeMB", Json::UInt64{m_totalSizeMB = totalSizeMB});
}

std::list<RecShare> LoadRecShareFromDB(int rvId) {
    std::list<RecShare> shares;
    for (const Json::Value& fields : fake::Ask("LoadRecShareFromDB", fake::Args(rvId))) {
        fake::FillRecShare(shares.emplace_back(), fields);
    }
    return shares;
}

std::list<std::string> LoadRecSharePath(int rvId) {
    std::list<std::string> paths;
    for (const Json::Value& path : fake::Ask("LoadRecSharePath", fake::Args(rvId))) {
        paths.push_back(path.asString());
    }
    return paths;
}

int DelRecShareById(const std::list<int>& ids) {
    Json::Value list(Json::arrayValue);
    for (const int id : ids) {
        list.append(id);
    }
    return fake::Ask("DelRecShareById", fake::Args(list)).asInt();
}

void UpdateShareMountInfo(SHARE_MOUNT_STATUS status, RecShare& share, bool refreshFacts, bool onlyIfChanged) {
    fake::Ask("UpdateShareMountInfo",
              fake::Args(static_cast<int>(status), share.GetId(), refreshFacts, onlyIfChanged));
}
