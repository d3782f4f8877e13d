#include "Commands.h"
#include "JsonFields.h"
#include "OperationWatch.h"
#include "Peers.h"
#include "TextFormat.h"

namespace json = boost::json;

namespace arborctl {
namespace {

/// What to ask of the device, and how that is called in front of a person.
struct Order {
    Operation operation;
    std::string keyword;
    json::object message;
    std::string version;
    std::string what;         ///< "Installing 3.046"
    std::string refusalHint;  ///< Why, when the device says no without a reason.
    bool wait;
};

/// The answer to a remote install is a list with one element.
const json::value& FirstMessage(const json::value& answer) {
    const auto& list = fields::List(answer, "messages");
    return list.empty() ? answer : list.front();
}

Result<ExitCode> StartAndFollow(Session& session, const Order& order) {
    std::unique_ptr<OperationWatch> watch;
    if (order.wait) {
        auto begun = OperationWatch::Begin(session, order.operation);
        if (!begun) {
            return begun.error();
        }
        watch = std::move(*begun);
    }
    const auto answer = session.gateway.Send(order.keyword, order.message);
    if (!answer) {
        return answer.error();
    }
    const json::value& verdict = FirstMessage(*answer);
    if (!fields::Flag(verdict, "bSuccess")) {
        return session.Refuse(*answer, order.what + ": " + fields::Refusal(verdict, order.refusalHint));
    }
    session.Print(*answer, order.what + ": started" + (watch ? "" : " (arborctl watch shows its progress)") + "\n");
    if (!watch) {
        return ExitCode::kDone;
    }
    if (const auto followed = watch->Follow(order.version); !followed) {
        return Failure{followed.error().code, order.what + ": " + followed.error().text};
    }
    session.Print(json::object{{"outcome", "done"}}, order.what + ": done\n");
    return ExitCode::kDone;
}

/// The user's model, else the one that the device knows the accessory by, else none: the device's own default.
void SetModel(json::object& message, const std::string& model, const json::value& accessory) {
    if (!model.empty()) {
        message["deviceModel"] = model;
    } else if (accessory.is_object()) {
        message["deviceModel"] = fields::Member(accessory, "deviceModel");
    }
}

}  // namespace

Result<ExitCode> Install(Session& session, const InstallOrder& order) {
    return StartAndFollow(
        session,
        {Operation::kInstall, "updatesystem",
         json::object{{"version", order.version}, {"progressHost", order.progressHost}, {"reboot", order.reboot}},
         order.version, "Installing " + Escaped(order.version), "the device has no package of this version",
         order.wait});
}

Result<ExitCode> Transfer(Session& session, const AccessoryOrder& order) {
    const std::string what = "Transferring " + Escaped(order.version) + " to " + Escaped(order.serialNumber);
    const auto accessory = FindPeer(session, order.serialNumber, order.model);
    if (!accessory) {
        return accessory.error();
    }
    if (accessory->is_object() && !fields::Flag(*accessory, "connected")) {
        return Refused(what + ": " + PeerTitle(*accessory) + " is not connected");
    }
    json::object message{{"version", order.version}, {"serialNumber", order.serialNumber}};
    SetModel(message, order.model, *accessory);
    return StartAndFollow(session, {Operation::kTransfer, "transfer", std::move(message), order.version, what,
                                    "the device could not start it", order.wait});
}

Result<ExitCode> RemoteInstall(Session& session, const AccessoryOrder& order) {
    // It need not be connected: the install goes another way than the link.
    const auto accessory = FindPeer(session, order.serialNumber, order.model);
    if (!accessory) {
        return accessory.error();
    }
    json::object message{{"serialNumber", order.serialNumber}};
    SetModel(message, order.model, *accessory);
    if (!order.version.empty()) {
        message["version"] = order.version;
    }
    return StartAndFollow(session, {Operation::kRemoteInstall, "remoteinstall", std::move(message), order.version,
                                    "Installing on " + Escaped(order.serialNumber),
                                    "the accessory was not found or there is no package for it", order.wait});
}

}  // namespace arborctl
