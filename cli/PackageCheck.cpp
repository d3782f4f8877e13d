#include "PackageCheck.h"

#include "JsonFields.h"
#include "TextFormat.h"

namespace json = boost::json;
namespace fs = std::filesystem;

namespace arborctl {

std::string WhyNoPackage(const fs::path& file) {
    return file.extension() == ".pkg" ? "" : "its name does not end in .pkg";
}

Result<WantedJob> NextCheckOf(Session& session, JobWatch& watch, const std::string& name) {
    const auto inventory = session.gateway.Send("inventory", json::object{});
    if (!inventory) {
        return inventory.error();
    }
    const auto before = session.gateway.Get("/v1/operations?kind=check&limit=1000");
    if (!before && before.error().httpStatus != kNobodyServesIt) {  // a device without a journal tells events alone
        return before.error();
    }
    WantedJob wanted;
    wanted.file = (fs::path(fields::Text(*inventory, "updatesFolder")) / name).lexically_normal().string();
    wanted.known = watch.TakeSeen();
    if (before) {
        for (const auto& document : fields::List(*before, "operations")) {
            wanted.known.insert(fields::Text(document, "id"));
        }
    }
    return wanted;
}

Result<ExitCode> TellCheck(Session& session, const std::string& file, const Job& job) {
    json::object document{
        {"file", file}, {"accepted", job.Succeeded()}, {"version", job.version}, {"operationId", job.id}};
    const std::string subject = Escaped(file);
    const auto verdict = VerdictOn(job);
    if (verdict) {
        session.Print(document, subject + ": accepted, version " + Escaped(job.version) + "\n");
        return ExitCode::kDone;
    }
    if (job.state != "Failed") {  // nothing was found out about the file
        return Failure{verdict.error().code, subject + ": " + verdict.error().text};
    }
    document["reason"] = job.Why();
    const std::string version = job.version.empty() ? "" : " (version " + Escaped(job.version) + ")";
    return session.Refuse(document, subject + ": rejected" + version + ": " + verdict.error().text);
}

}  // namespace arborctl
