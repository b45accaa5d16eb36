#include "pavane/cms/record_drift.h"

#include <deque>
#include <exception>
#include <map>
#include <string>

#include <soci/soci.h>

#include "pavane/log_line.h"
#include "pavane/recorder/share_state.h"
#include "pavane/store/database.h"
#include "pavane/store/rec_share_store.h"

namespace pavane {

namespace {

constexpr const char* kSource = "pavane/cms/record_drift";

// One value of a record that both sides keep.
struct Field {
    const char* name;
    Json::Value (*get)(const RecShare& share);
    void (*set)(RecShare& share, const Json::Value& value);
};

const Field kFields[] = {
    {"name", [](const RecShare& share) { return Json::Value(share.GetName()); },
     [](RecShare& share, const Json::Value& value) { share.SetName(value.asString()); }},
    {"path", [](const RecShare& share) { return Json::Value(share.GetPath()); },
     [](RecShare& share, const Json::Value& value) { share.SetPath(value.asString()); }},
    {"volume", [](const RecShare& share) { return Json::Value(share.GetVolume()); },
     [](RecShare& share, const Json::Value& value) { share.SetVolume(value.asString()); }},
    {"description", [](const RecShare& share) { return Json::Value(share.GetDescription()); },
     [](RecShare& share, const Json::Value& value) { share.SetDescription(value.asString()); }},
    {"hidden", [](const RecShare& share) { return Json::Value(share.GetHidden()); },
     [](RecShare& share, const Json::Value& value) { share.SetHidden(value.asBool()); }},
    {"encType", [](const RecShare& share) { return Json::Value(static_cast<int>(share.GetEncType())); },
     [](RecShare& share, const Json::Value& value) {
         share.SetEncType(static_cast<SHARE_ENC_TYPE>(value.asInt()));
     }},
    {"fsType", [](const RecShare& share) { return Json::Value(static_cast<int>(share.GetFsType())); },
     [](RecShare& share, const Json::Value& value) {
         share.SetFsType(static_cast<_tag_FSTYPE>(value.asInt()));
     }},
    {"mountType", [](const RecShare& share) { return Json::Value(static_cast<int>(share.GetMountType())); },
     [](RecShare& share, const Json::Value& value) {
         share.SetMountType(static_cast<SHARE_MOUNT_TYPE>(value.asInt()));
     }},
    {"mountSource", [](const RecShare& share) { return Json::Value(share.GetMountSource()); },
     [](RecShare& share, const Json::Value& value) { share.SetMountSource(value.asString()); }},
    {"mountStatus",
     [](const RecShare& share) { return Json::Value(static_cast<int>(share.GetMountStatus())); },
     [](RecShare& share, const Json::Value& value) {
         SetMountStatus(share, static_cast<SHARE_MOUNT_STATUS>(value.asInt()));
     }},
    {"autoMount", [](const RecShare& share) { return Json::Value(share.GetAutoMount()); },
     [](RecShare& share, const Json::Value& value) { share.SetAutoMount(value.asBool()); }},
    {"migrating", [](const RecShare& share) { return Json::Value(share.GetMigrating()); },
     [](RecShare& share, const Json::Value& value) { share.SetMigrating(value.asBool()); }},
    {"recLimitGB", [](const RecShare& share) { return Json::Value(share.GetRecLimitGB()); },
     [](RecShare& share, const Json::Value& value) { share.SetRecLimitGB(value.asInt()); }},
    {"enableRecLimit", [](const RecShare& share) { return Json::Value(share.IsEnableRecLimit()); },
     [](RecShare& share, const Json::Value& value) { share.EnableRecLimit(value.asBool()); }},
    {"totalSizeMB", [](const RecShare& share) { return Json::Value(Json::UInt64{share.GetTotalSizeMB()}); },
     [](RecShare& share, const Json::Value& value) { share.SetTotalSizeMB(value.asUInt64()); }},
};

// The host's record of the share that the recording server answers as `record`.
RecShare RecordAtHost(int rvId, const Json::Value& record) {
    RecShare share;
    share.SetOwnerRvId(rvId);
    share.SetIdOnRec(record["id"].asInt());
    for (const Field& field : kFields) {
        field.set(share, record[field.name]);
    }
    return share;
}

// Gives each drift the first record of `known` with the same key as what is wanted, and takes it out of
// `known`.
template <typename Key>
void TakeMatches(std::vector<Drift>& drifts, std::list<RecShare>& known, Key (*keyOf)(const RecShare&)) {
    std::map<Key, std::deque<std::list<RecShare>::iterator>> places;
    for (auto share = known.begin(); share != known.end(); ++share) {
        places[keyOf(*share)].push_back(share);
    }
    for (Drift& drift : drifts) {
        const auto found =
            drift.kind != DriftKind::kMissing ? places.end() : places.find(keyOf(drift.wanted));
        if (found != places.end() && !found->second.empty()) {
            drift.kind = DriftKind::kDiffers;
            drift.atHost = *found->second.front();
            known.erase(found->second.front());
            found->second.pop_front();
        }
    }
}

std::vector<std::string> DifferingFields(const RecShare& first, const RecShare& second) {
    std::vector<std::string> names;
    if (first.GetIdOnRec() != second.GetIdOnRec()) {
        names.emplace_back("idOnRec");
    }
    for (const Field& field : kFields) {
        if (field.get(first) != field.get(second)) {
            names.emplace_back(field.name);
        }
    }
    return names;
}

void DeleteRecord(int id) {
    AppDatabase().Session() << "delete from recording_share where id = :id", soci::use(id);
}

// The record that the host keeps afterwards.
RecShare Repaired(const Drift& drift) {
    if (drift.kind == DriftKind::kMissing) {
        return drift.wanted;
    }
    RecShare share = drift.atHost;
    share.SetIdOnRec(drift.wanted.GetIdOnRec());
    for (const Field& field : kFields) {
        field.set(share, field.get(drift.wanted));
    }
    return share;
}

}  // namespace

Json::Value OwnRecords() {
    Json::Value records(Json::arrayValue);
    for (const RecShare& share : ReadRecSharesInStep(0)) {
        if (share.GetOwnerRvId() != 0) {
            continue;
        }
        Json::Value record(Json::objectValue);
        record["id"] = share.GetId();
        for (const Field& field : kFields) {
            record[field.name] = field.get(share);
        }
        records.append(record);
    }
    return records;
}

// By id first: a path may be another record's by now. By path those whose id the host never learnt.
std::vector<Drift> FindDrift(int rvId, const Json::Value& answer) {
    std::list<RecShare> known = ReadRecShares(rvId);
    std::vector<Drift> drifts;
    for (const Json::Value& record : answer) {
        drifts.emplace_back().wanted = RecordAtHost(rvId, record);
    }
    TakeMatches<int>(drifts, known, [](const RecShare& share) { return share.GetIdOnRec(); });
    TakeMatches<std::string>(drifts, known, [](const RecShare& share) { return share.GetPath(); });
    for (Drift& drift : drifts) {
        if (drift.kind == DriftKind::kDiffers) {
            drift.fields = DifferingFields(drift.atHost, drift.wanted);
        }
    }
    std::erase_if(
        drifts, [](const Drift& drift) { return drift.kind == DriftKind::kDiffers && drift.fields.empty(); });
    for (const RecShare& share : known) {
        Drift drift;
        drift.kind = DriftKind::kStale;
        drift.atHost = share;
        drifts.push_back(drift);
    }
    return drifts;
}

namespace {

// Where a record waits while its path may still be another's. No folder is there; the server's id for the
// share still finds it, so that a repair that ends halfway can be made again.
bool SetAside(const Drift& drift) {
    RecShare share = drift.atHost;
    share.SetPath("/.repair/" + std::to_string(share.GetId()));
    return share.Save() == 0;
}

}  // namespace

bool RepairDrift(const std::vector<Drift>& drifts) {
    bool isDone = true;
    // First what goes: its path may be another's by now.
    for (const Drift& drift : drifts) {
        if (drift.kind == DriftKind::kStale) {
            try {
                DeleteRecord(drift.atHost.GetId());
            } catch (const std::exception& failure) {
                PV_LOG_LINE(kSource, "Failed to delete a stale record: %s\n",
                            DescribeFailure(failure).c_str());
                isDone = false;
            }
        }
    }
    // Shares may have exchanged their paths, or passed them on in a row.
    for (const Drift& drift : drifts) {
        if (drift.kind == DriftKind::kDiffers && drift.atHost.GetPath() != drift.wanted.GetPath()) {
            isDone = SetAside(drift) && isDone;
        }
    }
    for (const DriftKind kind : {DriftKind::kDiffers, DriftKind::kMissing}) {
        for (const Drift& drift : drifts) {
            if (drift.kind == kind) {
                RecShare share = Repaired(drift);
                isDone = share.Save() == 0 && isDone;
            }
        }
    }
    return isDone;
}

}  // namespace pavane
