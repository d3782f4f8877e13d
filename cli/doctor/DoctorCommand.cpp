#include "Commands.h"
#include "Interrupt.h"
#include "JsonFields.h"
#include "doctor/BoundedChild.h"
#include "doctor/Facts.h"

namespace json = boost::json;

namespace arborctl {
namespace {

using doctor::Facts;
using doctor::Findings;
using doctor::State;

// For a disk that does not answer, or a program of the boot loader that hangs.
constexpr std::chrono::seconds kPatience{5};

struct Point {
    const char* name;
    void (*look)(const Facts&, Findings&);
};
constexpr Point kPoints[]{{"host", doctor::LookAtHost},           {"graph", doctor::LookAtGraph},
                          {"identity", doctor::LookAtIdentity},   {"updates folder", doctor::LookAtUpdatesFolder},
                          {"archive", doctor::LookAtArchive},     {"trust", doctor::LookAtTrust},
                          {"sticks", doctor::LookAtSticks},       {"boot", doctor::LookAtBoot},
                          {"accessory", doctor::LookAtAccessory}, {"clock", doctor::LookAtClock},
                          {"programs", doctor::LookAtPrograms}};

/// Looks at one point in a process of its own, so that none keeps the others from being looked at.
void LookAt(const Point& point, const Facts& facts, Findings& all) {
    const auto look = [&] {
        Findings found;
        point.look(facts, found);
        return json::serialize(found.ToJson());
    };
    const auto text = doctor::InChild(look, kPatience);
    const auto points = text ? fields::Parse(*text) : Result<json::value>(json::value());
    if (!points || !all.AddFrom(*points)) {
        all.Unknown(point.name, "it could not be looked at within " + std::to_string(kPatience.count()) + " s",
                    "a disk, or a program of the boot loader, does not answer: dmesg");
    }
}

}  // namespace

Result<ExitCode> LookAtSetup(Session& session, const std::string& graphFile) {
    const Facts facts = doctor::Gather(session, graphFile);
    Findings found;
    for (const Point& point : kPoints) {
        if (Interrupted()) {
            return InterruptedByUser();
        }
        LookAt(point, facts, found);
    }
    const std::size_t faults = found.Count(State::kFault);
    session.Print(json::object{{"points", found.ToJson()},
                               {"faults", faults},
                               {"warnings", found.Count(State::kWarning)},
                               {"unknown", found.Count(State::kUnknown)}},
                  found.Text());
    return faults == 0 ? ExitCode::kDone : ExitCode::kRefused;
}

}  // namespace arborctl
