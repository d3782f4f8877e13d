#include <filesystem>
#include <system_error>

#include "Commands.h"
#include "JsonFields.h"
#include "PackageCheck.h"
#include "TextFormat.h"

namespace json = boost::json;
namespace fs = std::filesystem;

namespace arborctl {
namespace {

bool IsExecutable(const fs::path& file) {
    std::error_code error;
    constexpr auto kAnyExecute = fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec;
    return (fs::status(file, error).permissions() & kAnyExecute) != fs::perms::none;
}

/// Why the device passes over a file without a word; empty when it would check it. One that judges packages by their
/// signatures runs none where it lies, and needs no permission to.
Result<std::string> WhySkipped(Session& session, const fs::path& file) {
    if (std::string reason = WhyNoPackage(file); !reason.empty() || IsExecutable(file)) {
        return reason;
    }
    const auto trust = session.gateway.Send("trust", json::object());
    if (!trust && trust.error().httpStatus == 0) {
        return trust.error();
    }
    const bool hasPolicy = trust && !fields::Text(*trust, "trustedSigners").empty();
    return hasPolicy ? std::string() : "it is not executable (chmod +x)";
}

/// Tells how the scan of a drive ended; what was found on it is what "updates" lists.
Result<ExitCode> TellScan(Session& session, const std::string& drive, const Job& job) {
    if (const auto verdict = VerdictOn(job); !verdict) {
        return Failure{verdict.error().code, Escaped(drive) + ": " + verdict.error().text};
    }
    session.Print(json::object{{"drive", drive}, {"outcome", "done"}, {"operationId", job.id}},
                  Escaped(drive) + ": scanned; arborctl updates lists what was found\n");
    return ExitCode::kDone;
}

}  // namespace

Result<ExitCode> Scan(Session& session, const std::string& given) {
    std::error_code error;
    const fs::path path = fs::absolute(given, error).lexically_normal();
    const bool isDrive = !error && fs::is_directory(path, error);
    if (!isDrive && (error || !fs::is_regular_file(path, error))) {
        const std::string reason = error ? error.message() : "not a regular file";
        return UsageFailure(Escaped(given) + ": " + reason);
    }
    const auto skipped = isDrive ? Result<std::string>(std::string()) : WhySkipped(session, path);
    if (!skipped) {
        return skipped.error();
    }
    if (!skipped->empty()) {
        return Refused(Escaped(given) + ": the device would pass over it: " + *skipped);
    }
    const auto watch = JobWatch::Begin(session, JobWatch::Show::kNothing);
    if (!watch) {
        return watch.error();
    }
    const auto sent = session.gateway.Order("scan", json::object{{"path", path.string()}});
    if (!sent) {
        return sent.error();
    }
    const std::string id = fields::Text(*sent, "operationId");
    if (id.empty()) {
        return NoJobTold(Escaped(given));
    }
    const auto job = (*watch)->Follow({id, {}, {}});
    if (!job) {
        return job.error();
    }
    return isDrive ? TellScan(session, path.string(), *job) : TellCheck(session, path.string(), *job);
}

}  // namespace arborctl
