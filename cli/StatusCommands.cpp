#include <array>
#include <string_view>
#include <utility>

#include "Commands.h"
#include "Job.h"
#include "JsonFields.h"
#include "Table.h"
#include "TextFormat.h"

namespace json = boost::json;

namespace arborctl {
namespace {

constexpr const char* kUnknown = "unknown";

std::string InBrackets(const std::string& text) {
    return text.empty() ? "" : " (" + text + ")";
}

/// Rows that have one label: it stands before the first; `otherwise` when there are none.
void AddRows(Table& table, const char* label, const std::vector<std::string>& texts, const char* otherwise) {
    std::string first = label;
    for (const auto& text : texts) {
        table.AddRow({std::exchange(first, ""), text});
    }
    if (texts.empty()) {
        table.AddRow({label, otherwise});
    }
}

/// One text for each element of a list member; `otherwise` alone when nobody told the list.
std::vector<std::string> Texts(const json::value& status, const char* key, std::string (*text)(const json::value&)) {
    if (!fields::Member(status, key).is_array()) {
        return {kUnknown};
    }
    std::vector<std::string> texts;
    for (const auto& element : fields::List(status, key)) {
        texts.push_back(text(element));
    }
    return texts;
}

std::string JobText(const json::value& document) {
    const Job job = Job::From(document);
    const std::string stage = job.Stage();
    const std::string progress = job.state == "Queued" ? "waits" : stage.empty() ? "running" : stage;
    return job.Title() + ": " + progress + (job.asker.empty() ? "" : ", asked by " + job.asker) +
           InBrackets(job.ShortId());
}

std::string UpdateText(const json::value& package) {
    const std::string source = fields::Text(package, "source");
    const std::string relation = fields::Text(package, "relation");
    const std::string where = relation + (relation.empty() || source.empty() ? "" : ", ") + source;
    return fields::Text(package, "version", kUnknown) + InBrackets(where);
}

std::string VersionText(const json::value& package) {
    return fields::Text(package, "version", kUnknown) + InBrackets(fields::Text(package, "board"));
}

std::string RefusedText(const json::value& package) {
    return fields::Text(package, "file", kUnknown) + ": " + fields::Text(package, "reason", "no reason given");
}

std::string DriveText(const json::value& drive) {
    return drive.is_string() ? std::string(drive.get_string()) : kUnknown;
}

std::string SizeText(const json::value& document, std::string_view key) {
    const std::int64_t size = fields::Number(document, key, -1);
    return size < 0 ? kUnknown : ByteCount(static_cast<std::size_t>(size));
}

std::string SlotText(const json::value& status, const char* version, const char* slot) {
    const std::string name = fields::Text(status, slot);
    return fields::Text(status, version, kUnknown) + InBrackets(name.empty() ? "" : "slot " + name);
}

/// What runs; and what starts next, where that is another slot or version.
void AddVersions(Table& table, const json::value& status) {
    table.AddRow({"Runs", SlotText(status, "installedVersion", "runningSlot")});
    const std::string next = fields::Text(status, "nextSlot");
    const std::string version = fields::Text(status, "nextVersion");
    const bool sameSlot = next.empty() || next == fields::Text(status, "runningSlot");
    const bool sameVersion = version.empty() || version == fields::Text(status, "installedVersion");
    if (!sameSlot || !sameVersion) {
        table.AddRow({"Starts next", SlotText(status, "nextVersion", "nextSlot")});
    }
}

void AddJobs(Table& table, const json::value& status) {
    if (fields::Member(status, "operations").is_array()) {
        AddRows(table, "Under way", Texts(status, "operations", JobText), "nothing");
        return;
    }
    // A graph without a journal tells of installs alone.
    const json::value& installing = fields::Member(status, "updateInProgress");
    const char* const known = fields::Flag(status, "updateInProgress") ? "an install" : "no install";
    table.AddRow({"Under way", installing.is_bool() ? known : kUnknown});
}

/// Whose packages run.
std::string TrustText(const json::value& status) {
    const std::string signers = fields::Text(status, "trustedSigners");
    const std::string problem = fields::Text(status, "trustProblem");
    if (!fields::Member(status, "trustedSigners").is_string()) {
        return kUnknown;
    }
    if (signers.empty()) {
        return "off: everybody's packages run";
    }
    const std::int64_t number = fields::Number(status, "trustDocument");
    if (number == 0 && !problem.empty()) {
        return "by " + signers + "; " + problem;
    }
    const std::string who = number > 0 ? "trust document " + std::to_string(number) : "signers in " + signers;
    return who + (problem.empty() ? "" : "; " + problem);
}

std::string StatusText(const json::value& status) {
    const json::value& device = fields::Member(status, "device");
    Table table;
    table.AddRow({"Device", fields::Text(device, "model", kUnknown)});
    table.AddRow({"Serial number", fields::Text(device, "serialNumber", kUnknown)});
    table.AddRow({"Board", fields::Text(device, "board", kUnknown)});
    AddVersions(table, status);
    if (const json::value& trial = fields::Member(status, "trial"); trial.is_object()) {
        table.AddRow({"Trial", TrialText(trial)});
        if (const std::string last = LastTrialText(trial); !last.empty()) {
            table.AddRow({"Last trial", last});
        }
    }
    AddJobs(table, status);
    AddRows(table, "Updates", Texts(status, "updates", UpdateText), "none");
    AddRows(table, "Refused", Texts(status, "refused", RefusedText), "none");
    AddRows(table, "Archive", Texts(status, "archive", VersionText), "empty");
    table.AddRow({"Free", SizeText(status, "updatesFree") + " for uploads, " + SizeText(status, "archiveFree") +
                              " in the archive"});
    table.AddRow({"Trust", TrustText(status)});
    if (const std::string problem = fields::Text(status, "historyProblem"); !problem.empty()) {
        table.AddRow({"History", "not written at present, a restart loses what is new: " + problem});
    }
    AddRows(table, "Drives", Texts(status, "drives", DriveText), "none");
    if (fields::Flag(status, "developerMode")) {
        table.AddRow(
            {"Warning", "developerMode is on: whoever may administer can have any file run (gateway's settings)"});
    }
    table.AddRow({"arbord", fields::Text(status, "version", kUnknown) + InBrackets(fields::Text(status, "hash"))});
    return table.Text();
}

/// Why a file was refused, by its code, and what a person does next.
constexpr std::array<std::pair<std::string_view, const char*>, 3> kNextSteps{{
    {"ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE",
     "copy it again; if that does not help, make it anew, for this board and signed by a trusted signer"},
    {"ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED", "bring a newer version, or let the update node's settings allow it"},
    {"ERRCODE_NONE", "nothing was found out about it: mend what is said above, then bring it again"},
}};

std::string NextStep(const json::value& package) {
    const std::string code = fields::Text(package, "errorCode");
    for (const auto& [name, step] : kNextSteps) {
        if (code == name) {
            return step;
        }
    }
    return "arborctl history --kind check tells more";
}

std::string FileName(const json::value& package) {
    const std::string file = fields::Text(package, "file");
    return file.substr(file.rfind('/') + 1);
}

std::string PackagesText(const json::array& packages) {
    Table table({"VERSION", "RELATION", "SIZE", "SOURCE", "FILE"});
    for (const auto& package : packages) {
        const std::string relation = fields::Text(package, "relation");
        table.AddRow({fields::Text(package, "version", kUnknown), relation.empty() ? kUnknown : relation,
                      SizeText(package, "size"), fields::Text(package, "source", kUnknown), FileName(package)});
    }
    return table.Text();
}

std::string UpdatesText(const json::value& inventory) {
    const auto& packages = fields::List(inventory, "packages");
    const auto& archive = fields::List(inventory, "archive");
    std::string text = packages.empty() ? "No updates available.\n" : PackagesText(packages);
    if (!archive.empty()) {
        text += "\nIn the archive:\n" + PackagesText(archive);
    }
    const auto& refused = fields::List(inventory, "refused");
    text += refused.empty() ? "" : "\nRefused:\n";
    for (const auto& package : refused) {
        const std::string version = fields::Text(package, "version");
        text += "  " + Escaped(fields::Text(package, "file")) + Escaped(InBrackets(version)) + ": " +
                Escaped(fields::Text(package, "reason", "no reason given")) + "\n    " + NextStep(package) + "\n";
    }
    return text;
}

}  // namespace

Result<ExitCode> ShowStatus(Session& session) {
    const auto status = session.gateway.Get("/v1/status");
    if (!status) {
        return status.error();
    }
    session.Print(*status, StatusText(*status));
    return ExitCode::kDone;
}

Result<ExitCode> ShowUpdates(Session& session) {
    const auto inventory = session.gateway.Send("inventory", json::object{});
    if (!inventory) {
        return inventory.error();
    }
    session.Print(*inventory, UpdatesText(*inventory));
    return ExitCode::kDone;
}

}  // namespace arborctl
