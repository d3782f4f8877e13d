#include <algorithm>
#include <filesystem>
#include <iterator>
#include <optional>
#include <set>
#include <system_error>

#include "Commands.h"
#include "EventStream.h"
#include "Interrupt.h"
#include "JsonFields.h"
#include "TextFormat.h"

namespace json = boost::json;
namespace fs = std::filesystem;

namespace arborctl {
namespace {

using Clock = std::chrono::steady_clock;
using Versions = std::set<std::string>;

constexpr const char* kUpdateEvent = "updateavailable";

/// The packages that an array of messages offers; the records of rejected files are left out.
Versions OfferedVersions(const json::value& updates) {
    Versions versions;
    for (const auto& record : fields::List(updates, "messages")) {
        if (fields::Flag(record, "bSuccess", true) || fields::Text(record, "versionType") == "System") {
            versions.insert(fields::Text(record, "version"));
        }
    }
    return versions;
}

/// The record that rejects `file`, if there is one.
const json::value* RejectionOf(const json::value& updates, const std::string& file) {
    const auto& records = fields::List(updates, "messages");
    const auto* found = std::find_if(records.begin(), records.end(), [&](const json::value& record) {
        return !fields::Flag(record, "bSuccess", true) && fields::Text(record, "versionType") == file;
    });
    return found != records.end() ? found : nullptr;
}

/// Why a device passes over a file without a word; empty when it would check it.
std::string WhySkipped(const fs::path& file) {
    std::error_code error;
    const auto status = fs::status(file, error);
    constexpr auto kAnyExecute = fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec;
    if (file.extension() != ".pkg") {
        return "its name does not end in .pkg";
    }
    return (status.permissions() & kAnyExecute) == fs::perms::none ? "it is not executable (chmod +x)" : "";
}

std::string LastUpdate(const std::deque<ServerEvent>& replay) {
    std::string last;
    for (const auto& event : replay) {
        if (event.name == kUpdateEvent) {
            last = event.data;
        }
    }
    return last;
}

/// Whether the event is the device's log line about accepting `file`: the only thing that names an accepted file.
bool TellsOfAcceptance(const ServerEvent& event, const std::string& file) {
    if (event.name != "log") {
        return false;
    }
    const auto line = fields::Parse(event.data);
    return line && fields::Text(*line, "line").find(" - " + file + "> greater than or equal to") != std::string::npos;
}

/// The announcement that tells the outcome for `file`: one that rejects it, or the first after the device logged that
/// it accepted it, since other files may be checked at the same time. A device whose log is silent is given the time
/// there is; then its last announcement counts. After a broken connection the device repeats its newest announcement,
/// which counts when it is another than the one that was `known` before the check.
Result<json::value> AwaitAnnouncement(Session& session, std::unique_ptr<EventStream>& stream, const std::string& known,
                                      const std::string& file) {
    const auto end = Clock::now() + session.settings.SilenceLimit();
    const bool skipped = !WhySkipped(file).empty();
    std::optional<json::value> last;
    bool accepted = false;
    bool reconnected = false;
    while (Clock::now() < end) {
        const auto event = stream->Next(kInterruptPoll);
        if (Interrupted()) {
            return InterruptedByUser();
        }
        if (event && event->name == kUpdateEvent && !(reconnected && event->data == known)) {
            auto announcement = fields::Parse(event->data);
            if (!announcement) {
                return Unreachable("the device's answer is " + announcement.error().text);
            }
            if (accepted || skipped || RejectionOf(*announcement, file) != nullptr) {
                return announcement;
            }
            last = *announcement;
        }
        accepted = accepted || (event && TellsOfAcceptance(*event, file));
        if (!event && stream->Broken()) {
            auto again = EventStream::Reopen(session.settings, LogLines::kWith);
            if (!again) {
                return again.error();
            }
            stream = std::move(*again);
            reconnected = true;
        }
    }
    return last ? Result<json::value>(*last) : Unreachable("the device did not tell the outcome in time");
}

std::string ListText(const Versions& versions) {
    std::string text;
    for (const auto& version : versions) {
        text += (text.empty() ? "" : ", ") + Escaped(version);
    }
    return text;
}

json::array ToJson(const Versions& versions) {
    return json::array(versions.begin(), versions.end());
}

ExitCode Rejected(Session& session, const std::string& file, const std::string& version, const std::string& reason) {
    return session.Refuse(
        json::object{{"file", file}, {"accepted", false}, {"version", version}, {"reason", reason}},
        Escaped(file) + ": rejected" + (version.empty() ? "" : " (version " + Escaped(version) + ")") + ": " + reason);
}

ExitCode Report(Session& session, const std::string& file, const Versions& before, const json::value& announcement) {
    if (const auto* record = RejectionOf(announcement, file)) {
        return Rejected(session, file, fields::Text(*record, "version"), fields::Refusal(*record, "no reason given"));
    }
    const Versions offered = OfferedVersions(announcement);
    const std::string skipped = WhySkipped(file);
    if (!skipped.empty() || offered.empty()) {
        return Rejected(session, file, "", skipped.empty() ? "the device offers no version from it" : skipped);
    }
    Versions added;
    std::set_difference(offered.begin(), offered.end(), before.begin(), before.end(),
                        std::inserter(added, added.end()));
    const std::string news =
        added.empty() ? "accepted, no version that was not there before" : "accepted, new: " + ListText(added);
    session.Print(
        json::object{{"file", file}, {"accepted", true}, {"new", ToJson(added)}, {"available", ToJson(offered)}},
        Escaped(file) + ": " + news + "\nAvailable: " + ListText(offered) + "\n");
    return ExitCode::kDone;
}

}  // namespace

Result<ExitCode> ScanFile(Session& session, const std::string& file) {
    std::error_code error;
    const fs::path path = fs::absolute(file, error).lexically_normal();
    if (error || !fs::is_regular_file(path, error)) {
        const std::string reason = error ? error.message() : "not a regular file";
        return UsageFailure(Escaped(file) + ": " + reason);
    }
    const auto before = session.gateway.Send("findupdates", json::object{});
    if (!before) {
        return before.error();
    }
    auto stream = EventStream::Open(session.settings, LogLines::kWith);
    if (!stream) {
        return stream.error();
    }
    const std::string known = LastUpdate((*stream)->TakeReplay());
    const auto sent = session.gateway.Send(
        "newFile", json::object{{"folder", path.parent_path().string()}, {"fileName", path.filename().string()}});
    if (!sent) {
        return sent.error();
    }
    const auto announcement = AwaitAnnouncement(session, *stream, known, path.string());
    if (!announcement) {
        return announcement.error();
    }
    return Report(session, path.string(), OfferedVersions(*before), *announcement);
}

}  // namespace arborctl
