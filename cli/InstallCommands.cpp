#include "Commands.h"
#include "JsonFields.h"
#include "OperationWatch.h"
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

void SetUnlessEmpty(json::object& message, std::string_view key, const std::string& value) {
    if (!value.empty()) {
        message[key] = value;
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
    json::object message{{"version", order.version}, {"serialNumber", order.serialNumber}};
    SetUnlessEmpty(message, "deviceModel", order.model);
    return StartAndFollow(session, {Operation::kTransfer, "transfer", std::move(message), order.version,
                                    "Transferring " + Escaped(order.version) + " to " + Escaped(order.serialNumber),
                                    "the device could not start it", order.wait});
}

Result<ExitCode> RemoteInstall(Session& session, const AccessoryOrder& order) {
    json::object message{{"serialNumber", order.serialNumber}};
    SetUnlessEmpty(message, "deviceModel", order.model);
    SetUnlessEmpty(message, "version", order.version);
    return StartAndFollow(session, {Operation::kRemoteInstall, "remoteinstall", std::move(message), order.version,
                                    "Installing on " + Escaped(order.serialNumber),
                                    "the accessory was not found or there is no package for it", order.wait});
}

}  // namespace arborctl
