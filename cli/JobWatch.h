#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "EventStream.h"
#include "Job.h"
#include "ProgressDisplay.h"
#include "Result.h"
#include "Session.h"

namespace arborctl {

/// Which job is meant: the one with the id; or, as long as that is not known, the first check of a file that was not
/// there before.
struct WantedJob {
    std::string id;
    std::string file;             ///< its path at the device
    std::set<std::string> known;  ///< ids of checks that are not meant
};

/// Follows one job of the device to its end, by its id: nothing that another job tells counts. Made before the job is
/// asked for, so that nothing of it is missed. One thread.
class JobWatch {
public:
    enum class Show { kProgress, kNothing };

    /// Subscribes to the device's events.
    static Result<std::unique_ptr<JobWatch>> Begin(Session& session, Show show);

    /// The job as it ended, well or not. A failure when that can't be found out: no news for the silence limit, or the
    /// connection broke and the device does not tell of the job afterwards.
    Result<Job> Follow(WantedJob wanted);

    /// The ids of all jobs that the device has told of so far.
    std::set<std::string> TakeSeen();

private:
    using End = std::optional<Result<Job>>;

    JobWatch(Session& session, Show show, std::unique_ptr<EventStream> stream);
    void Remember(const ServerEvent& event);
    End Take(const boost::json::value& document);
    bool IsWanted(const Job& job);
    void ShowStage(const Job& job, const boost::json::value& document);
    End Reconnect();
    End AskForIt();

    Session& m_session;
    Show m_show;
    std::unique_ptr<EventStream> m_stream;
    ProgressDisplay m_display;
    std::set<std::string> m_seen;
    WantedJob m_wanted;
    std::chrono::steady_clock::time_point m_lastNews;
};

/// What the end of a job means for whoever waited for it: done; or why not, in a sentence.
Result<void> VerdictOn(const Job& job);

/// The device took an order, but did not say which job it began.
Failure NoJobTold(const std::string& what);

}  // namespace arborctl
