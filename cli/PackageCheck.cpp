#include "PackageCheck.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

#include "Interrupt.h"
#include "JsonFields.h"
#include "TextFormat.h"

namespace json = boost::json;
namespace fs = std::filesystem;

namespace arborctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kUpdateEvent = "updateavailable";
// What the device logs. Service tools rely on the lines' texts, so they stay as they are.
constexpr std::string_view kClosing = "Closing file ";
constexpr std::string_view kAllowed = "> greater than or equal to";

std::string LastUpdate(const std::deque<ServerEvent>& replay) {
    std::string last;
    for (const auto& event : replay) {
        if (event.name == kUpdateEvent) {
            last = event.data;
        }
    }
    return last;
}

std::string ListText(const std::set<std::string>& versions) {
    std::string text;
    for (const auto& version : versions) {
        text += (text.empty() ? "" : ", ") + Escaped(version);
    }
    return text;
}

json::array ToJson(const std::set<std::string>& versions) {
    return json::array(versions.begin(), versions.end());
}

}  // namespace

std::string WhyNoPackage(const fs::path& file) {
    return file.extension() == ".pkg" ? "" : "its name does not end in .pkg";
}

Result<std::unique_ptr<PackageCheck>> PackageCheck::Begin(Session& session, const std::string& file,
                                                          const std::string& skipped) {
    const auto before = session.gateway.Send("findupdates", json::object{});
    if (!before) {
        return before.error();
    }
    auto stream = EventStream::Open(session.settings, LogLines::kWith);
    if (!stream) {
        return stream.error();
    }
    return std::unique_ptr<PackageCheck>(
        new PackageCheck(session, file, skipped, OfferedVersions(*before), std::move(*stream)));
}

PackageCheck::PackageCheck(Session& session, const std::string& file, const std::string& skipped, Versions offered,
                           std::unique_ptr<EventStream> stream)
    : m_session(session),
      m_file(file),
      m_skipped(skipped),
      m_before(std::move(offered)),
      m_stream(std::move(stream)),
      m_replayed(LastUpdate(m_stream->TakeReplay())) {}

Result<ExitCode> PackageCheck::Finish() {
    const auto announcement = AwaitAnnouncement();
    if (!announcement) {
        return announcement.error();
    }
    return Report(*announcement);
}

/// The announcement that tells the outcome for the file: one that rejects it, or the first after the device logged that
/// it accepted it, since other files may be checked at the same time. A device whose log is silent is given the time
/// there is; then its last announcement counts.
Result<json::value> PackageCheck::AwaitAnnouncement() {
    const auto end = Clock::now() + m_session.settings.SilenceLimit();
    while (Clock::now() < end) {
        const auto event = m_stream->Next(kInterruptPoll);
        if (Interrupted()) {
            return InterruptedByUser();
        }
        if (event && event->name == kUpdateEvent) {
            if (const auto outcome = TakeUpdates(*event)) {
                return *outcome;
            }
        } else if (event && event->name == "log") {
            const auto line = fields::Parse(event->data);
            TakeLogLine(line ? fields::Text(*line, "line") : "");
        } else if (!event && m_stream->Broken()) {
            if (const auto again = Reconnect(); !again) {
                return again.error();
            }
        }
    }
    return m_last ? Result<json::value>(*m_last) : Unreachable("the device did not tell the outcome in time");
}

std::optional<Result<json::value>> PackageCheck::TakeUpdates(const ServerEvent& event) {
    // After a broken connection the device repeats its newest announcement, which may be from before the check.
    if (m_reconnected && event.data == m_replayed) {
        return std::nullopt;
    }
    auto announcement = fields::Parse(event.data);
    if (!announcement) {
        return Unreachable("the device's answer is " + announcement.error().text);
    }
    if (m_accepted || !m_skipped.empty() || RejectionIn(*announcement) != nullptr) {
        return announcement;
    }
    m_last = *announcement;
    return std::nullopt;
}

void PackageCheck::TakeLogLine(const std::string& line) {
    const auto closing = line.find(kClosing);
    if (closing != std::string::npos && IsTheFile(line.substr(closing + kClosing.size()))) {
        m_file = fs::path(line.substr(closing + kClosing.size())).lexically_normal().string();
    }
    // The only thing that names an accepted file.
    m_accepted = m_accepted || line.find(" - " + m_file + std::string(kAllowed)) != std::string::npos;
}

Result<void> PackageCheck::Reconnect() {
    auto again = EventStream::Reopen(m_session.settings, LogLines::kWith);
    if (!again) {
        return again.error();
    }
    m_stream = std::move(*again);
    m_reconnected = true;
    return {};
}

bool PackageCheck::IsTheFile(const std::string& path) const {
    return path == m_file || fs::path(path).filename() == m_file;
}

/// The record that rejects the file, if there is one.
const json::value* PackageCheck::RejectionIn(const json::value& announcement) const {
    const auto& records = fields::List(announcement, "messages");
    const auto* found = std::ranges::find_if(records, [&](const json::value& record) {
        return !fields::Flag(record, "bSuccess", true) && IsTheFile(fields::Text(record, "versionType"));
    });
    return found != records.end() ? found : nullptr;
}

/// The packages that an array of messages offers; the records of rejected files are left out.
PackageCheck::Versions PackageCheck::OfferedVersions(const json::value& updates) {
    Versions versions;
    for (const auto& record : fields::List(updates, "messages")) {
        if (fields::Flag(record, "bSuccess", true) || fields::Text(record, "versionType") == "System") {
            versions.insert(fields::Text(record, "version"));
        }
    }
    return versions;
}

ExitCode PackageCheck::Report(const json::value& announcement) {
    if (const auto* record = RejectionIn(announcement)) {
        return Rejected(fields::Text(*record, "version"), fields::Refusal(*record, "no reason given"));
    }
    const Versions offered = OfferedVersions(announcement);
    if (!m_skipped.empty() || offered.empty()) {
        return Rejected("", m_skipped.empty() ? "the device offers no version from it" : m_skipped);
    }
    Versions added;
    std::ranges::set_difference(offered, m_before, std::inserter(added, added.end()));
    const std::string news =
        added.empty() ? "accepted, no version that was not there before" : "accepted, new: " + ListText(added);
    m_session.Print(
        json::object{{"file", m_file}, {"accepted", true}, {"new", ToJson(added)}, {"available", ToJson(offered)}},
        Escaped(m_file) + ": " + news + "\nAvailable: " + ListText(offered) + "\n");
    return ExitCode::kDone;
}

ExitCode PackageCheck::Rejected(const std::string& version, const std::string& reason) {
    return m_session.Refuse(
        json::object{{"file", m_file}, {"accepted", false}, {"version", version}, {"reason", reason}},
        Escaped(m_file) + ": rejected" + (version.empty() ? "" : " (version " + Escaped(version) + ")") + ": " +
            reason);
}

}  // namespace arborctl
