#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>

#include "Commands.h"
#include "JsonFields.h"
#include "PageServer.h"

namespace json = boost::json;

extern char** environ;  // NOLINT(readability-redundant-declaration): not declared by every C library

namespace arborctl {
namespace {

/// A file that leads a browser to the address, for this user alone, as long as this lives. The address holds a secret,
/// and a command line is everybody's to read.
class Signpost {
public:
    explicit Signpost(const std::string& address) {
        const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
        m_path = std::string(runtime != nullptr ? runtime : "/tmp") + "/arborctl-XXXXXX.html";
        constexpr int kSuffix = 5;
        const int file = ::mkostemps(m_path.data(), kSuffix, O_CLOEXEC);
        const std::string page = "<!doctype html><meta http-equiv=\"refresh\" content=\"0;url=" + address + "\">\n";
        m_isThere = file >= 0 && ::write(file, page.data(), page.size()) == static_cast<ssize_t>(page.size());
        if (file >= 0) {
            ::close(file);
        }
    }
    ~Signpost() { ::unlink(m_path.c_str()); }
    Signpost(const Signpost&) = delete;
    Signpost& operator=(const Signpost&) = delete;

    bool IsThere() const { return m_isThere; }
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
    bool m_isThere = false;
};

bool HasScreen() {
    return std::getenv("DISPLAY") != nullptr || std::getenv("WAYLAND_DISPLAY") != nullptr;
}

/// Shows an address or a file in the person's browser.
void OpenInBrowser(std::string address) {
    // The shell ends at once; what it started is nobody's to wait for.
    std::string shell = "sh";
    std::string option = "-c";
    std::string script = "xdg-open \"$0\" > /dev/null 2>&1 < /dev/null &";
    char* const arguments[] = {shell.data(), option.data(), script.data(), address.data(), nullptr};
    pid_t process = 0;
    if (posix_spawnp(&process, shell.c_str(), nullptr, nullptr, arguments, environ) == 0) {
        waitpid(process, nullptr, 0);
    }
}

std::string Sentence(const std::string& address, const std::string& network) {
    return address + "\n" + (network.empty() ? "" : "On the network, for those who have a token: " + network + "\n") +
           "This address is good until Ctrl-C ends the command.\n";
}

}  // namespace

Result<ExitCode> ServePage(Session& session, const PageOrder& order) {
    const auto status = session.gateway.Get("/v1/status");
    if (!status) {
        return status.error();
    }
    const std::string network = fields::Text(*status, "pageAddress");
    if (order.network && network.empty()) {
        return Refused("the device has no page on the network: its gateway has no \"listen\", or no page");
    }
    PageServer server(session.settings.socketPath);
    if (order.network) {
        session.Print(json::object{{"address", network}}, network + "\n");
    } else if (const auto listens = server.Listen(order.port); !listens) {
        return listens.error();
    } else {
        session.Print(json::object{{"address", server.Address()}}, Sentence(server.Address(), network));
    }
    session.out.flush();
    const bool opens = order.open && HasScreen();
    if (order.network) {
        if (opens) {
            OpenInBrowser(network);
        }
        return ExitCode::kDone;
    }
    std::optional<Signpost> signpost;
    if (opens && signpost.emplace(server.Address()).IsThere()) {
        OpenInBrowser(signpost->Path());
    }
    server.Run();
    return ExitCode::kDone;
}

}  // namespace arborctl
