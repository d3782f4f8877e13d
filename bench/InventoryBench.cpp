#include <fcntl.h>

#include "Benches.h"
#include "Nodes.h"
#include "ZShared/ZFileDescriptor.h"

namespace fs = std::filesystem;

namespace {

struct Archive {
    explicit Archive(std::size_t versions) : settings(scratch) {
        for (std::size_t index = 0; index < versions; ++index) {
            const std::string version = "3." + std::to_string(index);
            scratch.Write("archive/" + version + "/Manifest.json", ManifestText(version));
            scratch.Write("archive/" + version + "/arbor_qm.pkg", "package");
        }
    }
    Scratch scratch;
    InstallSettings settings;
};

/// The archive of that size, made once and kept for all repetitions.
const Archive& ArchiveOf(std::size_t versions) {
    static std::map<std::size_t, Archive> archives;
    return archives.try_emplace(versions, versions).first->second;
}

void ReadWithNode(benchmark::State& state, std::size_t versions) {
    const Archive& archive = ArchiveOf(versions);
    archive.settings.UseMachine();
    for ([[maybe_unused]] auto _ : state) {
        auto node = MakeInstallNode(archive.settings);
        state.PauseTiming();
        ZSoftwareVersion last(ToZString("3." + std::to_string(versions - 1)));
        if (node->GetBuild(last).empty()) {
            state.SkipWithError("a version is missing in the inventory");
        }
        node.reset();
        state.ResumeTiming();
    }
    CountItems(state, versions);
}

/// The bytes that a walk over the version directories reads from their manifests.
std::size_t WalkBare(const fs::path& root) {
    std::size_t bytes = 0;
    std::string text;
    for (const fs::directory_entry& entry : fs::directory_iterator(root)) {
        if (!entry.is_directory()) {
            continue;
        }
        const ZFileDescriptor file(::open((entry.path() / "Manifest.json").c_str(), O_RDONLY | O_CLOEXEC));
        text.resize(fs::file_size(entry.path() / "Manifest.json"));
        const ssize_t count = ::read(file.Get(), text.data(), text.size());
        bytes += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    return bytes;
}

void ReadBare(benchmark::State& state, std::size_t versions) {
    const fs::path root = ArchiveOf(versions).scratch / "archive";
    for ([[maybe_unused]] auto _ : state) {
        if (WalkBare(root) == 0) {
            state.SkipWithError("nothing was read");
        }
    }
    CountItems(state, versions);
}

}  // namespace

void AddInventory(Report& report) {
    for (const std::size_t versions : {10U, 100U, 1000U, 10000U}) {
        const std::string name = "inventory/" + std::to_string(versions);
        Register(name + "/node", [versions](benchmark::State& state) { ReadWithNode(state, versions); });
        Register(name + "/bare", [versions](benchmark::State& state) { ReadBare(state, versions); });
        report.Add({"inventory of " + Counted(versions, "version") + ", each", name + "/node", name + "/bare",
                    Quantity::Time, 3});
    }
    report.Add({"inventory: growth of a version's time, 100 to 10000", "inventory/10000/node over inventory/100/node",
                "inventory/10000/bare over inventory/100/bare", Quantity::Factor, kLinear});
}
