#include <fcntl.h>
#include <openssl/evp.h>

#include <random>

#include "BareQueue.h"
#include "Benches.h"
#include "Nodes.h"
#include "ZMessages/OperationMessages.h"
#include "ZNodeFileIO.h"
#include "ZShared/ZFileDescriptor.h"

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBytes = std::size_t{256} << 20U;
constexpr std::size_t kChunk = 776'700;  // as a file message carries it
constexpr const char* kVersion = "3.045";
constexpr auto kPatience = std::chrono::seconds(60);

/// The package's bytes, always the same: the generator starts from its own seed.
std::string Content() {
    std::string bytes(kBytes, '\0');
    std::mt19937_64 generator;
    for (std::size_t place = 0; place < bytes.size(); place += sizeof(std::uint64_t)) {
        const std::uint64_t number = generator();
        bytes.replace(place, sizeof number, reinterpret_cast<const char*>(&number), sizeof number);
    }
    return bytes;
}

/// Writes a new file in chunks, safe on the disk.
bool WriteFile(const std::string& bytes, const fs::path& path) {
    const ZFileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    std::size_t place = 0;
    ssize_t count = 1;
    while (place < bytes.size() && count > 0) {
        count = ::write(file.Get(), bytes.data() + place, std::min(kChunk, bytes.size() - place));
        place += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    return place == bytes.size() && ::fsync(file.Get()) == 0;
}

/// The package in an archive, made once and kept for all repetitions.
struct Package {
    Package() : settings(scratch) {
        const std::string folder = std::string("archive/") + kVersion;
        scratch.Write(folder + "/Manifest.json", ManifestText(kVersion));
        // On the disk, which is not to be busy with it later.
        if (!WriteFile(Content(), scratch / (folder + "/arbor_qm.pkg"))) {
            throw std::runtime_error("the package could not be written");
        }
    }
    Scratch scratch;
    InstallSettings settings;
};

const Package& ThePackage() {
    static const Package package;
    return package;
}

/// How transfers end, as their jobs tell it. Make it before the graph whose node listens: it has to outlive that.
class TransferEnds {
public:
    void ListenOn(ZNode& node) {
        const auto listen = [this](const std::shared_ptr<ZMessage>& message) { return Take(message); };
        if (!node.Subscribe(node.GetEndpoint(ZEndpointType::GraphService, "operation", 0), listen)) {
            throw std::runtime_error("nothing tells how transfers end");
        }
    }

    bool WaitForSuccess() { return m_ends.PopWithin(kPatience) == ZOperationState::Succeeded; }

private:
    bool Take(const std::shared_ptr<ZMessage>& message) {
        const auto job = cast_shared<ZOperationMsg>(message);
        if (job && job->m_Kind == ZOperationKind::Transfer && !job->IsOpen()) {
            m_ends.Push(job->m_State);
        }
        return true;
    }

    BareQueue<ZOperationState> m_ends;
};

/// Has the node send the package to this device itself. False when it refuses, or the file does not arrive whole.
bool Transfer(ZNode& asking, TransferEnds& ends) {
    const auto request = Z_MAKE(TransferMsg);
    request->m_Version = kVersion;
    request->m_SerialNumber = "SN42";
    std::shared_ptr<ZMessage> response;
    asking.Publish(asking.GetEndpoint(ZEndpointType::DeviceRequest, "transfer", 0), request, &response);
    const auto answer = cast_shared<ZGenericResponseMsg>(response);
    return answer && answer->m_bSuccess && ends.WaitForSuccess();
}

void SetSecondsSince(benchmark::State& state, Clock::time_point start) {
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
}

void TransferWithNodes(benchmark::State& state) {
    const InstallSettings& settings = ThePackage().settings;
    settings.UseMachine();
    TransferEnds ends;
    ZGraph graph(settings.core);
    AddNode(graph, ZNodeArborInstall::kClassName, "ArborInstall", settings.record);
    AddNode(graph, ZNodeFileIO::kClassName, "FileIO", ZMakeShared<ZNodeFileIOCfg>());
    const auto asking = AddNode(graph, ZNode::kClassName, "Asking");
    ends.ListenOn(*asking);
    StartGraph(graph);
    const fs::path file = ThePackage().scratch / "updates/arbor_qm.pkg";
    for ([[maybe_unused]] auto _ : state) {
        const auto start = Clock::now();
        const bool arrived = Transfer(*asking, ends);
        SetSecondsSince(state, start);
        if (!arrived || fs::file_size(file) != kBytes) {
            state.SkipWithError("the package did not arrive");
            break;
        }
        fs::remove(file);
    }
    graph.Stop();
    CountItems(state, 1);
}

std::size_t EncodeBare(const std::string& bytes) {
    std::vector<unsigned char> text((kChunk + 2) / 3 * 4 + 1);
    std::size_t count = 0;
    for (std::size_t place = 0; place < bytes.size(); place += kChunk) {
        const auto* chunk = reinterpret_cast<const unsigned char*>(bytes.data()) + place;
        const auto size = static_cast<int>(std::min(kChunk, bytes.size() - place));
        count += static_cast<std::size_t>(::EVP_EncodeBlock(text.data(), chunk, size));
        benchmark::ClobberMemory();
    }
    return count;
}

void TransferBare(benchmark::State& state) {
    const std::string bytes = Content();
    const fs::path file = ThePackage().scratch / "updates/bare";
    fs::create_directories(file.parent_path());
    for ([[maybe_unused]] auto _ : state) {
        const auto start = Clock::now();
        const bool encoded = EncodeBare(bytes) > bytes.size();
        const bool written = WriteFile(bytes, file);
        SetSecondsSince(state, start);
        if (!encoded || !written) {
            state.SkipWithError("the bytes could not be written");
            break;
        }
        fs::remove(file);
    }
    CountItems(state, 1);
}

}  // namespace

void AddTransfer(Report& report) {
    RegisterSelfTimed("transfer/nodes", TransferWithNodes)->Iterations(1);
    RegisterSelfTimed("transfer/bare", TransferBare)->Iterations(1);
    report.Add({"transfer of 256 MiB in process", "transfer/nodes", "transfer/bare", Quantity::Time, 1.5});
}
