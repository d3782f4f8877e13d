#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>

#include "Commands.h"
#include "JsonFields.h"
#include "PageServer.h"

namespace json = boost::json;

extern char** environ;  // NOLINT(readability-redundant-declaration): not declared by every C library

namespace arborctl {
namespace {

/// Shows the address in the person's browser, where there is a screen.
void OpenInBrowser(std::string address) {
    if (std::getenv("DISPLAY") == nullptr && std::getenv("WAYLAND_DISPLAY") == nullptr) {
        return;
    }
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
    if (order.open) {
        OpenInBrowser(order.network ? network : server.Address());
    }
    if (!order.network) {
        server.Run();
    }
    return ExitCode::kDone;
}

}  // namespace arborctl
