#pragma once

#include <filesystem>
#include <string>

#include "Job.h"
#include "JobWatch.h"
#include "Result.h"
#include "Session.h"

namespace arborctl {

/// Why a device takes a file of this name for no package; empty when it is one by its name.
std::string WhyNoPackage(const std::filesystem::path& file);

/// The check that the device will begin for the upload of this name: of that path, and none of which the device or
/// `watch` has told until now. (Times are not compared: the device's clock may be set meanwhile.)
Result<WantedJob> NextCheckOf(Session& session, JobWatch& watch, const std::string& name);

/// Tells how the check of the file ended: accepted, or rejected with the reason.
Result<ExitCode> TellCheck(Session& session, const std::string& file, const Job& job);

}  // namespace arborctl
