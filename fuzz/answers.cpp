#include <sys/socket.h>

#include <array>
#include <mutex>
#include <sstream>
#include <thread>

#include "Commands.h"
#include "Fuzz.h"
#include "JsonFields.h"
#include "ProgressDisplay.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZUnixAddress.h"
#include "text/Escape.h"

namespace {

using namespace arborctl;  // NOLINT(google-build-using-namespace): it is what is fed

/// A gateway whose answers, one after the other, are what the input says.
class Device {
public:
    Device() {
        const auto address = ZUnixAddress::Of(Path());
        ::unlink(Path().c_str());
        fuzz::Must(::bind(m_listener.Get(), address->Get(), ZUnixAddress::Size()) == 0, "there is a socket");
        fuzz::Must(::listen(m_listener.Get(), 5) == 0, "it listens");
        std::thread([this] { Serve(); }).detach();
    }
    static std::string Path() { return "/tmp/arbor-fuzz-answers-" + std::to_string(::getpid()); }
    void Answer(std::string_view answers) {
        const std::lock_guard lock(m_mutex);
        m_answers = answers;
    }

private:
    void Serve() {
        while (true) {
            const ZFileDescriptor client(::accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            std::array<char, 8192> request{};
            if (::recv(client.Get(), request.data(), request.size(), 0) <= 0) {
                continue;
            }
            const std::string body = Next();
            const std::string status = body.starts_with('!') ? "409 Conflict" : "200 OK";
            const std::string text = "HTTP/1.1 " + status +
                                     "\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) +
                                     "\r\n\r\n" + body;
            for (std::string_view rest = text; !rest.empty();) {
                const ssize_t sent = ::send(client.Get(), rest.data(), rest.size(), MSG_NOSIGNAL);
                rest.remove_prefix(sent < 0 ? rest.size() : static_cast<std::size_t>(sent));
            }
            ::shutdown(client.Get(), SHUT_WR);
            while (::recv(client.Get(), request.data(), request.size(), 0) > 0) {
            }
        }
    }
    std::string Next() {
        const std::lock_guard lock(m_mutex);
        const auto end = m_answers.find('\0');
        std::string answer = m_answers.substr(0, end);
        m_answers.erase(0, end == std::string::npos ? end : end + 1);
        return answer;
    }

    ZFileDescriptor m_listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::mutex m_mutex;
    std::string m_answers;
};

using Command = Result<ExitCode> (*)(Session&);
constexpr std::array<Command, 18> kCommands{ShowStatus,
                                            ShowUpdates,
                                            [](Session& session) { return CompareVersions(session, "1", "2"); },
                                            [](Session& session) {
                                                return CheckCompatibility(session, {"1", "board", ""});
                                            },
                                            ListKeywords,
                                            [](Session& session) { return SendMessage(session, "slots", "{}"); },
                                            [](Session& session) { return ShowHistory(session, {}); },
                                            [](Session& session) { return ShowOrders(session, {}); },
                                            [](Session& session) { return ShowJob(session, "ab"); },
                                            [](Session& session) {
                                                return Install(session, {"1", "", true, false});
                                            },
                                            [](Session& session) {
                                                return Transfer(session, {"1", "4711", "", false});
                                            },
                                            [](Session& session) {
                                                return RemoteInstall(session, {"1", "4711", "", false});
                                            },
                                            ShowTrust,
                                            ShowSlots,
                                            ConfirmVersion,
                                            [](Session& session) { return AllowVersion(session, "1"); },
                                            ShowPeers,
                                            ShowKeys};

/// Whether a terminal shows it as it is: no control characters, nothing invisible.
bool IsForTerminals(const std::string& lines) {
    std::istringstream rest(lines);
    for (std::string line; std::getline(rest, line);) {
        if (text::Escaped(line) != line) {
            std::cerr << text::Escaped(line) << '\n';
            return false;
        }
    }
    return true;
}

}  // namespace

// What a device answers to arborctl: it is shown to people, so nothing of it may be more than text.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Device& device = *new Device;  // its thread runs until the program ends
    std::string_view rest = fuzz::Text(data, size);
    const std::uint8_t choice = fuzz::TakeByte(rest);
    device.Answer(rest);
    std::ostringstream out;
    std::ostringstream err;
    Settings settings;
    settings.socketPath = Device::Path();
    settings.json = (choice & 0x80U) != 0;
    Session session(settings, out, err);
    session.Finish(kCommands.at(choice % 0x80U % kCommands.size())(session));
    fuzz::Must((settings.json || IsForTerminals(out.str())) && IsForTerminals(err.str()), "it is plain text");
    if (const auto document = fields::Parse(rest)) {
        const Progress progress = Progress::From(*document);
        fuzz::Must(IsForTerminals(progress.header + progress.message), "progress is plain text");
        fuzz::Must(progress.percent >= 0 && progress.percent <= 100, "a percentage is one");
    }
    return 0;
}
