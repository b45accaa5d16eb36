// External disks and the files that tell about them.

#include <cstdio>
#include <cstring>

#include "platform/korv/external_disk.h"
#include "platform/korv/key_value_file.h"
#include "platform/pavane/key_value_file.h"

#include "tests/fake/director.h"
#include "tests/fake/records.h"

using fake::Args;
using fake::Ask;

namespace {

// The references stand at the start of the buffer, the names behind them; a null name stays a null reference.
void WriteNames(const Json::Value& list, char** names, std::size_t capacity) {
    const std::size_t references = list.size() * sizeof(char*);
    char* text = reinterpret_cast<char*>(names) + references;
    const char* end = reinterpret_cast<char*>(names) + capacity;
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        const std::string name = list[i].isNull() ? "" : list[i].asString();
        if (text > end || static_cast<std::size_t>(end - text) <= name.size()) {
            fake::CurrentDirector()->Misuse("KORVUSBDevEnum: the buffer is too small for the names");
            return;
        }
        std::memcpy(text, name.c_str(), name.size() + 1);
        names[i] = list[i].isNull() ? nullptr : text;
        text += name.size() + 1;
    }
}

}  // namespace

int KORVUSBDevEnum(int type, char** names, std::size_t capacity, std::size_t* size) {
    const Json::Value reply = Ask("KORVUSBDevEnum", Args(type, names != nullptr, Json::UInt64{capacity}));
    *size = reply["size"].asUInt64();
    if (names != nullptr) {
        WriteNames(reply["names"], names, capacity);
    }
    return reply["count"].asInt();
}

int KORVExtStgPartsVolInfoGet(const char* device, KORVEXTDEVICE* record, bool isUsb) {
    const Json::Value name = device != nullptr ? Json::Value(device) : Json::Value();
    const Json::Value reply = Ask("KORVExtStgPartsVolInfoGet", Args(name, isUsb));
    snprintf(record->description, sizeof record->description, "%s", reply["description"].asCString());
    record->partitionCount = 0;
    for (const Json::Value& fields : reply["partitions"]) {
        record->partitions[record->partitionCount++] = fake::ToPartition(fields);
    }
    return reply["result"].asInt();
}

int KLIBCFileCheckKeyValue(const char* path, const char* key, const char* value, int flags) {
    return Ask("KLIBCFileCheckKeyValue", Args(path, key, value, flags)).asInt();
}

int PVFileGetVal(const std::string& path, const std::string& key, std::string& value) {
    const Json::Value reply = Ask("PVFileGetVal", Args(path, key));
    if (reply["result"].asInt() > 0) {
        value = reply["value"].asString();
    }
    return reply["result"].asInt();
}
