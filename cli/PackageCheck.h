#pragma once

#include <boost/json.hpp>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "EventStream.h"
#include "Result.h"
#include "Session.h"

namespace arborctl {

/// Why a device takes a file of this name for no package; empty when it is one by its name.
std::string WhyNoPackage(const std::filesystem::path& file);

/// Follows the device's check of one package file to its outcome. Made before the device can begin with it, so that
/// nothing is missed. One thread.
class PackageCheck {
public:
    /// `file` is its absolute path at the device; or, of a file that is being uploaded, its name: then its path is
    /// learnt from what the device logs when the file is closed. `skipped` says why the device will pass over the file
    /// without a word; empty: it will not.
    static Result<std::unique_ptr<PackageCheck>> Begin(Session& session, const std::string& file,
                                                       const std::string& skipped = {});

    /// Waits for the outcome and tells it: accepted, or rejected with the reason.
    Result<ExitCode> Finish();

private:
    using Versions = std::set<std::string>;

    PackageCheck(Session& session, const std::string& file, const std::string& skipped, Versions offered,
                 std::unique_ptr<EventStream> stream);
    Result<boost::json::value> AwaitAnnouncement();
    std::optional<Result<boost::json::value>> TakeUpdates(const ServerEvent& event);
    void TakeLogLine(const std::string& line);
    Result<void> Reconnect();
    [[nodiscard]] bool IsTheFile(const std::string& path) const;
    [[nodiscard]] const boost::json::value* RejectionIn(const boost::json::value& announcement) const;
    ExitCode Report(const boost::json::value& announcement);
    ExitCode Rejected(const std::string& version, const std::string& reason);

    static Versions OfferedVersions(const boost::json::value& updates);

    Session& m_session;
    std::string m_file;  // its path, or its name as long as that is all that is known
    std::string m_skipped;
    Versions m_before;  // what the device offered before the check
    std::unique_ptr<EventStream> m_stream;
    std::string m_replayed;  // the device's newest announcement before the check
    bool m_reconnected = false;
    bool m_accepted = false;
    std::optional<boost::json::value> m_last;  // the newest announcement of which it is not known whether it counts
};

}  // namespace arborctl
