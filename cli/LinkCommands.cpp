#include <algorithm>
#include <cctype>

#include "Commands.h"
#include "JsonFields.h"
#include "Peers.h"
#include "Table.h"
#include "TextFormat.h"

namespace json = boost::json;

namespace arborctl {
namespace {

constexpr std::size_t kKeyDigits = 64;

bool IsPinned(const json::value& peer) {
    return fields::Flag(peer, "pinned");
}

std::string OrDash(const std::string& text) {
    return text.empty() ? "-" : text;
}

std::string Role(const json::value& peer) {
    const std::string type = fields::Text(peer, "deviceType");
    return type == "DEVICE_CART" ? "host" : type == "DEVICE_PALM" ? "accessory" : type;
}

/// What a host device said about this one's software; empty when it was not asked.
std::string Verdict(const json::value& host) {
    const std::string target = fields::Text(host, "targetVersion");
    if (target.empty()) {
        return {};
    }
    if (!fields::Flag(host, "compatible")) {
        return "host too old";
    }
    return fields::Flag(host, "requiresUpdate") ? "needs " + target : "compatible";
}

std::vector<std::string> Row(const json::value& peer) {
    std::vector<std::string> row{OrDash(fields::Text(peer, "name"))};
    const bool everSeen = PeerState(peer) != "never seen";
    for (const auto& text : {fields::Text(peer, "deviceModel"), fields::Text(peer, "serialNumber"), Role(peer),
                             fields::Text(peer, "board"), fields::Text(peer, "version")}) {
        row.push_back(everSeen ? OrDash(text) : "-");
    }
    row.push_back(PeerState(peer));
    return row;
}

/// The keys that nobody pinned, under a headline of their own; empty when there are none.
std::string RefusedText(const json::array& peers) {
    std::string text;
    for (const auto& peer : peers) {
        if (!IsPinned(peer)) {
            text += "  " + Escaped(fields::Text(peer, "publicKey")) + "\n";
        }
    }
    return text.empty() ? "" : "\nTurned away because their key is not pinned:\n" + text;
}

std::string PeersText(const json::value& answer) {
    const auto& peers = fields::List(answer, "peers");
    if (std::ranges::none_of(peers, IsPinned)) {
        return "No other device is paired with this one.\n" + RefusedText(peers);
    }
    std::vector<std::string> header{"NAME", "MODEL", "SERIAL", "ROLE", "BOARD", "VERSION", "STATE"};
    const bool judged = std::ranges::any_of(peers, [](const auto& peer) { return !Verdict(peer).empty(); });
    if (judged) {
        header.emplace_back("VERDICT");
    }
    Table table(std::move(header));
    for (const auto& peer : peers) {
        if (IsPinned(peer)) {
            auto row = Row(peer);
            row.push_back(Verdict(peer));
            table.AddRow(row);
        }
    }
    return table.Text() + RefusedText(peers);
}

/// The command that a person types next.
std::string PairHint(const std::string& where, const std::string& key) {
    return "\n" + where + ":\n  arborctl pair " + Escaped(key) + " --name NAME\n";
}

std::string KeysText(const json::value& answer) {
    const auto& peers = fields::List(answer, "peers");
    const std::string own = fields::Text(answer, "publicKey");
    std::string text = "This device's key:\n  " + Escaped(own) + "\n";
    Table pinned;
    for (const auto& peer : peers) {
        if (IsPinned(peer)) {
            pinned.AddRow(
                {"  " + fields::Text(peer, "publicKey"), fields::Text(peer, "name"), fields::Text(peer, "address")});
        }
    }
    const std::string list = pinned.Text();
    text += (list.empty() ? "" : "\nPinned:\n" + list) + RefusedText(peers);
    const auto refused = std::ranges::find_if_not(peers, IsPinned);
    return text + (refused != peers.end() ? PairHint("To let it in", fields::Text(*refused, "publicKey"))
                                          : PairHint("To be let in, on the other device", own));
}

std::string LowerCase(std::string text) {
    std::ranges::transform(text, text.begin(), [](unsigned char letter) { return std::tolower(letter); });
    return text;
}

bool IsKey(const std::string& text) {
    const auto isDigit = [](unsigned char letter) { return std::isxdigit(letter) != 0; };
    return text.size() == kKeyDigits && std::ranges::all_of(text, isDigit);
}

std::string PairedText(const json::value& answer, const std::string& key) {
    for (const auto& peer : fields::List(answer, "peers")) {
        if (fields::Text(peer, "publicKey") == key && IsPinned(peer)) {
            return "pinned as " + Escaped(fields::Text(peer, "name"));
        }
    }
    return "no longer pinned";
}

Result<ExitCode> ShowLink(Session& session, std::string (*text)(const json::value& answer)) {
    const auto answer = session.gateway.Send("peers", json::object{});
    if (!answer) {
        return answer.error();
    }
    session.Print(*answer, text(*answer));
    return ExitCode::kDone;
}

}  // namespace

Result<ExitCode> ShowPeers(Session& session) {
    return ShowLink(session, PeersText);
}

Result<ExitCode> ShowKeys(Session& session) {
    return ShowLink(session, KeysText);
}

Result<ExitCode> Pair(Session& session, const PairOrder& order) {
    if (!IsKey(order.publicKey)) {
        return UsageFailure(Escaped(order.publicKey) + ": a key is 64 hexadecimal digits");
    }
    const std::string key = LowerCase(order.publicKey);
    const auto answer = session.gateway.Order(
        "pair",
        json::object{{"publicKey", key}, {"name", order.name}, {"address", order.address}, {"remove", order.remove}});
    if (!answer) {
        return answer.error();
    }
    if (!fields::Flag(*answer, "bSuccess")) {
        return session.Refuse(*answer, key + ": not " + (order.remove ? "removed" : "paired") + ": " +
                                           fields::Refusal(*answer, "no reason given"));
    }
    session.Print(*answer, key + ": " + PairedText(*answer, key) + "\n");
    return ExitCode::kDone;
}

}  // namespace arborctl
