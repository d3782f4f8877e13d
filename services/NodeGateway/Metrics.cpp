#include "Metrics.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <sstream>

#include "ZShared/ZAllocator.h"
#include "ZShared/ZLog.h"

namespace gateway {

namespace {

/// One family of samples: its description, then the samples that are added.
class Family {
public:
    Family(std::ostream& out, const char* name, const char* type, const char* help) : m_out(out), m_name(name) {
        out << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
    }
    template <typename T>
    Family& Add(const T& value, const std::string& labels = {}) {
        m_out << m_name << (labels.empty() ? labels : '{' + labels + '}') << ' ' << value << '\n';
        return *this;
    }

private:
    std::ostream& m_out;
    const char* const m_name;
};

double Seconds(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// When this process started, in seconds since 1970; none where the kernel does not tell.
std::optional<double> ProcessStart() {
    std::string line;
    std::getline(std::ifstream("/proc/self/stat"), line);
    // The second field, the program's name in parentheses, may hold blanks; 19 more lie between it and the start.
    std::istringstream fields(line.substr(std::min(line.size(), line.rfind(')') + 1)));
    std::string skipped;
    for (int index = 0; index < 19; ++index) {
        fields >> skipped;
    }
    double ticks = 0;
    if (!(fields >> ticks)) {
        return std::nullopt;
    }
    const double boot = Seconds(CLOCK_REALTIME) - Seconds(CLOCK_BOOTTIME);
    return boot + ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

std::string Label(const char* name, const std::string& value) {
    return std::string(name) + "=\"" + value + '"';
}

template <typename Enum>
std::string Named(Enum value) {
    return std::string(magic_enum::enum_name(value));
}

constexpr std::size_t kMostOpenOperations = 10'000;

}  // namespace

Metrics::Metrics()
    : m_logListener(ZLog::Instance().AddListener(
          [this](const ZLogLine& line) { ++m_logLines[static_cast<std::size_t>(std::clamp(line.level, 0, 4))]; })) {}

Metrics::~Metrics() {
    ZLog::Instance().RemoveListener(m_logListener);
}

void Metrics::CountRequest(const std::string& keyword, int status) {
    const std::lock_guard lock(m_mutex);
    ++m_requests[{keyword, status}];
}

void Metrics::CountOperation(const ZOperationMsg& job) {
    const std::lock_guard lock(m_mutex);
    if (!job.IsOpen()) {
        m_openOperations.erase(job.m_Id);
        ++m_operations[{job.m_Kind, job.m_State}];
    } else if (m_openOperations.size() < kMostOpenOperations) {
        m_openOperations[job.m_Id] = job.m_Kind;
    }
}

void Metrics::AddOperations(std::ostream& out) const {
    const std::lock_guard lock(m_mutex);
    Family ended(out, "arbor_operations_total", "counter", "Jobs that have ended, by kind and how.");
    for (const auto& [key, count] : m_operations) {
        ended.Add(count, Label("kind", Named(key.first)) + ',' + Label("state", Named(key.second)));
    }
    Family open(out, "arbor_operations_open", "gauge", "Jobs that wait or run, by kind.");
    std::map<ZOperationKind, std::uint64_t> kinds;
    for (const ZOperationKind kind : magic_enum::enum_values<ZOperationKind>()) {
        kinds[kind] = 0;
    }
    for (const auto& [id, kind] : m_openOperations) {
        ++kinds[kind];
    }
    for (const auto& [kind, count] : kinds) {
        open.Add(count, Label("kind", Named(kind)));
    }
}

void Metrics::AddTrials(std::ostream& out, const ZSlotsMsg& trials) {
    const auto add = [&](const char* name, std::string_view what, const char* help) {
        const auto found =
            std::ranges::find(trials.m_Counts, what, [](const auto& each) { return std::string_view(each->m_What); });
        if (found != trials.m_Counts.end()) {
            Family(out, name, "counter", help).Add((*found)->m_Count);
        }
    };
    add("arbor_trials_begun_total", "begun", "Versions that had to prove themselves.");
    add("arbor_trials_confirmed_total", "confirmed", "Versions that did.");
    {
        Family back(out, "arbor_trials_taken_back_total", "counter", "Versions that were taken back, by cause.");
        for (const auto& each : trials.m_Counts) {
            if (each->m_What != "begun" && each->m_What != "confirmed") {
                back.Add(each->m_Count, Label("cause", ToStdString(each->m_What)));
            }
        }
    }
    const bool isUnderWay = trials.m_State == "trial";
    Family(out, "arbor_trial_starts_used", "gauge", "Starts that the version on trial has used; 0 when none is.")
        .Add(isUnderWay ? trials.m_Attempt : 0);
    Family(out, "arbor_trial_starts", "gauge", "Starts that a version has to prove itself.").Add(trials.m_Attempts);
}

std::string Metrics::Text(const Gauges& gauges) const {
    std::ostringstream out;
    const ZAllocatorUsage memory = ZAllocatorAccount::Usage();
    Family(out, "arbor_memory_bytes", "gauge", "Memory of messages and nodes.")
        .Add(memory.inUse, Label("state", "in_use"))
        .Add(memory.peak, Label("state", "peak"));
    {
        Family requests(out, "arbor_requests_total", "counter", "Requests by keyword and status of the answer.");
        const std::lock_guard lock(m_mutex);
        for (const auto& [key, count] : m_requests) {
            requests.Add(count, Label("keyword", key.first) + ',' + Label("code", std::to_string(key.second)));
        }
    }
    Family(out, "arbor_event_clients", "gauge", "Open event streams.").Add(gauges.eventListeners);
    Family(out, "arbor_event_clients_dropped_total", "counter", "Event streams ended because they were too slow.")
        .Add(gauges.droppedListeners);
    if (gauges.progressPercent) {
        Family(out, "arbor_progress_percent", "gauge", "Progress of the last install.").Add(*gauges.progressPercent);
    }
    if (gauges.updateInProgress) {
        Family(out, "arbor_update_in_progress", "gauge", "1 while an install is under way.")
            .Add(*gauges.updateInProgress ? 1 : 0);
    }
    AddOperations(out);
    if (gauges.trials) {
        AddTrials(out, *gauges.trials);
    }
    Family lines(out, "arbor_log_lines_total", "counter", "Log lines by level: 1 detail to 4 error.");
    for (std::size_t level = 1; level < m_logLines.size(); ++level) {
        lines.Add(m_logLines[level].load(), Label("level", std::to_string(level)));
    }
    if (const auto start = ProcessStart()) {
        out.precision(3);
        out << std::fixed;
        Family(out, "process_start_time_seconds", "gauge", "When the process started.").Add(*start);
    }
    return out.str();
}

}  // namespace gateway
