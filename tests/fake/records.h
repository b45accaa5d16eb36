#pragma once

#include <string>

#include <json/json.h>

#include "platform/korv/external_disk.h"
#include "platform/pavane/camera.h"
#include "platform/pavane/cms.h"
#include "platform/pavane/rec_share.h"

// Records as scenarios write them: objects whose members carry the fields' names. A member that is left out
// keeps its default; the samples hold every member with its default and thereby name all that are allowed.
namespace fake {

Json::Value RecShareSample();
Json::Value CameraSample();
Json::Value SlaveRVSample();
Json::Value FolderSample();
Json::Value ApplicationSample();
Json::Value PartitionSample();

void FillRecShare(RecShare& share, const Json::Value& fields);
Camera ToCamera(const Json::Value& fields);
SlaveRV ToSlaveRV(const Json::Value& fields);
KORVEXTPARTITION ToPartition(const Json::Value& fields);

// True when both are of one JSON type; whole numbers are one type, signed or not.
bool IsSameKind(const Json::Value& value, const Json::Value& sample);

// Empty when `fields` may stand for a record like `sample`, else what is wrong with it.
std::string CheckRecord(const Json::Value& fields, const Json::Value& sample);

}  // namespace fake
