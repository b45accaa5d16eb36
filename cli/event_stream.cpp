#include "cli/event_stream.h"

#include <cstddef>

namespace cli {

std::vector<StreamEvent> EventStream::Take(std::string_view piece) {
    std::vector<StreamEvent> events;
    m_rest += piece;
    std::size_t begin = 0;
    for (std::size_t end = m_rest.find('\n'); end != std::string::npos; end = m_rest.find('\n', begin)) {
        std::string_view line = std::string_view(m_rest).substr(begin, end - begin);
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        TakeLine(line, events);
        begin = end + 1;
    }
    m_rest.erase(0, begin);
    return events;
}

void EventStream::TakeLine(std::string_view line, std::vector<StreamEvent>& events) {
    if (line.empty()) {
        if (m_data.has_value()) {
            events.push_back({m_id, *m_data});
            m_data.reset();
        }
        return;
    }
    const std::size_t colon = line.find(':');
    const std::string_view field = line.substr(0, colon);
    std::string_view value = colon == std::string_view::npos ? std::string_view() : line.substr(colon + 1);
    if (!value.empty() && value.front() == ' ') {
        value.remove_prefix(1);
    }
    if (field == "id") {
        m_id = value;
    } else if (field == "data") {
        m_data = m_data.has_value() ? *m_data + "\n" + std::string(value) : std::string(value);
    }
}

}  // namespace cli
