#include "Session.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <ostream>

namespace json = boost::json;

namespace arborctl {

void Session::PrintJson(const json::value& document) {
    out << json::serialize(document) << "\n" << std::flush;
}

void Session::Print(const json::value& document, const std::string& text) {
    if (settings.json) {
        PrintJson(document);
    } else {
        out << text << std::flush;
    }
}

void Session::Note(const std::string& text) {
    err << "arborctl: " << text << "\n" << std::flush;
}

int Session::Fail(const Failure& failure) {
    const int status = static_cast<int>(failure.code);
    if (settings.json && failure.code != ExitCode::kInterrupted) {
        PrintJson(json::object{{"error", failure.text}, {"exitCode", status}});
    }
    Note(failure.text);
    return status;
}

bool Session::HasReader() const {
    return out.good() && OutputHasReader();
}

ExitCode Session::Refuse(const json::value& document, const std::string& text) {
    if (settings.json) {
        PrintJson(document);
    } else {
        Note(text);
    }
    return ExitCode::kRefused;
}

int Session::Finish(const Result<ExitCode>& result) {
    return result ? static_cast<int>(*result) : Fail(result.error());
}

bool OutputHasReader() {
    pollfd output{STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) <= 0 || (output.revents & (POLLERR | POLLNVAL)) == 0;
}

std::size_t OutputColumns() {
    constexpr std::size_t kUsualColumns = 80;
    if (isatty(STDOUT_FILENO) == 0) {
        return 0;
    }
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : kUsualColumns;
}

}  // namespace arborctl
