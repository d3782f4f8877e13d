#include "Benches.h"
#include "Command.h"
#include "Nodes.h"

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
