// `pavane event list` and `follow`.

#include <array>
#include <chrono>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/event_stream.h"
#include "cli/whole_number.h"

namespace cli {

namespace {

constexpr int kRecSharesChanged = 41;
constexpr std::chrono::seconds kReconnectPause(1);

std::string TimeText(std::int64_t time_ms) {
    constexpr std::int64_t kMsPerSecond = 1000;
    const auto time = static_cast<std::time_t>(time_ms / kMsPerSecond);
    std::tm parts{};
    localtime_r(&time, &parts);
    std::array<char, 32> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    return {text.data(), length};
}

void List(const Context& context, int limit) {
    Json::Value parameters(Json::objectValue);
    parameters["limit"] = limit;
    const Json::Value data = context.MakeClient().Call("KORV.Pavane.Event", "list", parameters);
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table({{"TIME"}, {"USER"}, {"SERVER", Align::kRight}, {"EVENT"}});
    for (const Json::Value& event : data["events"]) {
        table.Add({TimeText(event["time"].asInt64()), Cell(event, "user"), Cell(event, "rvId"),
                   Cell(event, "text")});
    }
    PrintTable(table);
}

// For people a sentence, for programs what the server sent.
void Print(const StreamEvent& event, bool json) {
    Json::Value content;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    const char* const begin = event.data.data();
    const bool isObject =
        reader->parse(begin, begin + event.data.size(), &content, nullptr) && content.isObject();
    if (json || !isObject) {
        PrintLine(event.data);
    } else {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        const auto now_ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
        const bool isKnown = content["type"] == kRecSharesChanged;
        PrintLine(TimeText(now_ms) + (isKnown ? "  the recording shares changed" : "  something changed") +
                  " (type " + Cell(content, "type") + ")");
    }
    std::cout << std::flush;
}

// The server greets every listener with a comment: from then on nothing is missed. It closes the connection
// now and then, so that sessions are looked at anew.
void Follow(const Context& context, int count) {
    Client client = context.MakeClient();
    EventStream stream;
    int seen = 0;
    bool isListening = false;
    const auto take = [&](std::string_view piece) {
        if (!isListening) {
            std::cerr << "pavane: listening\n";
            isListening = true;
        }
        for (const StreamEvent& event : stream.Take(piece)) {
            Print(event, context.json);
            if (++seen == count) {
                return false;
            }
        }
        return static_cast<bool>(std::cout);
    };
    while (std::cout && (count == 0 || seen < count)) {
        client.ReadEvents(stream.LastId(), take);
        if (count == 0 || seen < count) {
            std::this_thread::sleep_for(kReconnectPause);
        }
    }
}

}  // namespace

void AddEventCommands(CLI::App& app, Context& context) {
    constexpr int kDefaultLimit = 20;
    constexpr int kMostEvents = 1000;
    CLI::App* const event = app.add_subcommand("event", "What happened");
    event->require_subcommand(1);
    const auto limit = std::make_shared<int>(kDefaultLimit);
    CLI::App* const list = event->add_subcommand("list", "List the latest events, newest first");
    list->add_option("--limit", *limit, "How many")
        ->transform(WholeNumber(1, kMostEvents))
        ->capture_default_str();
    list->callback([&context, limit] { context.chosen = [&context, limit] { List(context, *limit); }; });
    const auto count = std::make_shared<int>(0);
    CLI::App* const follow = event->add_subcommand("follow", "Print changes as they are announced");
    follow->add_option("--count", *count, "End after so many")->transform(WholeNumber(1, kMostNumber));
    follow->callback([&context, count] { context.chosen = [&context, count] { Follow(context, *count); }; });
}

}  // namespace cli
