#pragma once

#include <boost/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Session.h"
#include "doctor/Findings.h"
#include "doctor/MountTable.h"

namespace arborctl::doctor {

/// What is known before any point is looked at: what the host tells, and what its files say. A document that could not
/// be had is null.
struct Facts {
    std::string socketPath;
    bool isReachable = false;  ///< somebody answered at the socket
    std::string silence;       ///< why nobody did, or why the answer was no

    boost::json::value status;
    boost::json::value setup;
    boost::json::value trust;
    boost::json::value peers;
    std::vector<Mount> hostMounts;  ///< as the host sees them; empty: it does not tell

    std::string graphFile;
    boost::json::value graph;
    std::string graphProblem;  ///< why the graph file could not be read; empty: it was
    bool isGraphBroken = false;

    /// The graph file's node of that class; null when there is none, or the file could not be read.
    [[nodiscard]] const boost::json::value& Node(std::string_view className) const;
    /// A setting of that node's record; `otherwise` when the record does not have it.
    [[nodiscard]] std::string Setting(std::string_view className, std::string_view key,
                                      std::string_view otherwise = "") const;
    [[nodiscard]] bool HasGraph() const { return graph.is_object(); }
    /// What the host sees where it tells that, else what this program sees.
    [[nodiscard]] std::vector<Mount> Mounts() const { return hostMounts.empty() ? OwnMounts() : hostMounts; }
    /// The file that says how the device boots.
    [[nodiscard]] std::string BootSettings() const;
};

/// Asks the host, each question with a limit of a few seconds, and reads the graph file (`graphFile`; empty: the one
/// that the host tells, else the usual one).
Facts Gather(Session& session, const std::string& graphFile);

/// A file's text, at most 1 MiB; nothing, and `problem` says why, when it can't be read: "not readable for you" too.
std::optional<std::string> ReadText(const std::string& file, std::string& problem);

// The points, in order. Each looks at one thing and may add several findings. They run in a process of their own.
void LookAtHost(const Facts& facts, Findings& found);
void LookAtGraph(const Facts& facts, Findings& found);
void LookAtIdentity(const Facts& facts, Findings& found);
void LookAtUpdatesFolder(const Facts& facts, Findings& found);
void LookAtArchive(const Facts& facts, Findings& found);
void LookAtTrust(const Facts& facts, Findings& found);
void LookAtSticks(const Facts& facts, Findings& found);
void LookAtBoot(const Facts& facts, Findings& found);
void LookAtAccessory(const Facts& facts, Findings& found);
void LookAtClock(const Facts& facts, Findings& found);
void LookAtPrograms(const Facts& facts, Findings& found);

}  // namespace arborctl::doctor
