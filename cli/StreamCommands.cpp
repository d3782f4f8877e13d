#include <map>
#include <utility>

#include "Commands.h"
#include "EventStream.h"
#include "FollowEvents.h"
#include "Job.h"
#include "JsonFields.h"
#include "Peers.h"
#include "ProgressDisplay.h"
#include "TextFormat.h"

namespace json = boost::json;

namespace arborctl {
namespace {

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

/// Knows the state that each open job was last told in: of what happens in between only the progress is shown.
class JobStates {
public:
    bool IsNew(const Job& job) {
        const auto found = m_states.find(job.id);
        const bool known = found != m_states.end() && found->second == job.state;
        if (job.HasEnded()) {
            m_states.erase(job.id);
        } else {
            m_states[job.id] = job.state;
        }
        return !known;
    }

private:
    std::map<std::string, std::string> m_states;
};

std::string JobText(const Job& job) {
    const std::string why = job.Why();
    return "job " + job.ShortId() + ": " + job.Title() + ": " + job.StateWord() + (why.empty() ? "" : ": " + why) +
           (job.asker.empty() ? "" : ", asked by " + job.asker);
}

/// Shows one event; a kind that this program does not know is shown as it came.
void ShowEvent(Session& session, ProgressDisplay& display, JobStates& jobs, const ServerEvent& event) {
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
    if (document && event.name == "operation") {
        if (const Job job = Job::From(*document); jobs.IsNew(job)) {
            display.End();
            session.out << Escaped(JobText(job)) << std::endl;
        }
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

}  // namespace

Result<ExitCode> WatchEvents(Session& session) {
    auto stream = EventStream::Open(session.settings, LogLines::kWithout);
    if (!stream) {
        return stream.error();
    }
    ProgressDisplay display(session.out, OutputColumns);
    JobStates jobs;
    return FollowEvents(session, std::move(*stream), LogLines::kWithout,
                        [&](const ServerEvent& event) { ShowEvent(session, display, jobs, event); });
}

}  // namespace arborctl
