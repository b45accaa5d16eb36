#include "tests/fake/records.h"

#include <cstdio>

struct RecShareAccess {
    static void Fill(RecShare& share, const Json::Value& fields) {
        share.m_id = fields["id"].asInt();
        share.m_idOnRec = fields["idOnRec"].asInt();
        share.m_ownerRvId = fields["ownerRvId"].asInt();
        share.m_name = fields["name"].asString();
        share.m_path = fields["path"].asString();
        share.m_volume = fields["volume"].asString();
        share.m_description = fields["description"].asString();
        share.m_hidden = fields["hidden"].asBool();
        share.m_encType = static_cast<SHARE_ENC_TYPE>(fields["encType"].asInt());
        share.m_fsType = static_cast<_tag_FSTYPE>(fields["fsType"].asInt());
        share.m_mountType = static_cast<SHARE_MOUNT_TYPE>(fields["mountType"].asInt());
        share.m_mountSource = fields["mountSource"].asString();
        share.m_mountStatus = static_cast<SHARE_MOUNT_STATUS>(fields["mountStatus"].asInt());
        share.m_autoMount = fields["autoMount"].asBool();
        share.m_migrating = fields["migrating"].asBool();
        share.m_recLimitGB = fields["recLimitGB"].asInt();
        share.m_enableRecLimit = fields["enableRecLimit"].asBool();
        share.m_totalSizeMB = fields["totalSizeMB"].asUInt64();
    }
};

struct CameraAccess {
    static void Fill(Camera& camera, const Json::Value& fields) {
        camera.m_id = fields["id"].asInt();
        camera.m_ownerRvId = fields["ownerRvId"].asInt();
        camera.m_storagePath = fields["storagePath"].asString();
        camera.m_name = fields["name"].asString();
        camera.m_ip = fields["ip"].asString();
        camera.m_occupiedMB = fields["occupied"].asInt();
        camera.m_isRotatedBySpace = fields["isRotatedBySpace"].asBool();
        camera.m_rotationBySpaceMB = fields["rotationBySpace"].asInt();
    }
};

struct SlaveRVAccess {
    static void Fill(SlaveRV& server, const Json::Value& fields) {
        server.m_id = fields["id"].asInt();
        server.m_key = fields["key"].asString();
        server.m_enable = fields["enable"].asBool();
        server.m_status = static_cast<RV_STATUS>(fields["status"].asInt());
    }
};

namespace fake {

namespace {

template <std::size_t Size>
void Copy(char (&to)[Size], const Json::Value& from) {
    snprintf(to, Size, "%s", from.asCString());
}

Json::Value Complete(const Json::Value& fields, Json::Value sample) {
    for (const std::string& name : fields.getMemberNames()) {
        sample[name] = fields[name];
    }
    return sample;
}

}  // namespace

bool IsSameKind(const Json::Value& value, const Json::Value& sample) {
    const auto isWhole = [](const Json::Value& number) {
        return number.type() == Json::intValue || number.type() == Json::uintValue;
    };
    return value.type() == sample.type() || (isWhole(value) && isWhole(sample));
}

Json::Value RecShareSample() {
    constexpr int kDefaultRecLimitGB = 100;
    Json::Value sample;
    for (const char* name :
         {"id", "idOnRec", "ownerRvId", "encType", "mountType", "mountStatus", "totalSizeMB"}) {
        sample[name] = 0;
    }
    for (const char* name : {"name", "path", "volume", "description", "mountSource"}) {
        sample[name] = "";
    }
    for (const char* name : {"hidden", "autoMount", "migrating", "enableRecLimit"}) {
        sample[name] = false;
    }
    sample["fsType"] = static_cast<int>(FSTYPE_UNKNOWN);
    sample["recLimitGB"] = kDefaultRecLimitGB;
    return sample;
}

Json::Value CameraSample() {
    Json::Value sample;
    sample["id"] = 0;
    sample["ownerRvId"] = 0;
    sample["storagePath"] = "";
    sample["name"] = "";
    sample["ip"] = "";
    sample["occupied"] = 0;
    sample["isRotatedBySpace"] = false;
    sample["rotationBySpace"] = 0;
    return sample;
}

Json::Value FolderSample() {
    constexpr int kReadAndWrite = 3;
    Json::Value sample;
    sample["name"] = "";
    sample["volume"] = "/volume1";
    sample["rights"] = kReadAndWrite;
    sample["cow"] = false;
    return sample;
}

Json::Value ApplicationSample() {
    Json::Value sample;
    sample["id"] = 0;
    sample["name"] = Json::Value(Json::objectValue);
    sample["compatible"] = true;
    sample["enabled"] = true;
    return sample;
}

Json::Value PartitionSample() {
    Json::Value sample;
    sample["state"] = static_cast<int>(KORV_EXT_PARTITION_READY);
    for (const char* name : {"fs", "text", "share", "path"}) {
        sample[name] = "";
    }
    return sample;
}

Json::Value SlaveRVSample() {
    Json::Value sample;
    sample["id"] = 0;
    sample["key"] = "";
    sample["enable"] = true;
    sample["status"] = static_cast<int>(RV_STATUS_ONLINE);
    sample["failover"] = false;
    return sample;
}

std::string CheckRecord(const Json::Value& fields, const Json::Value& sample) {
    if (!fields.isObject()) {
        return "a record must be a mapping";
    }
    for (const std::string& name : fields.getMemberNames()) {
        if (!sample.isMember(name)) {
            return "a record has no field '" + name + "'";
        }
        if (!IsSameKind(fields[name], sample[name])) {
            return "field '" + name + "' has a value of the wrong type";
        }
    }
    return "";
}

void FillRecShare(RecShare& share, const Json::Value& fields) {
    RecShareAccess::Fill(share, Complete(fields, RecShareSample()));
}

Camera ToCamera(const Json::Value& fields) {
    Camera camera;
    CameraAccess::Fill(camera, Complete(fields, CameraSample()));
    return camera;
}

SlaveRV ToSlaveRV(const Json::Value& fields) {
    SlaveRV server;
    SlaveRVAccess::Fill(server, Complete(fields, SlaveRVSample()));
    return server;
}

KORVEXTPARTITION ToPartition(const Json::Value& fields) {
    const Json::Value complete = Complete(fields, PartitionSample());
    KORVEXTPARTITION partition{};
    partition.state = complete["state"].asInt();
    Copy(partition.fsName, complete["fs"]);
    Copy(partition.text, complete["text"]);
    Copy(partition.shareName, complete["share"]);
    Copy(partition.mountPath, complete["path"]);
    return partition;
}

}  // namespace fake
