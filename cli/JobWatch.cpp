#include "JobWatch.h"

#include <algorithm>

#include "Interrupt.h"
#include "JsonFields.h"
#include "TextFormat.h"

namespace json = boost::json;

namespace arborctl {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char* kJobEvent = "operation";
/// A device that has just started may take requests before all of its nodes do.
constexpr milliseconds kStartingTime{5000};
constexpr milliseconds kAskAgainAfter{200};

/// A request that is repeated, for a while, as long as nobody serves it.
Result<json::value> GetPatiently(Session& session, const std::string& path) {
    const auto end = Clock::now() + std::min(kStartingTime, session.settings.ReconnectLimit());
    for (;;) {
        auto answer = session.gateway.Get(path);
        const int status = answer ? 0 : answer.error().httpStatus;
        if ((status != kNobodyServesIt && status != kNobodyAnswered) || Clock::now() > end) {
            return answer;
        }
        if (!PauseUnlessInterrupted(kAskAgainAfter)) {
            return InterruptedByUser();
        }
    }
}

}  // namespace

Result<std::unique_ptr<JobWatch>> JobWatch::Begin(Session& session, Show show) {
    auto stream = EventStream::Open(session.settings, LogLines::kWithout);
    if (!stream) {
        return stream.error();
    }
    return std::unique_ptr<JobWatch>(new JobWatch(session, show, std::move(*stream)));
}

JobWatch::JobWatch(Session& session, Show show, std::unique_ptr<EventStream> stream)
    : m_session(session),
      m_show(show),
      m_stream(std::move(stream)),
      m_display(session.out, OutputColumns),
      m_lastNews(Clock::now()) {
    for (const auto& event : m_stream->TakeReplay()) {
        Remember(event);
    }
}

void JobWatch::Remember(const ServerEvent& event) {
    const auto document = fields::Parse(event.data);
    if (event.name == kJobEvent && document) {
        m_seen.insert(fields::Text(*document, "id"));
    }
}

std::set<std::string> JobWatch::TakeSeen() {
    while (const auto event = m_stream->Next(milliseconds{0})) {
        Remember(*event);
    }
    return std::move(m_seen);
}

Result<Job> JobWatch::Follow(WantedJob wanted) {
    m_wanted = std::move(wanted);
    m_lastNews = Clock::now();
    while (Clock::now() - m_lastNews < m_session.settings.SilenceLimit()) {
        const auto event = m_stream->Next(kInterruptPoll);
        if (Interrupted()) {
            return Failure{ExitCode::kInterrupted, "no longer watched; the device goes on with it (arborctl history)"};
        }
        End end;
        if (event && event->name == kJobEvent) {
            const auto document = fields::Parse(event->data);
            end = document ? Take(*document) : std::nullopt;
        } else if (!event && m_stream->Broken()) {
            end = Reconnect();
        }
        if (end) {
            return *end;
        }
    }
    return Unreachable("the device has told nothing more about it in time; it may still be at work (arborctl status)");
}

/// The job's end, when that is what the document tells.
JobWatch::End JobWatch::Take(const json::value& document) {
    Job job = Job::From(document);
    if (!IsWanted(job)) {
        return std::nullopt;
    }
    m_lastNews = Clock::now();
    ShowStage(job, document);
    return job.HasEnded() ? End(std::move(job)) : std::nullopt;
}

bool JobWatch::IsWanted(const Job& job) {
    if (m_wanted.id.empty() && job.kind == "Check" && job.file == m_wanted.file && !m_wanted.known.contains(job.id)) {
        m_wanted.id = job.id;
    }
    return !m_wanted.id.empty() && job.id == m_wanted.id;
}

void JobWatch::ShowStage(const Job& job, const json::value& document) {
    if (m_show == Show::kNothing) {
        return;
    }
    if (m_session.settings.json) {
        m_session.PrintJson(document);
        return;
    }
    const bool told = !job.header.empty() || !job.message.empty();
    if (told) {
        m_display.Show({Escaped(job.header), Escaped(job.message), job.percent, false,
                        job.HasEnded() && !job.Succeeded(), job.HasEnded()});
    }
}

/// The device, or its arbord, may have started anew: it is asked what became of the job.
JobWatch::End JobWatch::Reconnect() {
    m_display.End();
    m_session.Note("the connection broke off; connecting again");
    auto stream = EventStream::Reopen(m_session.settings, LogLines::kWithout);
    if (!stream) {
        return Failure{stream.error().code, stream.error().text + "; how it ended is not known"};
    }
    m_stream = std::move(*stream);
    return AskForIt();
}

JobWatch::End JobWatch::AskForIt() {
    const bool byId = !m_wanted.id.empty();
    const auto answer = GetPatiently(
        m_session, byId ? "/v1/operations/" + m_wanted.id : std::string("/v1/operations?kind=check&limit=1000"));
    if (!answer) {
        return answer.error().code == ExitCode::kInterrupted
                   ? answer.error()
                   : Unreachable("the connection broke off, and the device no longer tells of it: " +
                                 answer.error().text);
    }
    if (byId) {
        return Take(*answer);
    }
    const auto& jobs = fields::List(*answer, "operations");
    for (std::size_t at = jobs.size(); at > 0; --at) {  // the oldest first
        if (auto end = Take(jobs[at - 1])) {
            return end;
        }
    }
    return std::nullopt;
}

Result<void> VerdictOn(const Job& job) {
    if (job.Succeeded()) {
        return {};
    }
    const std::string why = Escaped(job.Why());
    if (job.state == "Lost") {
        return Unreachable("how it ended is not known: " + why);
    }
    const bool named = job.state != "Cancelled" || why.find("cancel") != std::string::npos;
    return Refused(named ? why : "cancelled: " + why);
}

Failure NoJobTold(const std::string& what) {
    return Unreachable(what + ": the device did not say which job it began; how it ends can't be told");
}

}  // namespace arborctl
