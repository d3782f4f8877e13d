#pragma once

#include "Report.h"

// Each function registers its benchmarks and adds their rows. The repetitions of all benchmarks run shuffled, so that
// what else the machine does meets a benchmark and its limit alike.

void AddScan(Report& report);
void AddInventory(Report& report);
void AddRelay(Report& report);
void AddBus(Report& report);
void AddJson(Report& report);
void AddLink(Report& report);
void AddTransfer(Report& report);
void AddHost(Report& report);
void AddEvents(Report& report);
void AddJournal(Report& report);
void AddTrust(Report& report);

/// Work counts as linear when an item's time grows with their number at most this much more than its limit's does:
/// caches and the tables' depth make large sets a little dearer.
inline constexpr double kLinear = 1.25;

/// Registers a benchmark that is timed by the clock on the wall; further settings can be chained.
template <typename Function>
benchmark::internal::Benchmark* Register(const std::string& name, Function function) {
    return benchmark::RegisterBenchmark(name.c_str(), function)->UseRealTime();
}

/// As Register, for one that sets each iteration's time itself.
template <typename Function>
benchmark::internal::Benchmark* RegisterSelfTimed(const std::string& name, Function function) {
    return benchmark::RegisterBenchmark(name.c_str(), function)->UseManualTime();
}

/// Tells how many items each of the iterations dealt with.
inline void CountItems(benchmark::State& state, std::size_t perIteration) {
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(perIteration));
}

/// "1 package", "10 packages".
inline std::string Counted(std::size_t count, const char* thing) {
    return std::to_string(count) + ' ' + thing + (count == 1 ? "" : "s");
}
