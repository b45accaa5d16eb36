#include "pavane/recorder/camera_store.h"

#include <soci/soci.h>

#include "pavane/store/database.h"

namespace pavane {

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
    soci::statement statement =
        (session.prepare
             << "select id, owner_rv_id, name, recording_path, rec_storage_status, ip, occupied_mb,"
                " rotated_by_space, rotation_by_space_mb from camera"
                " order by id limit :limit offset :offset",
         soci::into(camera.id), soci::into(camera.ownerRvId), soci::into(camera.name),
         soci::into(camera.recordingPath), soci::into(camera.recStorageStatus), soci::into(camera.ip),
         soci::into(camera.occupiedMB), soci::into(camera.rotatedBySpace),
         soci::into(camera.rotationBySpaceMB), soci::use(limit), soci::use(offset));
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        page.cameras.push_back(camera);
    }
    return page;
}

std::optional<CameraRecord> FindCamera(int id) {
    CameraRecord camera;
    soci::session& session = AppDatabase().Session();
    session << "select id, owner_rv_id, name, recording_path, rec_storage_status, ip, occupied_mb,"
               " rotated_by_space, rotation_by_space_mb from camera where id = :id",
        soci::into(camera.id), soci::into(camera.ownerRvId), soci::into(camera.name),
        soci::into(camera.recordingPath), soci::into(camera.recStorageStatus), soci::into(camera.ip),
        soci::into(camera.occupiedMB), soci::into(camera.rotatedBySpace),
        soci::into(camera.rotationBySpaceMB), soci::use(id);
    return session.got_data() ? std::optional(camera) : std::nullopt;
}

// What begins with "/volume1/rec/" stands between that text and "/volume1/rec0", since '0' follows '/' - by
// bytes, which SQLite always compares and PostgreSQL when told so.
std::string CamerasOfShareStatement(DatabaseKind kind) {
    const bool sqlite = kind == DatabaseKind::kSqlite;
    return std::string(
               "select c.id, c.owner_rv_id, c.name, c.recording_path, c.rec_storage_status, c.ip,"
               " c.occupied_mb, c.rotated_by_space, c.rotation_by_space_mb"
               " from recording_share s join camera c on c.owner_rv_id = s.owner_rv_id and "
               "c.recording_path ") +
           (sqlite ? ">=" : "~>=~") + " (s.path || '/') and c.recording_path " + (sqlite ? "<" : "~<~") +
           " (s.path || '0') where s.id = :share and c.rec_storage_status <> 1 order by c.id";
}

std::list<CameraRecord> ListCamerasOfShare(int shareId) {
    Database& database = AppDatabase();
    CameraRecord camera;
    soci::statement statement =
        (database.Session().prepare << CamerasOfShareStatement(database.Kind()), soci::into(camera.id),
         soci::into(camera.ownerRvId), soci::into(camera.name), soci::into(camera.recordingPath),
         soci::into(camera.recStorageStatus), soci::into(camera.ip), soci::into(camera.occupiedMB),
         soci::into(camera.rotatedBySpace), soci::into(camera.rotationBySpaceMB), soci::use(shareId));
    std::list<CameraRecord> cameras;
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        cameras.push_back(camera);
    }
    return cameras;
}

}  // namespace pavane
