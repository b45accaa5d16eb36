#include "pavane/cms/peer_reply.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <utility>

namespace pavane {

namespace {

bool IsObjectOrNothing(const Json::Value& value) { return value.isNull() || value.isObject(); }

bool IsText(const Json::Value& value) { return value.isNull() || value.isString(); }

bool AreObjects(const Json::Value& list) {
    return list.isNull() || (list.isArray() && std::all_of(list.begin(), list.end(),
                                                           [](const auto& each) { return each.isObject(); }));
}

// What the relayed methods answer about a share that was made, the stop of a relay, and the list of usages.
bool IsReadable(const Json::Value& data) {
    if (data.isNull()) {
        return true;
    }
    using Is = bool (Json::Value::*)() const;
    constexpr std::pair<const char*, Is> kTaken[] = {
        {"id", &Json::Value::isInt},           {"fsType", &Json::Value::isInt},
        {"encType", &Json::Value::isInt},      {"totalSize", &Json::Value::isUInt64},
        {"blMigrating", &Json::Value::isBool}, {"stopOnHostError", &Json::Value::isBool},
    };
    return AreObjects(data["usage"]) &&
           std::all_of(std::begin(kTaken), std::end(kTaken), [&](const auto& each) {
               return data[each.first].isNull() || (data[each.first].*each.second)();
           });
}

bool IsAnswer(const Json::Value& value) {
    if (!value.isObject() || !IsObjectOrNothing(value["data"]) || !IsReadable(value["data"])) {
        return false;
    }
    if (!value.isMember("error")) {
        return true;
    }
    const Json::Value& error = value["error"];
    return error.isObject() && error["code"].isInt() && IsObjectOrNothing(error["errors"]) &&
           IsText(error["errors"]["param1"]) && IsText(error["errors"]["param2"]);
}

}  // namespace

bool ParsePeerReply(const std::string& body, Json::Value& reply) {
    static const Json::CharReaderBuilder builder = [] {  // making it takes longer than reading a short reply
        Json::CharReaderBuilder made;
        Json::CharReaderBuilder::strictMode(&made.settings_);
        return made;
    }();
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value parsed;
    try {
        if (!reader->parse(body.data(), body.data() + body.size(), &parsed, nullptr) || !IsAnswer(parsed)) {
            return false;
        }
    } catch (const Json::Exception&) {  // nested too deeply
        return false;
    }
    reply = std::move(parsed);
    return true;
}

}  // namespace pavane
