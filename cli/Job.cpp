#include "Job.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include "JsonFields.h"
#include "TimeText.h"

namespace arborctl {
namespace {

constexpr std::array<std::string_view, 4> kEnds{"Succeeded", "Failed", "Cancelled", "Lost"};

/// "RemoteInstall" as "remote-install".
std::string Word(const std::string& name) {
    std::string word;
    for (const char letter : name) {
        const auto byte = static_cast<unsigned char>(letter);
        word += std::isupper(byte) != 0 && !word.empty() ? "-" : "";
        word += static_cast<char>(std::tolower(byte));
    }
    return word;
}

}  // namespace

Job Job::From(const boost::json::value& document) {
    const auto text = [&](const char* key) { return fields::Text(document, key); };
    Job job;
    job.id = text("id");
    job.parent = text("parent");
    job.kind = text("kind");
    job.state = text("state");
    job.version = text("version");
    job.file = text("file");
    job.device = text("device");
    job.asker = text("asker");
    job.node = text("node");
    job.header = text("header");
    job.message = text("message");
    job.reason = text("reason");
    job.errorCode = text("errorCode");
    job.percent = static_cast<int>(std::clamp<std::int64_t>(fields::Number(document, "percent"), 0, 100));
    job.createdAt = fields::Number(document, "createdAt");
    job.startedAt = fields::Number(document, "startedAt");
    job.endedAt = fields::Number(document, "endedAt");
    job.took = fields::Number(document, "took");
    return job;
}

bool Job::HasEnded() const {
    return std::ranges::find(kEnds, state) != kEnds.end();
}

std::string Job::KindWord() const {
    return Word(kind);
}

std::string Job::StateWord() const {
    return Word(state);
}

std::string Job::What() const {
    // An install's and a transfer's file is where the version was found: the version says it.
    const bool aboutFile = kind == "Check" || kind == "Scan" || kind == "Upload" || version.empty();
    std::string what = aboutFile ? file : version;
    if (aboutFile && !version.empty()) {
        what += (what.empty() ? "" : " ") + ("(" + version + ")");
    }
    if (!device.empty()) {
        what += (what.empty() ? "" : " ") + std::string(kind == "Transfer" ? "to " : "on ") + device;
    }
    return what;
}

std::string Job::Title() const {
    const std::string what = What();
    return KindWord() + (what.empty() ? "" : " ") + what;
}

std::string Job::Stage() const {
    if (header.empty() && message.empty()) {
        return {};
    }
    const bool both = !header.empty() && !message.empty();
    return header + (both ? ": " : "") + message + ", " + std::to_string(percent) + " %";
}

std::string Job::Why() const {
    if (!reason.empty() || !HasEnded() || Succeeded()) {
        return reason;
    }
    return state == "Cancelled" ? "cancelled" : "it does not say why";
}

std::string Job::Duration() const {
    return took <= 0 ? std::string() : DurationText(took);
}

}  // namespace arborctl
