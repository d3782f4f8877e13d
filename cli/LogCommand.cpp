#include <unistd.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "Commands.h"
#include "EventStream.h"
#include "FollowEvents.h"
#include "JsonFields.h"
#include "TextFormat.h"
#include "TimeText.h"

namespace json = boost::json;

namespace arborctl {
namespace {

struct LevelStyle {
    std::string_view word;
    const char* colour;  ///< what a terminal takes to begin it; empty: the usual one
};
constexpr std::array<LevelStyle, 5> kLevels{
    {{"", ""}, {"detail", "\x1b[2m"}, {"info", ""}, {"warning", "\x1b[33m"}, {"error", "\x1b[31m"}}};
constexpr const char* kUsualColour = "\x1b[0m";
constexpr int kWordColumns = 7;

std::int64_t LevelOf(const std::string& word) {
    const auto* const found = std::ranges::find(kLevels, word, [](const LevelStyle& style) { return style.word; });
    return std::distance(kLevels.begin(), found);
}

std::string LineText(const json::value& line, bool coloured) {
    const auto level = std::clamp<std::int64_t>(fields::Number(line, "level"), 0, kLevels.size() - 1);
    const LevelStyle& style = kLevels.at(static_cast<std::size_t>(level));
    std::string word(style.word);
    word.resize(kWordColumns, ' ');
    const bool painted = coloured && *style.colour != '\0';
    return ExactTimeText(fields::Number(line, "time")) + " " + (painted ? style.colour : "") + word +
           (painted ? kUsualColour : "") + " " + Escaped(fields::Text(line, "channel")) + ": " +
           Escaped(fields::Text(line, "text"));
}

/// Shows each line once: the stream is opened before the newest lines are fetched, so that none falls between, and
/// some come both ways.
class LineDisplay {
public:
    LineDisplay(Session& session, std::int64_t level)
        : m_session(session), m_level(level), m_coloured(isatty(STDOUT_FILENO) != 0) {}

    void ShowNewest(const json::array& lines) {
        for (const auto& line : lines) {
            Show(line);
            m_shown = fields::Number(line, "number");
        }
    }

    void ShowNext(const json::value& line) {
        if (fields::Number(line, "number") > m_shown && fields::Number(line, "level") >= m_level) {
            Show(line);
        }
    }

    /// Numbers begin anew with the device's arbord.
    void OnReconnect() { m_shown = 0; }

private:
    void Show(const json::value& line) {
        m_session.Print(line, m_session.settings.json ? "" : LineText(line, m_coloured) + "\n");
    }

    Session& m_session;
    std::int64_t m_level;
    bool m_coloured;
    std::int64_t m_shown = 0;  // the number of the newest line that was fetched
};

Result<void> ShowNewest(Session& session, const LogOrder& order, LineDisplay& display) {
    std::string path =
        "/v1/log?lines=" + std::to_string(order.lines) + "&level=" + std::to_string(LevelOf(order.level));
    if (const auto since = SinceFrom(order.since, MillisecondsNow())) {
        path += "&since=" + std::to_string(*since);
    }
    const auto answer = session.gateway.Get(path);
    if (!answer) {
        return answer.error();
    }
    display.ShowNewest(fields::List(*answer, "entries"));
    return {};
}

}  // namespace

std::vector<std::string> LogLevels() {
    std::vector<std::string> words;
    for (std::size_t level = 1; level < kLevels.size(); ++level) {
        words.emplace_back(kLevels.at(level).word);
    }
    return words;
}

Result<ExitCode> ShowLog(Session& session, const LogOrder& order) {
    LineDisplay display(session, LevelOf(order.level));
    std::unique_ptr<EventStream> stream;
    if (order.follow) {
        auto opened = EventStream::Open(session.settings, LogLines::kWith);
        if (!opened) {
            return opened.error();
        }
        stream = std::move(*opened);
    }
    if (const auto shown = ShowNewest(session, order, display); !shown) {
        return shown.error();
    }
    if (!order.follow) {
        return ExitCode::kDone;
    }
    const auto take = [&](const ServerEvent& event) {
        const auto line = fields::Parse(event.data);
        if (event.name == "log" && line) {
            display.ShowNext(*line);
        }
    };
    return FollowEvents(session, std::move(stream), LogLines::kWith, take, [&] { display.OnReconnect(); });
}

}  // namespace arborctl
