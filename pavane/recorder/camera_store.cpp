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
                 << "insert into camera (owner_rv_id, name, recording_path, rec_storage_status)"
                    " values (:owner, :name, :path, :status) on conflict (owner_rv_id, name) do update set"
                    " recording_path = excluded.recording_path, rec_storage_status = "
                    "excluded.rec_storage_status",
             soci::use(camera.ownerRvId), soci::use(camera.name), soci::use(camera.recordingPath),
             soci::use(camera.recStorageStatus));
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
        (session.prepare << "select id, owner_rv_id, name, recording_path, rec_storage_status from camera"
                            " order by id limit :limit offset :offset",
         soci::into(camera.id), soci::into(camera.ownerRvId), soci::into(camera.name),
         soci::into(camera.recordingPath), soci::into(camera.recStorageStatus), soci::use(limit),
         soci::use(offset));
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        page.cameras.push_back(camera);
    }
    return page;
}

}  // namespace pavane
