#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include "Benches.h"
#include "Nodes.h"
#include "ZShared/ZFileDescriptor.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kPackage = "#!/bin/sh\ncase $1 in\n--version) echo 3.045 ;;\n--verify) echo ok ;;\nesac\n";

struct Drive {
    explicit Drive(std::size_t packages) : settings(scratch) {
        for (std::size_t index = 0; index < packages; ++index) {
            files.push_back(scratch.Write("drive/" + std::to_string(index) + ".pkg", kPackage, true));
        }
    }
    Scratch scratch;
    InstallSettings settings;
    std::vector<fs::path> files;
};

/// Runs a shell command line and reads what it says, with nothing around it.
bool RunBare(const std::string& line) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return false;
    }
    const ZFileDescriptor output(ends[0]);
    ZFileDescriptor childEnd(ends[1]);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, childEnd.Get(), STDOUT_FILENO);
    std::string shell = "/bin/sh";
    std::string option = "-c";
    std::string command = line;
    const std::array<char*, 4> arguments{shell.data(), option.data(), command.data(), nullptr};
    pid_t child = -1;
    const int failure = ::posix_spawn(&child, shell.c_str(), &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) {
        return false;
    }
    childEnd.Reset();
    std::array<char, 4096> buffer;
    while (::read(output.Get(), buffer.data(), buffer.size()) > 0) {
    }
    int status = 0;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

void ScanWithNode(benchmark::State& state, std::size_t packages) {
    const Drive drive(packages);
    const auto node = MakeInstallNode(drive.settings);
    for ([[maybe_unused]] auto _ : state) {
        auto rejected = Z_MAKE(ZMessageArray);
        if (!node->ScanDrive(drive.scratch / "drive", rejected) || !rejected->m_Messages.empty()) {
            state.SkipWithError("the node rejected a package");
            break;
        }
    }
    CountItems(state, packages);
}

void ScanBare(benchmark::State& state, std::size_t packages) {
    const Drive drive(packages);
    for ([[maybe_unused]] auto _ : state) {
        for (const fs::path& file : drive.files) {
            const std::string quoted = "'" + file.string() + "'";
            if (!RunBare(quoted + " --version") || !RunBare(quoted + " --verify verdin-imx8mm")) {
                state.SkipWithError("a package could not be run");
                return;
            }
        }
    }
    CountItems(state, packages);
}

}  // namespace

void AddScan(Report& report) {
    for (const std::size_t packages : {1U, 10U, 100U}) {
        const std::string name = "scan/" + std::to_string(packages);
        Register(name + "/node", [packages](benchmark::State& state) { ScanWithNode(state, packages); });
        Register(name + "/bare", [packages](benchmark::State& state) { ScanBare(state, packages); });
        report.Add({"scan of " + Counted(packages, "package") + ", each", name + "/node", name + "/bare",
                    Quantity::Time, 1.1});
    }
    report.Add({"scan: growth of a package's time, 10 to 100", "scan/100/node over scan/10/node",
                "scan/100/bare over scan/10/bare", Quantity::Factor, kLinear});
}
