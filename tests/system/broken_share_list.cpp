// Loaded before the platform, so that the module is given a list of shared folders that breaks its schema.

#include <json/json.h>

#include "platform/korv/share.h"

[[gnu::visibility("default")]] int GetLocalShareListByWebApi(Json::Value& list, bool /*withState*/) {
    Json::Value share(Json::objectValue);
    share["name"] = 7;
    share["vol_path"] = "/volume1";
    list = Json::Value(Json::arrayValue);
    list.append(share);
    return 0;
}
