#include "Commands.h"
#include "JsonFields.h"
#include "Table.h"
#include "TextFormat.h"
#include "TimeText.h"

namespace json = boost::json;

namespace arborctl {

namespace {

std::string Joined(std::string text, const char* word) {
    return text.empty() ? word : text + ", " + word;
}

std::string SlotState(const json::value& slot) {
    std::string text;
    for (const auto& [key, word] :
         {std::pair{"running", "runs"}, std::pair{"next", "starts next"}, std::pair{"confirmed", "confirmed"}}) {
        if (fields::Flag(slot, key)) {
            text = Joined(text, word);
        }
    }
    return text;
}

std::string TimeOf(const json::value& document, const char* key) {
    const std::int64_t at = fields::Number(document, key);
    return at == 0 ? "-" : TimeText(at);
}

std::string CheckText(const json::value& check) {
    const std::string reason = fields::Text(check, "reason");
    const char* const waits = fields::Flag(check, "passed") ? "passed" : "not asked yet";
    return fields::Text(check, "name") + (fields::Flag(check, "must") ? "" : " (not needed)") + ": " +
           (reason.empty() ? waits : reason);
}

void AddChecks(Table& table, const json::value& slots) {
    std::string title = "Checks";
    for (const json::value& check : fields::List(slots, "checks")) {
        table.AddRow({title, CheckText(check)});
        title.clear();
    }
}

void AddTakenBack(Table& table, const json::value& slots) {
    std::string title = "Taken back";
    for (const json::value& entry : fields::List(slots, "takenBack")) {
        table.AddRow({title, fields::Text(entry, "version") + ", " + TimeOf(entry, "at") + ": " +
                                 fields::Text(entry, "reason")});
        title.clear();
    }
}

std::string SlotsText(const json::value& slots) {
    Table places({"SLOT", "VERSION", "STATE"});
    for (const json::value& slot : fields::List(slots, "slots")) {
        places.AddRow({fields::Text(slot, "slot"), fields::Text(slot, "version"), SlotState(slot)});
    }
    Table table;
    table.AddRow({"State", TrialText(slots)});
    if (fields::Text(slots, "state") == "trial") {
        AddChecks(table, slots);
    }
    if (const std::string last = LastTrialText(slots); !last.empty()) {
        table.AddRow({"Last trial", last});
    }
    AddTakenBack(table, slots);
    if (const std::string problem = fields::Text(slots, "problem"); !problem.empty()) {
        table.AddRow({"Problem", problem});
    }
    return places.Text() + "\n" + table.Text();
}

Result<ExitCode> Order(Session& session, const char* keyword, const json::object& request, const std::string& done) {
    const auto answer = session.gateway.Order(keyword, request);
    if (!answer) {
        return answer.error();
    }
    if (!fields::Flag(*answer, "bSuccess")) {
        return session.Refuse(*answer, fields::Refusal(*answer, "no reason given"));
    }
    session.Print(*answer, done + "\n");
    return ExitCode::kDone;
}

}  // namespace

std::string TrialText(const json::value& slots) {
    std::string state = fields::Text(slots, "state", "unknown");
    const std::string version = fields::Text(slots, "version");
    if (state == "installed") {
        return version + " is installed and starts next; it has to prove itself then";
    }
    if (state == "trial") {
        return version + " has to prove itself: start " + fields::Text(slots, "attempt") + " of " +
               fields::Text(slots, "attempts") + ", waiting for " + fields::Text(slots, "waiting");
    }
    if (state == "reverting") {
        return version + " failed; the device goes back with its next restart";
    }
    return state;
}

std::string LastTrialText(const json::value& slots) {
    const std::string version = fields::Text(slots, "lastVersion");
    if (version.empty()) {
        return {};
    }
    const bool isGood = fields::Text(slots, "lastOutcome") == "confirmed";
    return version + (isGood ? " was confirmed, " : " was taken back, ") + TimeOf(slots, "lastAt") + ": " +
           fields::Text(slots, "lastReason") +
           (fields::Flag(slots, "lastAlike") ? "; the version before fails in the same way" : "");
}

Result<ExitCode> ShowSlots(Session& session) {
    const auto answer = session.gateway.Send("slots", json::object());
    if (!answer) {
        return answer.error();
    }
    session.Print(*answer, SlotsText(*answer));
    return ExitCode::kDone;
}

Result<ExitCode> ConfirmVersion(Session& session) {
    return Order(session, "confirm", {}, "The version is confirmed; the device stays with it.");
}

Result<ExitCode> RevertVersion(Session& session, const std::string& reason) {
    return Order(session, "revert", {{"reason", reason}}, "The device goes back to the confirmed version.");
}

Result<ExitCode> AllowVersion(Session& session, const std::string& version) {
    return Order(session, "allow", {{"version", version}}, Escaped(version) + " is looked at again.");
}

}  // namespace arborctl
