#include "ArbordRun.h"

#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

#include "ArgumentVector.h"
#include "ZShared/ZPidFd.h"

namespace fs = std::filesystem;

namespace {

constexpr int kPatienceMilliseconds = 30'000;

/// All nodes, on a machine whose identity and mounts stand in the file; no drives.
std::string GraphText(const fs::path& folder, const fs::path& journal) {
    const std::string root = folder.string();
    const std::string keeper =
        journal.empty() ? ""
                        : R"({"name":"Journal","class":"ZNodeJournal","config":{"mostRows":1000000,"databaseFile":")" +
                              journal.string() + "\"}},";
    return R"({"core":{"updatesFolder":")" + root + R"(/updates"},"log":{"console":false},"platform":{"identity":)" +
           R"({"model":"KiteQM","serialNumber":"SN42","board":"verdin-imx8mm"},"mounts":{"/dev/archive":")" + root +
           R"("}},"libraries":["libNodeArborInstall.so","libNodeStorage.so","libNodeDeviceProps.so",)" +
           (journal.empty() ? "" : R"("libNodeJournal.so",)") + R"("libNodeGateway.so"],"nodes":[)" + keeper +
           R"({"name":"ArborInstall","class":"ZNodeArborInstall","config":)" +
           R"({"ArchiveDevice":"/dev/archive","ArchiveDir":"Packages","ProgressPath":"progress"}},)" +
           R"({"name":"Storage","class":"ZNodeStorage","config":{"removableRoots":[],"roots":[")" + root +
           R"(/drives"]}},{"name":"DeviceProps","class":"ZNodeDeviceProps","config":{"deviceType":"DEVICE_CART"}},)" +
           R"({"name":"Gateway","class":"ZNodeGateway","config":{"socketPath":")" + root +
           "/gateway.sock\",\"maxEventClients\":2048,\"developerMode\":true}}]}\n";
}

/// This process's environment with the notification socket, and without a watchdog of its own.
std::vector<std::string> Environment(const fs::path& socket) {
    std::vector<std::string> variables{"NOTIFY_SOCKET=" + socket.string()};
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view variable = *entry;
        if (!variable.starts_with("NOTIFY_SOCKET=") && !variable.starts_with("WATCHDOG_")) {
            variables.emplace_back(variable);
        }
    }
    return variables;
}

}  // namespace

ArbordRun::ArbordRun(const fs::path& journal) {
    OpenNotifications();
    const auto start = std::chrono::steady_clock::now();
    Spawn(journal);
    const bool ready = WaitForReady();
    m_startTime = std::chrono::steady_clock::now() - start;
    if (!ready) {
        End();
        throw std::runtime_error("arbord did not become ready");
    }
}

ArbordRun::~ArbordRun() {
    End();
}

void ArbordRun::OpenNotifications() {
    m_notifications.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (m_scratch / "notify").string().copy(address.sun_path, sizeof address.sun_path - 1);
    if (::bind(m_notifications.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::system_error(errno, std::generic_category(), "the notification socket");
    }
}

void ArbordRun::Spawn(const fs::path& journal) {
    std::vector<std::string> arguments{(fs::read_symlink("/proc/self/exe").parent_path() / "arbord").string(),
                                       "--graph",
                                       m_scratch.Write("graph.json", GraphText(m_scratch.Path(), journal)).string()};
    std::vector<std::string> variables = Environment(m_scratch / "notify");
    // A relative path in its settings must not lead out of the scratch folder.
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addchdir_np(&actions, m_scratch.Path().c_str());
    const int failure = ::posix_spawn(&m_process, arguments[0].c_str(), &actions, nullptr,
                                      ArgumentVector(arguments).data(), ArgumentVector(variables).data());
    ::posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) {
        throw std::system_error(failure, std::generic_category(), arguments[0]);
    }
    m_exit.Reset(::pidfd_open(m_process, 0));
}

bool ArbordRun::WaitForReady() const {
    std::array<pollfd, 2> entries{{{m_notifications.Get(), POLLIN, 0}, {m_exit.Get(), POLLIN, 0}}};
    while (::poll(entries.data(), entries.size(), kPatienceMilliseconds) > 0 && entries[1].revents == 0) {
        std::array<char, 4096> buffer;
        const ssize_t count = ::recv(m_notifications.Get(), buffer.data(), buffer.size(), 0);
        if (count > 0 && std::string_view(buffer.data(), static_cast<std::size_t>(count)).starts_with("READY=1")) {
            return true;
        }
    }
    return false;
}

void ArbordRun::End() {
    if (m_process < 0) {
        return;
    }
    ::kill(m_process, SIGTERM);
    pollfd entry{m_exit.Get(), POLLIN, 0};
    if (::poll(&entry, 1, kPatienceMilliseconds) <= 0) {
        ::kill(m_process, SIGKILL);
    }
    ::waitpid(m_process, nullptr, 0);
    m_process = -1;
}
