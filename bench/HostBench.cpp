#include <thread>

#include "ArbordRun.h"
#include "Benches.h"
#include "ProcessStatus.h"

namespace {

constexpr double kMostResident = 15e6;  // bytes
constexpr double kLongestStart = 0.05;  // seconds
constexpr auto kSettle = std::chrono::seconds(2);
constexpr auto kIdle = std::chrono::seconds(5);
constexpr int kSpans = 4;

/// Wake-ups a second in the quietest of a few spans: a periodic one is in each of them, while a mount that somebody
/// else makes on this machine wakes the process now and then.
double WakeUps(const ProcessStatus& process) {
    double fewest = std::numeric_limits<double>::infinity();
    for (int span = 0; span < kSpans && fewest > 0; ++span) {
        const double before = process.Sleeps();
        std::this_thread::sleep_for(kIdle);
        fewest = std::min(fewest, (process.Sleeps() - before) / static_cast<double>(kIdle.count()));
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
        const ProcessStatus process(arbord.Process());
        std::this_thread::sleep_for(kSettle);
        state.counters["wakeups"] = WakeUps(process);
        state.counters["threads"] = process.Threads();
        state.counters["resident"] = process.ResidentBytes();
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
