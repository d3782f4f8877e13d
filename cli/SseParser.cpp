#include "SseParser.h"

#include <utility>

namespace arborctl {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

bool StartsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

}  // namespace

bool SseParser::Feed(std::string_view bytes) {
    while (!bytes.empty()) {
        if (std::exchange(m_afterCarriageReturn, false) && bytes.front() == '\n') {
            bytes.remove_prefix(1);
            continue;
        }
        const std::size_t end = bytes.find_first_of("\r\n");
        m_line += bytes.substr(0, end);
        if (m_line.size() + m_event.data.size() > kMaxEventBytes) {
            return false;
        }
        if (end == std::string_view::npos) {
            return true;
        }
        m_afterCarriageReturn = bytes[end] == '\r';
        bytes.remove_prefix(end + 1);
        TakeLine(std::exchange(m_line, {}));
    }
    return true;
}

void SseParser::TakeLine(std::string_view line) {
    if (std::exchange(m_firstLine, false) && StartsWith(line, kByteOrderMark)) {
        line.remove_prefix(kByteOrderMark.size());
    }
    if (line.empty()) {
        Dispatch();
        return;
    }
    const std::size_t colon = line.find(':');
    std::string_view value = colon == std::string_view::npos ? std::string_view{} : line.substr(colon + 1);
    if (StartsWith(value, " ")) {
        value.remove_prefix(1);
    }
    TakeField(line.substr(0, colon), value);
}

void SseParser::TakeField(std::string_view name, std::string_view value) {
    if (name.empty()) {
        m_receiver({"", m_event.id, std::string(value)});
    } else if (name == "event") {
        m_event.name = value;
    } else if (name == "id") {
        m_event.id = value;
    } else if (name == "data") {
        if (m_hasData) {
            m_event.data += '\n';
        }
        m_event.data += value;
        m_hasData = true;
    }
}

void SseParser::Dispatch() {
    ServerEvent event{std::exchange(m_event.name, {}), m_event.id, std::exchange(m_event.data, {})};
    if (!std::exchange(m_hasData, false)) {
        return;
    }
    if (event.name.empty()) {
        event.name = "message";
    }
    m_receiver(std::move(event));
}

}  // namespace arborctl
