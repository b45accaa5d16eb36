// The web API "KORV.Core.Volume": where shares can be.

#include "platform/korv/api_table.h"
#include "platform/korv/configuration.h"

#include "korv/framework/builtin_tables.h"
#include "korv/services/request_values.h"
#include "korv/system/volume.h"

namespace {

constexpr const char* kApi = "KORV.Core.Volume";

void List(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!korv::AdmitAdministrator(*request, *response)) {
        return;
    }
    Json::Value volumes(Json::arrayValue);
    for (const std::string& path : KORV::GetConfiguration().volumes) {
        const korv::Volume volume = korv::ProbeVolume(path);
        Json::Value data(Json::objectValue);
        data["vol_path"] = volume.path;
        data["mounted"] = volume.isMounted;
        data["writable"] = volume.isWritable;
        data["fs_type"] = static_cast<int>(volume.type);
        data["size_mb"] = Json::UInt64(volume.sizeMb);
        data["free_mb"] = Json::UInt64(volume.freeMb);
        volumes.append(data);
    }
    Json::Value data(Json::objectValue);
    data["total"] = volumes.size();
    data["volumes"] = std::move(volumes);
    response->SetSuccess(data);
}

}  // namespace

const KORV::APITableRow* korv::VolumeTable() {
    static constexpr KORV::APITableRow kTable[] = {
        {kApi, 1, "list", List},
        {nullptr, 0, nullptr, nullptr},
    };
    return kTable;
}
