#include <csignal>
#include <exception>
#include <iostream>

#include "ArgumentVector.h"
#include "Benches.h"
#include "ZShared/ZLog.h"

namespace {

/// The table's settings come first, so that the caller's own win.
std::vector<std::string> Arguments(int argc, char** argv) {
    std::vector<std::string> texts{argc > 0 ? argv[0] : "bench_arbor", "--benchmark_repetitions=9",
                                   "--benchmark_min_time=0.1", "--benchmark_enable_random_interleaving=true"};
    texts.insert(texts.end(), argv + std::min(argc, 1), argv + argc);
    return texts;
}

/// Lines are made and kept in memory as always, but written nowhere.
bool SilenceLog() {
    ZLogSettings settings;
    settings.console = false;
    const auto silenced = ZLog::Instance().Configure(settings);
    if (!silenced) {
        std::cerr << "bench_arbor: the log could not be silenced: " << silenced.error().text << '\n';
    }
    return silenced.has_value();
}

int Run(int argc, char** argv) {
    std::vector<std::string> texts = Arguments(argc, argv);
    std::vector<char*> arguments = ArgumentVector(texts);
    int count = static_cast<int>(arguments.size()) - 1;
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()) || !SilenceLog()) {
        return 2;
    }
    Report report;
    for (const auto add : {AddScan, AddInventory, AddRelay, AddBus, AddJson, AddLink, AddTransfer, AddHost, AddEvents,
                           AddJournal, AddTrust}) {
        add(report);
    }
    benchmark::RunSpecifiedBenchmarks(&report);
    report.Print(std::cout);
    return report.IsComplete() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return Run(argc, argv);
    } catch (const std::exception& failure) {
        std::cerr << "bench_arbor: " << failure.what() << '\n';
        return 1;
    }
}
