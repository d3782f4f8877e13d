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

/// Why a device passes over a file without a word; empty when it would check it.
std::string WhySkipped(const fs::path& file) {
    std::error_code error;
    constexpr auto kAnyExecute = fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec;
    if (std::string reason = WhyNoPackage(file); !reason.empty()) {
        return reason;
    }
    return (fs::status(file, error).permissions() & kAnyExecute) == fs::perms::none ? "it is not executable (chmod +x)"
                                                                                    : "";
}

}  // namespace

Result<ExitCode> ScanFile(Session& session, const std::string& file) {
    std::error_code error;
    const fs::path path = fs::absolute(file, error).lexically_normal();
    if (error || !fs::is_regular_file(path, error)) {
        const std::string reason = error ? error.message() : "not a regular file";
        return UsageFailure(Escaped(file) + ": " + reason);
    }
    if (const std::string reason = WhySkipped(path); !reason.empty()) {
        return Refused(Escaped(file) + ": the device would pass over it: " + reason);
    }
    const auto watch = JobWatch::Begin(session, JobWatch::Show::kNothing);
    if (!watch) {
        return watch.error();
    }
    const auto sent = session.gateway.Send(
        "newFile", json::object{{"folder", path.parent_path().string()}, {"fileName", path.filename().string()}});
    if (!sent) {
        return sent.error();
    }
    const std::string id = fields::Text(*sent, "operationId");
    if (id.empty()) {
        return NoJobTold(Escaped(file));
    }
    const auto job = (*watch)->Follow({id, {}, {}});
    return job ? TellCheck(session, path.string(), *job) : job.error();
}

}  // namespace arborctl
