#include <algorithm>
#include <deque>

#include "Commands.h"
#include "EventStream.h"
#include "Interrupt.h"
#include "JsonFields.h"
#include "Peers.h"
#include "ProgressDisplay.h"
#include "TextFormat.h"

namespace json = boost::json;

namespace arborctl {
namespace {

using Lines = std::deque<std::string>;

/// Hands every event to `take` until the user interrupts or nobody reads the output; survives a broken connection.
template <typename Take>
Result<ExitCode> FollowEvents(Session& session, std::unique_ptr<EventStream> stream, LogLines log, const Take& take) {
    while (session.HasReader()) {
        const auto event = stream->Next(kInterruptPoll);
        if (Interrupted()) {
            return InterruptedByUser();
        }
        if (event && !event->IsComment()) {
            take(*event);
        } else if (!event && stream->Broken()) {
            session.Note("the connection broke off; connecting again");
            auto again = EventStream::Reopen(session.settings, log);
            if (!again) {
                return again.error();
            }
            stream = std::move(*again);
        }
    }
    return ExitCode::kDone;
}

std::string UpdatesText(const json::value& updates) {
    std::string text;
    for (const auto& record : fields::List(updates, "messages")) {
        const std::string version = Escaped(fields::Text(record, "version"));
        const std::string type = fields::Text(record, "versionType");
        const bool rejected = !fields::Flag(record, "bSuccess", true) && type != "System";
        text += rejected ? "rejected: " + Escaped(type) + " (version " + version +
                               "): " + fields::Refusal(record, "no reason given") + "\n"
                         : "available: " + version + "\n";
    }
    return text.empty() ? "available: none\n" : text;
}

std::string DrivesText(const json::value& drives) {
    std::string text;
    for (const auto& [key, word] : {std::pair{"addedDevices", "attached"}, std::pair{"removedDevices", "removed"}}) {
        for (const auto& drive : fields::List(drives, key)) {
            text += std::string("drive ") + word + ": " + Escaped(drive.is_string() ? drive.get_string() : "?") + "\n";
        }
    }
    return text;
}

/// Shows one event; a kind that this program does not know is shown as it came.
void ShowEvent(Session& session, ProgressDisplay& display, const ServerEvent& event) {
    const auto document = fields::Parse(event.data);
    if (session.settings.json) {
        session.PrintJson(json::object{
            {"event", event.name}, {"id", event.id}, {"data", document ? *document : json::value(event.data)}});
        return;
    }
    if (document && event.name == "progress") {
        display.Show(Progress::From(*document));
        return;
    }
    display.End();
    if (document && event.name == "updateavailable") {
        session.out << UpdatesText(*document) << std::flush;
    } else if (document && event.name == "storagedeviceupdate") {
        session.out << DrivesText(*document) << std::flush;
    } else if (document && event.name == "peerupdate") {
        session.out << "device " << PeerTitle(*document) << ": " << PeerState(*document) << std::endl;
    } else {
        session.out << Escaped(event.name) << ": " << Escaped(event.data) << std::endl;
    }
}

void ShowLine(Session& session, const std::string& line) {
    session.Print(json::object{{"line", line}}, Escaped(line) + "\n");
}

std::string LineOf(const ServerEvent& event) {
    const auto document = fields::Parse(event.data);
    return document ? fields::Text(*document, "line") : event.data;
}

Result<Lines> NewestLines(Session& session, unsigned count) {
    const auto answer = session.gateway.Get("/v1/log?lines=" + std::to_string(count));
    if (!answer) {
        return answer.error();
    }
    Lines lines;
    for (const auto& line : fields::List(*answer, "lines")) {
        lines.emplace_back(line.is_string() ? line.get_string() : "");
    }
    return lines;
}

/// The stream was opened before the newest lines were fetched, so that no line falls between; the lines that both
/// bring are told apart here.
class OverlapFilter {
public:
    explicit OverlapFilter(const Lines& shown) : m_shown(shown) {}

    /// False for a line that has been shown already. Lines must come in the stream's order.
    bool IsNew(const std::string& line) {
        const auto found = std::find(m_shown.begin(), m_shown.end(), line);
        if (found == m_shown.end()) {
            m_shown.clear();
            return true;
        }
        m_shown.erase(m_shown.begin(), std::next(found));
        return false;
    }

private:
    Lines m_shown;
};

}  // namespace

Result<ExitCode> WatchEvents(Session& session) {
    auto stream = EventStream::Open(session.settings, LogLines::kWithout);
    if (!stream) {
        return stream.error();
    }
    ProgressDisplay display(session.out, OutputColumns);
    return FollowEvents(session, std::move(*stream), LogLines::kWithout,
                        [&](const ServerEvent& event) { ShowEvent(session, display, event); });
}

Result<ExitCode> ShowLog(Session& session, unsigned count, bool follow) {
    std::unique_ptr<EventStream> stream;
    if (follow) {
        auto opened = EventStream::Open(session.settings, LogLines::kWith);
        if (!opened) {
            return opened.error();
        }
        stream = std::move(*opened);
    }
    const auto lines = NewestLines(session, count);
    if (!lines) {
        return lines.error();
    }
    for (const auto& line : *lines) {
        ShowLine(session, line);
    }
    if (!follow) {
        return ExitCode::kDone;
    }
    OverlapFilter overlap(*lines);
    return FollowEvents(session, std::move(stream), LogLines::kWith, [&](const ServerEvent& event) {
        if (event.name != "log") {
            return;
        }
        if (const std::string line = LineOf(event); overlap.IsNew(line)) {
            ShowLine(session, line);
        }
    });
}

}  // namespace arborctl
