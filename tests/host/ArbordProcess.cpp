#include "ArbordProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

ArbordProcess::ArbordProcess(std::vector<std::string> arguments, const std::filesystem::path& output)
    : m_notifications(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    const std::string address = m_folder / "notify";
    sockaddr_un name{AF_UNIX, {}};
    address.copy(name.sun_path, sizeof name.sun_path - 1);
    if (::bind(m_notifications.Get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
        throw std::runtime_error("no socket could be bound at " + address);
    }
    ::setenv("NOTIFY_SOCKET", address.c_str(), 1);
    ::setenv("ARBOR_TEST", m_folder.Path().c_str(), 1);
    arguments.insert(arguments.begin(), ARBORD);
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    const std::filesystem::path target = output.empty() ? m_folder / "output" : output;
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, target.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    const int failure = ::posix_spawn(&m_id, ARBORD, &actions, nullptr, pointers.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) {
        throw std::system_error(failure, std::generic_category(), ARBORD);
    }
}

ArbordProcess::~ArbordProcess() {
    if (!m_exit) {
        Signal(SIGKILL);
        ::waitpid(m_id, nullptr, 0);
    }
}

bool ArbordProcess::SignalAndWait(int signal) const {
    Signal(signal);
    return WaitUntil([this] {
        const std::string status = ReadText("/proc/" + std::to_string(m_id) + "/status");
        return status.find("ShdPnd:\t0000000000000000") != std::string::npos;
    });
}

std::optional<int> ArbordProcess::WaitForExit() {
    WaitUntil([this] {
        int status = 0;
        if (!m_exit && ::waitpid(m_id, &status, WNOHANG) == m_id) {
            m_exit = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        }
        return m_exit.has_value();
    });
    return m_exit;
}

bool ArbordProcess::WaitForOutput(const std::string& text) const {
    return WaitUntil([&] { return Output().find(text) != std::string::npos; });
}

bool ArbordProcess::WaitForNotification(const std::string& text) const {
    return WaitUntil([&] {
        std::string told(4096, '\0');
        const ssize_t size = ::recv(m_notifications.Get(), told.data(), told.size(), 0);
        told.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        return told.ends_with(text);
    });
}
