#include "Peers.h"

#include "JsonFields.h"
#include "TextFormat.h"

namespace json = boost::json;

namespace arborctl {
namespace {

constexpr int kNoSuchKeyword = 404;

}  // namespace

Result<json::value> FindPeer(Session& session, const std::string& serialNumber, const std::string& model) {
    const auto answer = session.gateway.Send("peers", json::object{});
    json::value found;
    if (!answer) {
        const int status = answer.error().httpStatus;
        // A device that knows nothing of links, and one whose graph has none.
        return status == kNoSuchKeyword || status == kNobodyServesIt ? Result<json::value>(found) : answer.error();
    }
    for (const auto& peer : fields::List(*answer, "peers")) {
        const bool isIt = fields::Text(peer, "serialNumber") == serialNumber &&
                          (model.empty() || fields::Text(peer, "deviceModel") == model);
        if (isIt && (found.is_null() || fields::Flag(peer, "connected"))) {
            found = peer;
        }
    }
    return found;
}

std::string PeerState(const json::value& peer) {
    if (fields::Flag(peer, "connected")) {
        return "connected";
    }
    return fields::Text(peer, "serialNumber").empty() ? "never seen" : "away";
}

std::string PeerTitle(const json::value& peer) {
    const std::string serialNumber = fields::Text(peer, "serialNumber");
    const std::string name = fields::Text(peer, "name");
    if (serialNumber.empty()) {
        return Escaped(name.empty() ? fields::Text(peer, "publicKey") : name);
    }
    const std::string device = fields::Text(peer, "deviceModel") + "-" + serialNumber;
    return Escaped(name.empty() ? device : name + " (" + device + ")");
}

}  // namespace arborctl
