// "KORV.Pavane.Event": what happened.

#include "pavane/recorder/event_store.h"
#include "pavane/webapi/api_call.h"
#include "pavane/webapi/methods.h"

namespace pavane {

namespace {

Json::Value ToElement(const EventRecord& event) {
    Json::Value arguments(Json::arrayValue);
    for (const std::string& argument : event.arguments) {
        arguments.append(argument);
    }
    Json::Value element(Json::objectValue);
    element["id"] = event.id;
    element["time"] = Json::Int64{event.time_ms};
    element["type"] = Json::UInt{event.type};
    element["user"] = event.user;
    element["item"] = Json::Int64{event.item};
    element["args"] = arguments;
    element["rvId"] = event.rvId;
    element["text"] = EventSentence(event);
    return element;
}

}  // namespace

Json::Value ListEventsMethod(const KORV::APIRequest& request) {
    const PageRequest wanted = ReadPage(request);
    const EventPage page = ListEvents(wanted.offset, wanted.limit);
    Json::Value list(Json::arrayValue);
    for (const EventRecord& event : page.events) {
        list.append(ToElement(event));
    }
    Json::Value data(Json::objectValue);
    data["events"] = list;
    data["total"] = page.total;
    return data;
}

}  // namespace pavane
