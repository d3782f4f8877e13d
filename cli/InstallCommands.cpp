#include "Commands.h"
#include "JobWatch.h"
#include "JsonFields.h"
#include "Peers.h"
#include "TextFormat.h"

namespace json = boost::json;

namespace arborctl {
namespace {

/// What to ask of the device, and how that is called in front of a person.
struct Order {
    std::string keyword;
    json::object message;
    std::string what;         ///< "Installing 3.046"
    std::string refusalHint;  ///< Why, when the device says no without a reason.
    bool wait;
};

/// The answer to a remote install is a list with one element.
const json::value& FirstMessage(const json::value& answer) {
    const auto& list = fields::List(answer, "messages");
    return list.empty() ? answer : list.front();
}

/// A version may be missing only because its file is still being checked.
std::string ChecksUnderWay(Session& session) {
    const auto open = session.gateway.Get("/v1/operations?kind=check&state=open");
    const std::size_t count = open ? fields::List(*open, "operations").size() : 0;
    return count == 0 ? "" : " (files are still being checked: arborctl status)";
}

Result<ExitCode> FollowToEnd(Session& session, JobWatch& watch, const std::string& id, const std::string& what) {
    if (id.empty()) {
        return NoJobTold(what);
    }
    const auto job = watch.Follow({id, {}, {}});
    const Result<void> verdict = job ? VerdictOn(*job) : Result<void>(job.error());
    if (!verdict) {
        return Failure{verdict.error().code, what + ": " + verdict.error().text};
    }
    session.Print(json::object{{"outcome", "done"}, {"operationId", id}}, what + ": done\n");
    return ExitCode::kDone;
}

Result<ExitCode> StartAndFollow(Session& session, const Order& order) {
    std::unique_ptr<JobWatch> watch;
    if (order.wait) {
        auto begun = JobWatch::Begin(session, JobWatch::Show::kProgress);
        if (!begun) {
            return begun.error();
        }
        watch = std::move(*begun);
    }
    const auto answer = session.gateway.Order(order.keyword, order.message);
    if (!answer) {
        return answer.error();
    }
    const json::value& verdict = FirstMessage(*answer);
    if (!fields::Flag(verdict, "bSuccess")) {
        return session.Refuse(
            *answer, order.what + ": " + fields::Refusal(verdict, order.refusalHint + ChecksUnderWay(session)));
    }
    const std::string id = fields::Text(*answer, "operationId");
    const std::string hint =
        watch || id.empty() ? "" : " (arborctl show " + Escaped(id.substr(0, 8)) + " tells how it goes)";
    session.Print(*answer, order.what + ": started" + hint + "\n");
    return watch ? FollowToEnd(session, *watch, id, order.what) : ExitCode::kDone;
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
        {"updatesystem",
         json::object{{"version", order.version}, {"progressHost", order.progressHost}, {"reboot", order.reboot}},
         "Installing " + Escaped(order.version), "the device has no package of this version", order.wait});
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
    return StartAndFollow(session, {"transfer", std::move(message), what, "the device could not start it", order.wait});
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
    return StartAndFollow(session, {"remoteinstall", std::move(message), "Installing on " + Escaped(order.serialNumber),
                                    "the accessory was not found or there is no package for it", order.wait});
}

}  // namespace arborctl
