#include <sqlite3.h>
#include <sys/socket.h>

#include <fstream>
#include <thread>

#include "ArbordRun.h"
#include "Benches.h"
#include "Nodes.h"
#include "ProcessStatus.h"
#include "ZMessages/OperationMessages.h"
#include "ZNodeJournal.h"
#include "ZShared/ZUnixAddress.h"

namespace fs = std::filesystem;

namespace {

constexpr int kMany = 100'000;
constexpr int kPage = 100;
constexpr double kMostMemory = 2e6;  // bytes
constexpr auto kSettle = std::chrono::seconds(2);

/// A database, opened bare.
class Bare {
public:
    explicit Bare(const fs::path& file) {
        if (::sqlite3_open(file.c_str(), &m_handle) != SQLITE_OK) {
            throw std::runtime_error(file.string() + " can't be opened");
        }
    }
    ~Bare() { ::sqlite3_close(m_handle); }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;

    void Run(const std::string& text) {
        if (::sqlite3_exec(m_handle, text.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
            throw std::runtime_error(::sqlite3_errmsg(m_handle));
        }
    }

private:
    sqlite3* m_handle = nullptr;
};

/// The journal with a node that has jobs.
struct Journal {
    explicit Journal(const fs::path& file) {
        record->m_DatabaseFile = ToZString(file.string());
        record->m_MostRows = 1'000'000;
        AddNode(graph, "ZNodeJournal", "Journal", record);
        worker = AddNode(graph, "ZNode", "worker");
        StartGraph(graph);
    }
    std::shared_ptr<ZOperationsMsg> Ask(const ZString& id = "", const ZString& state = "") const {
        const auto request = ZMakeShared<ZOperationsRequestMsg>();
        request->m_Id = id;
        request->m_State = state;
        std::shared_ptr<ZMessage> answer;
        worker->Publish(worker->GetEndpoint(ZEndpointType::GraphService, "operations", 0), request, &answer);
        return cast_shared<ZOperationsMsg>(answer);
    }

    std::shared_ptr<ZNodeJournalCfg> record = ZMakeShared<ZNodeJournalCfg>("Journal");
    ZGraph graph{ZMakeShared<ZCoreConfigParams>()};
    std::shared_ptr<ZNode> worker;
};

/// A journal's file with so many jobs that have ended.
fs::path MakeFile(const Scratch& scratch, int jobs) {
    const fs::path file = scratch / "journal.sqlite";
    { const Journal journal(file); }
    Bare(file).Run(
        "INSERT INTO operations(number, id, state, version, file, asker, reason, createdAt)"
        " WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
        std::to_string(jobs) +
        ") SELECT i, lower(hex(randomblob(8))), 2 + i % 3, '3.046', '/media/usb1/arbor-3.046.pkg', 'user alice',"
        " 'the signer of this package is not known here', 1700000000000 + i FROM n");
    return file;
}

void BeginAndSettle(benchmark::State& state) {
    const Scratch scratch;
    const Journal journal(scratch / "journal.sqlite");
    for ([[maybe_unused]] auto _ : state) {
        const auto job = journal.worker->BeginOperation({.file = "/media/usb1/arbor-3.046.pkg"});
        job->Succeed();
        if (journal.Ask(job->Id())->m_Operations.empty()) {
            state.SkipWithError("a job is missing");
        }
    }
    CountItems(state, 2);
}

void CommitBare(benchmark::State& state) {
    const Scratch scratch;
    Bare bare(scratch / "bare.sqlite");
    bare.Run(
        "PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA cache_size=-128;"
        "PRAGMA wal_autocheckpoint=256; CREATE TABLE jobs(number INTEGER PRIMARY KEY, job TEXT)");
    const std::string insert = "INSERT INTO jobs(job) VALUES('" + std::string(200, 'x') + "')";
    for ([[maybe_unused]] auto _ : state) {
        bare.Run(insert);
    }
    CountItems(state, 1);
}

/// How often this process has written to anything.
double Writes() {
    std::ifstream input("/proc/self/io");
    for (std::string key, value; input >> key >> value;) {
        if (key == "syscw:") {
            return std::stod(value);
        }
    }
    throw std::runtime_error("/proc/self/io has no syscw");
}

void TellProgress(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        const Scratch scratch;
        const Journal journal(scratch / "journal.sqlite");
        const auto job = journal.worker->BeginOperation({});
        job->Start();
        journal.Ask();
        const double before = Writes();
        for (int percent = 0; percent < 1000; ++percent) {
            job->Tell("Install", "writing", percent % 100);
        }
        journal.Ask();
        state.counters["writes"] = Writes() - before;
        job->Succeed();
    }
}

void AskForNewest(benchmark::State& state, int jobs) {
    const Scratch scratch;
    const Journal journal(MakeFile(scratch, jobs));
    for ([[maybe_unused]] auto _ : state) {
        if (journal.Ask()->m_Operations.size() != kPage) {
            state.SkipWithError("the page is not full");
        }
    }
    CountItems(state, 1);
}

/// The size of the answer.
std::size_t Get(const ZUnixAddress& address, const std::string& path) {
    const ZFileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const std::string request = "GET " + path + " HTTP/1.1\r\nConnection: close\r\n\r\n";
    if (::connect(socket.Get(), address.Get(), ZUnixAddress::Size()) != 0 ||
        ::send(socket.Get(), request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
        throw std::system_error(errno, std::generic_category(), "the gateway");
    }
    std::size_t size = 0;
    std::array<char, 16384> buffer;
    for (ssize_t count = 1; count > 0; size += static_cast<std::size_t>(std::max<ssize_t>(count, 0))) {
        count = ::recv(socket.Get(), buffer.data(), buffer.size(), 0);
    }
    return size;
}

void AskForStatus(benchmark::State& state, int jobs) {
    const Scratch scratch;
    const ArbordRun arbord(MakeFile(scratch, jobs));
    const auto address = ZUnixAddress::Of(arbord.Socket());
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(Get(*address, "/v1/status"));
    }
    CountItems(state, 1);
}

double IdleMemory(const ArbordRun& arbord) {
    std::this_thread::sleep_for(kSettle);
    return ProcessStatus(arbord.Process()).ResidentBytes();
}

void LeaveJournalIdle(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        const Scratch scratch;
        const double with = IdleMemory(ArbordRun(MakeFile(scratch, kMany)));
        state.counters["resident"] = with - IdleMemory(ArbordRun());
    }
}

}  // namespace

void AddJournal(Report& report) {
    Register("journal/change", BeginAndSettle);
    Register("journal/bare", CommitBare);
    Register("journal/progress", TellProgress)->Iterations(1);
    report.Add({"journal: each change of a job, on the disk", "journal/change", "journal/bare", Quantity::Time, 1.5});
    report.Add({"journal: writes for 1,000 progress updates", "journal/progress#writes", "", Quantity::Count, 0});
    for (const auto& [name, jobs] : {std::pair("few", kPage), std::pair("many", kMany)}) {
        Register(std::string("journal/page/") + name, [jobs](benchmark::State& state) { AskForNewest(state, jobs); });
        Register(std::string("journal/status/") + name, [jobs](benchmark::State& state) { AskForStatus(state, jobs); });
    }
    report.Add(
        {"journal of 100,000 jobs: the newest page", "journal/page/many", "journal/page/few", Quantity::Time, 1.5});
    report.Add({"journal of 100,000 jobs: status", "journal/status/many", "journal/status/few", Quantity::Time, 1.5});
    Register("journal/idle", LeaveJournalIdle)->Iterations(1);
    report.Add(
        {"journal of 100,000 jobs, idle: memory", "journal/idle#resident", "", Quantity::Megabytes, kMostMemory});
}
