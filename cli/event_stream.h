#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace cli {

struct StreamEvent {
    std::string id;    // "" when the server gave none yet
    std::string data;  // lines joined by "\n"
};

// Takes a stream of server-sent events in pieces of any length.
class EventStream {
public:
    // The events that `piece` completes, in their order. Comments and unknown fields are left out, and so are
    // events without data.
    std::vector<StreamEvent> Take(std::string_view piece);

    // Id of the last event, also one without data: where to go on after the connection was closed.
    [[nodiscard]] const std::string& LastId() const { return m_id; }

private:
    void TakeLine(std::string_view line, std::vector<StreamEvent>& events);

    std::string m_rest;  // of a line that is not complete
    std::string m_id;
    std::optional<std::string> m_data;
};

}  // namespace cli
