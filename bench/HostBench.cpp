#include <fstream>
#include <thread>

#include "ArbordRun.h"
#include "Benches.h"

namespace fs = std::filesystem;

namespace {

constexpr double kMostResident = 15e6;  // bytes
constexpr double kLongestStart = 0.05;  // seconds
constexpr auto kSettle = std::chrono::seconds(2);
constexpr auto kIdle = std::chrono::seconds(5);
constexpr int kSpans = 4;

/// The number behind `key` in one of the kernel's status files.
double StatusNumber(const fs::path& file, const std::string& key) {
    std::ifstream input(file);
    for (std::string line; std::getline(input, line);) {
        if (line.starts_with(key + ':')) {
            return std::stod(line.substr(key.size() + 1));
        }
    }
    throw std::runtime_error(file.string() + " has no " + key);
}

/// How often the process's threads have gone to sleep: once for each time that something woke them.
double Sleeps(const fs::path& process) {
    double sleeps = 0;
    for (const fs::directory_entry& thread : fs::directory_iterator(process / "task")) {
        sleeps += StatusNumber(thread.path() / "status", "voluntary_ctxt_switches");
    }
    return sleeps;
}

/// Wake-ups a second in the quietest of a few spans: a periodic one is in each of them, while a mount that somebody
/// else makes on this machine wakes the process now and then.
double WakeUps(const fs::path& process) {
    double fewest = std::numeric_limits<double>::infinity();
    for (int span = 0; span < kSpans && fewest > 0; ++span) {
        const double before = Sleeps(process);
        std::this_thread::sleep_for(kIdle);
        fewest = std::min(fewest, (Sleeps(process) - before) / static_cast<double>(kIdle.count()));
    }
    return fewest;
}

void StartHost(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        state.SetIterationTime(ArbordRun().StartTime().count());
    }
    CountItems(state, 1);
}

void LeaveHostIdle(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        const ArbordRun arbord;
        const fs::path process = "/proc/" + std::to_string(arbord.Process());
        std::this_thread::sleep_for(kSettle);
        state.counters["wakeups"] = WakeUps(process);
        state.counters["threads"] = StatusNumber(process / "status", "Threads");
        state.counters["resident"] = StatusNumber(process / "status", "VmRSS") * 1024;
    }
}

}  // namespace

void AddHost(Report& report) {
    Register("host/idle", LeaveHostIdle)->Iterations(1)->Repetitions(1);
    RegisterSelfTimed("host/start", StartHost)->Iterations(2);
    report.Add({"arbord idle: resident memory", "host/idle#resident", "", Quantity::Megabytes, kMostResident});
    report.Add({"arbord idle: threads", "host/idle#threads", "", Quantity::Count, kNoGoal});
    report.Add({"arbord idle: wake-ups a second", "host/idle#wakeups", "", Quantity::Count, 0});
    report.Add({"arbord: start until ready", "host/start", "", Quantity::Time, kLongestStart});
}
