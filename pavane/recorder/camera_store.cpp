#include "pavane/recorder/camera_store.h"

#include <soci/soci.h>

#include "pavane/store/database.h"

namespace pavane {

namespace {

// What PrepareCameras reads, of the cameras "c" in `from`.
std::string SelectCameras(const std::string& from) {
    return "select c.id, c.owner_rv_id, c.name, c.recording_path, c.rec_storage_status, c.ip, c.occupied_mb,"
           " c.rotated_by_space, c.rotation_by_space_mb from " +
           from;
}

soci::details::prepare_temp_type PrepareCameras(soci::session& session, const std::string& statement,
                                                CameraRecord& camera) {
    return (session.prepare << statement, soci::into(camera.id), soci::into(camera.ownerRvId),
            soci::into(camera.name), soci::into(camera.recordingPath), soci::into(camera.recStorageStatus),
            soci::into(camera.ip), soci::into(camera.occupiedMB), soci::into(camera.rotatedBySpace),
            soci::into(camera.rotationBySpaceMB));
}

// The rows of a query that reads into `camera`.
std::list<CameraRecord> FetchAll(const soci::details::prepare_temp_type& query, const CameraRecord& camera) {
    soci::statement statement(query);
    std::list<CameraRecord> cameras;
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        cameras.push_back(camera);
    }
    return cameras;
}

}  // namespace

void ImportCameras(std::vector<CameraRecord>& cameras) {
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    {
        CameraRecord camera;
        soci::statement upsert =
            (database.Session().prepare
                 << "insert into camera (owner_rv_id, name, recording_path, rec_storage_status, ip,"
                    " occupied_mb, rotated_by_space, rotation_by_space_mb)"
                    " values (:owner, :name, :path, :status, :ip, :occupied, :rotated, :rotation)"
                    " on conflict (owner_rv_id, name) do update set"
                    " recording_path = excluded.recording_path,"
                    " rec_storage_status = excluded.rec_storage_status, ip = excluded.ip,"
                    " occupied_mb = excluded.occupied_mb, rotated_by_space = excluded.rotated_by_space,"
                    " rotation_by_space_mb = excluded.rotation_by_space_mb",
             soci::use(camera.ownerRvId), soci::use(camera.name), soci::use(camera.recordingPath),
             soci::use(camera.recStorageStatus), soci::use(camera.ip), soci::use(camera.occupiedMB),
             soci::use(camera.rotatedBySpace), soci::use(camera.rotationBySpaceMB));
        for (const CameraRecord& each : cameras) {
            camera = each;
            upsert.execute(true);
        }
    }
    transaction.Commit();
}

CameraPage ListCameras(int offset, int limit) {
    CameraPage page;
    CameraRecord camera;
    soci::session& session = AppDatabase().Session();
    session << "select count(*) from camera", soci::into(page.total);
    auto query =
        PrepareCameras(session, SelectCameras("camera c order by c.id limit :limit offset :offset"), camera);
    query, soci::use(limit), soci::use(offset);
    page.cameras = FetchAll(query, camera);
    return page;
}

std::optional<CameraRecord> FindCamera(int id) {
    CameraRecord camera;
    auto query = PrepareCameras(AppDatabase().Session(), SelectCameras("camera c where c.id = :id"), camera);
    query, soci::use(id);
    soci::statement statement(query);
    return statement.execute(true) ? std::optional(camera) : std::nullopt;
}

// What begins with "/volume1/rec/" stands between that text and "/volume1/rec0", since '0' follows '/' - by
// bytes, which SQLite always compares and PostgreSQL when told so.
std::string CamerasOfShareStatement(DatabaseKind kind) {
    const bool sqlite = kind == DatabaseKind::kSqlite;
    return SelectCameras(std::string("recording_share s join camera c on c.owner_rv_id = s.owner_rv_id and"
                                     " c.recording_path ") +
                         (sqlite ? ">=" : "~>=~") + " (s.path || '/') and c.recording_path " +
                         (sqlite ? "<" : "~<~") +
                         " (s.path || '0') where s.id = :share and c.rec_storage_status <> 1 order by c.id");
}

std::list<CameraRecord> ListCamerasOfShare(int shareId) {
    Database& database = AppDatabase();
    CameraRecord camera;
    auto query = PrepareCameras(database.Session(), CamerasOfShareStatement(database.Kind()), camera);
    query, soci::use(shareId);
    return FetchAll(query, camera);
}

}  // namespace pavane
