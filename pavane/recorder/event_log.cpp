#include <chrono>
#include <exception>
#include <memory>
#include <sstream>
#include <vector>

#include <json/json.h>
#include <soci/soci.h>

#include "platform/pavane/events.h"

#include "pavane/log_line.h"
#include "pavane/recorder/event_store.h"
#include "pavane/store/database.h"

namespace {

constexpr const char* kSource = "pavane/recorder/event_log";

// "%1" stands for the first argument, and so on.
struct Sentence {
    std::uint32_t type;
    const char* text;
};

constexpr Sentence kSentences[] = {
    {PV_LOG_REC_SHARE_CREATED, "Recording share %1 was created."},
    {PV_LOG_REC_SHARE_DELETED, "Recording shares were deleted: %1."},
    {PV_LOG_REC_SHARE_ROTATED,
     "The oldest recordings of share %1 were removed: %2 files, %3 MB, from %4 to %5."},
    {PV_LOG_REC_SHARE_ROTATION_CUT,
     "Removing the oldest recordings of share %1 was cut short; this log doesn't count what went after %2."},
};

std::string ArgumentsText(const std::list<std::string>& arguments) {
    Json::Value array(Json::arrayValue);
    for (const std::string& argument : arguments) {
        array.append(argument);
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, array);
}

std::list<std::string> ParseArguments(const std::string& text) {
    std::list<std::string> arguments;
    Json::Value array;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (reader->parse(text.data(), text.data() + text.size(), &array, nullptr) && array.isArray()) {
        for (const Json::Value& argument : array) {
            arguments.push_back(argument.asString());
        }
    }
    return arguments;
}

long long Now_ms() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

struct EventInsertion : pavane::KeptQuery {
    explicit EventInsertion(soci::session& session) {
        Prepare((session.prepare << "insert into event (time_ms, type, user_name, item_id, arguments, rv_id)"
                                    " values (:time, :type, :user, :item, :arguments, :rv) returning id",
                 soci::into(id), soci::use(time_ms), soci::use(type), soci::use(user), soci::use(item),
                 soci::use(arguments), soci::use(rvId)));
    }
    long long time_ms = 0;
    long long type = 0;
    std::string user;
    long long item = 0;
    std::string arguments;
    int rvId = 0;
    int id = 0;
};

}  // namespace

void PVLog(PV_LOG_TYPE type, const std::string& user, std::int64_t item, const std::list<std::string>& args,
           int rvId) {
    try {
        pavane::Database& database = pavane::AppDatabase();
        pavane::WriteTransaction transaction(database);
        auto& event = database.Kept<EventInsertion>();
        event.time_ms = Now_ms();
        event.type = type;
        event.user = user;
        event.item = item;
        event.arguments = ArgumentsText(args);
        event.rvId = rvId;
        event.Run();
        const int oldest = event.id - pavane::kEventLimit;
        if (oldest > 0) {
            database.Session() << "delete from event where id <= :oldest", soci::use(oldest);
        }
        transaction.Commit();
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Lost an event of type 0x%X: %s\n", static_cast<unsigned>(type),
                    pavane::DescribeFailure(failure).c_str());
    }
}

namespace pavane {

EventPage ListEvents(int offset, int limit) {
    EventPage page;
    EventRecord event;
    long long time_ms = 0;
    long long type = 0;
    long long item = 0;
    std::string arguments;
    soci::session& session = AppDatabase().Session();
    session << "select count(*) from event", soci::into(page.total);
    soci::statement statement =
        (session.prepare << "select id, time_ms, type, user_name, item_id, arguments, rv_id from event"
                            " order by id desc limit :limit offset :offset",
         soci::into(event.id), soci::into(time_ms), soci::into(type), soci::into(event.user),
         soci::into(item), soci::into(arguments), soci::into(event.rvId), soci::use(limit),
         soci::use(offset));
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        event.time_ms = time_ms;
        event.type = static_cast<std::uint32_t>(type);
        event.item = item;
        event.arguments = ParseArguments(arguments);
        page.events.push_back(event);
    }
    return page;
}

std::string EventSentence(const EventRecord& event) {
    const Sentence* known = nullptr;
    for (const Sentence& each : kSentences) {
        if (each.type == event.type) {
            known = &each;
        }
    }
    if (known == nullptr) {
        std::ostringstream text;
        text << "Event of type 0x" << std::hex << event.type << ".";
        return text.str();
    }
    const std::vector<std::string> arguments(event.arguments.begin(), event.arguments.end());
    std::string sentence;
    for (const char* at = known->text; *at != '\0'; ++at) {
        if (*at != '%') {
            sentence += *at;
            continue;
        }
        ++at;
        const auto index = static_cast<std::size_t>(*at - '1');
        sentence += index < arguments.size() ? arguments[index] : "";
    }
    return sentence;
}

}  // namespace pavane
