#include "platform/pavane/camera.h"

#include <exception>

#include <soci/soci.h>

#include "pavane/log_line.h"
#include "pavane/recorder/camera_store.h"
#include "pavane/store/database.h"

namespace {

constexpr const char* kSource = "pavane/recorder/camera";

}  // namespace

struct CameraAccess {
    static void Set(Camera& camera, int id, int ownerRvId, const std::string& storagePath) {
        camera.m_id = id;
        camera.m_ownerRvId = ownerRvId;
        camera.m_storagePath = storagePath;
    }

    static Camera FromRecord(const pavane::CameraRecord& record) {
        Camera camera;
        Set(camera, record.id, record.ownerRvId, record.recordingPath);
        camera.m_name = record.name;
        camera.m_ip = record.ip;
        camera.m_occupiedMB = record.occupiedMB;
        camera.m_isRotatedBySpace = record.rotatedBySpace != 0;
        camera.m_rotationBySpaceMB = record.rotationBySpaceMB;
        return camera;
    }
};

Camera::Camera() = default;
int Camera::GetId() const { return m_id; }
int Camera::GetOwnerRvId() const { return m_ownerRvId; }
const std::string& Camera::GetStoragePath() const { return m_storagePath; }
const std::string& Camera::GetName() const { return m_name; }
const std::string& Camera::GetIp() const { return m_ip; }
int Camera::GetOccupied() const { return m_occupiedMB; }
bool Camera::IsRotatedBySpace() const { return m_isRotatedBySpace; }
int Camera::GetRotationBySpace() const { return m_rotationBySpaceMB; }

// Reads the three columns that one index holds, in that index's order, and nothing else.
std::list<Camera> CamGetList(const CamFilterRule& filter, int& count, bool /*withStatus*/) {
    std::list<Camera> cameras;
    count = 0;
    try {
        const bool any = filter.ownerRvId == CamFilterRule::kAnyRv;
        soci::session& session = pavane::AppDatabase().Session();
        int id = 0;
        int owner = 0;
        std::string path;
        auto bind = (session.prepare << "select id, owner_rv_id, recording_path from camera "
                                     << (any ? "" : "where owner_rv_id = :owner ") << "order by id",
                     soci::into(id), soci::into(owner), soci::into(path));
        if (!any) {
            bind, soci::use(filter.ownerRvId);
        }
        soci::statement statement(bind);
        for (bool more = statement.execute(true); more; more = statement.fetch()) {
            CameraAccess::Set(cameras.emplace_back(), id, owner, path);
        }
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to list the cameras: %s\n", pavane::DescribeFailure(failure).c_str());
        cameras.clear();
    }
    count = static_cast<int>(cameras.size());
    return cameras;
}

// Every registered camera is switched on, none is kept after its removal, and there are no groups.
std::list<Camera> GetCamLocalList(bool /*enabledOnly*/, const std::string& name, const std::string& group,
                                  bool /*withStatus*/, bool /*withDeleted*/) {
    std::list<Camera> cameras;
    if (!group.empty()) {
        return cameras;
    }
    try {
        int id = 0;
        std::string path;
        auto bind = (pavane::AppDatabase().Session().prepare
                         << "select id, recording_path from camera where owner_rv_id = 0 "
                         << (name.empty() ? "" : "and name = :name ") << "order by id",
                     soci::into(id), soci::into(path));
        if (!name.empty()) {
            bind, soci::use(name);
        }
        soci::statement statement(bind);
        for (bool more = statement.execute(true); more; more = statement.fetch()) {
            CameraAccess::Set(cameras.emplace_back(), id, 0, path);
        }
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to list this server's cameras: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        cameras.clear();
    }
    return cameras;
}

int LoadAllUsingCam(std::list<Camera>& cameras, int shareId, bool /*withStatus*/) {
    try {
        std::list<Camera> found;
        for (const pavane::CameraRecord& record : pavane::ListCamerasOfShare(shareId)) {
            found.push_back(CameraAccess::FromRecord(record));
        }
        cameras.splice(cameras.end(), found);
        return 0;
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to list the cameras of a share: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        return -1;
    }
}

int GetCamOwnerRvId(int camId) {
    constexpr int kNoSuchCamera = -1;
    try {
        soci::session& session = pavane::AppDatabase().Session();
        int owner = 0;
        soci::statement statement = (session.prepare << "select owner_rv_id from camera where id = :id",
                                     soci::into(owner), soci::use(camId));
        return statement.execute(true) ? owner : kNoSuchCamera;
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to read a camera: %s\n", pavane::DescribeFailure(failure).c_str());
        return kNoSuchCamera;
    }
}
