#include "doctor/Facts.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>

#include "JsonFields.h"
#include "Reachability.h"

namespace json = boost::json;

namespace arborctl::doctor {
namespace {

constexpr std::chrono::seconds kPatience{6};  // the device itself gives its parts 5
constexpr const char* kUsualGraph = "/etc/arbor/graph.json";
constexpr std::size_t kLargestFile = std::size_t{1024} * 1024;
const json::value kNull;

void ReadGraph(Facts& facts) {
    const auto text = ReadText(facts.graphFile, facts.graphProblem);
    if (!text) {
        return;
    }
    const auto document = fields::Parse(*text);
    if (!document || !document->is_object()) {
        facts.isGraphBroken = true;
        facts.graphProblem = document ? "it is no JSON object" : document.error().text;
        return;
    }
    facts.graph = *document;
}

/// The device's answer; null when there is none.
json::value Asked(const Result<json::value>& answer) {
    return answer ? *answer : json::value();
}

}  // namespace

std::optional<std::string> ReadText(const std::string& file, std::string& problem) {
    std::ifstream stream(file, std::ios::binary);
    std::string text(kLargestFile, '\0');
    if (!stream || (!stream.read(text.data(), static_cast<std::streamsize>(text.size())) && !stream.eof())) {
        problem = errno == EACCES ? "not readable for you" : std::strerror(errno);
        return std::nullopt;
    }
    text.resize(static_cast<std::size_t>(stream.gcount()));
    return text;
}

const json::value& Facts::Node(std::string_view className) const {
    for (const json::value& node : fields::List(graph, "nodes")) {
        if (fields::Text(node, "class") == className) {
            return node;
        }
    }
    return kNull;
}

std::string Facts::Setting(std::string_view className, std::string_view key, std::string_view otherwise) const {
    return fields::Text(fields::Member(Node(className), "config"), key, otherwise);
}

std::string Facts::BootSettings() const {
    return Setting("ZNodeTrial", "bootSettings", "/etc/arbor/boot.json");
}

Facts Gather(Session& session, const std::string& graphFile) {
    Settings settings = session.settings;
    settings.timeout = settings.timeout.value_or(kPatience);
    GatewayClient gateway(settings);
    Facts facts;
    facts.socketPath = settings.socketPath;
    const auto status = gateway.Get("/v1/status");
    facts.isReachable = status || status.error().httpStatus != 0;
    if (!status) {
        facts.silence =
            facts.isReachable || status.error().timedOut ? status.error().text : WhyNotConnected(facts.socketPath);
    } else {
        facts.status = *status;
        facts.setup = Asked(gateway.Get("/v1/setup"));
        facts.trust = Asked(gateway.Send("trust", json::object()));
        facts.peers = Asked(gateway.Send("peers", json::object()));
    }
    for (const json::value& line : fields::List(facts.setup, "mounts")) {
        if (Mount mount = ParseMount(line.is_string() ? line.get_string() : std::string_view()); !mount.path.empty()) {
            facts.hostMounts.push_back(std::move(mount));
        }
    }
    const std::string told = fields::Text(facts.setup, "graphFile");
    facts.graphFile = !graphFile.empty() ? graphFile : told.empty() ? kUsualGraph : told;
    ReadGraph(facts);
    return facts;
}

}  // namespace arborctl::doctor
