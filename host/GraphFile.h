#pragma once

#include <boost/json.hpp>
#include <optional>

#include "GraphErrors.h"
#include "ZCoreConfigs/ZCoreConfigParams.h"
#include "ZShared/ZLog.h"
#include "ZShared/ZPlatform.h"

/// One node that the graph file asks for.
struct GraphNode {
    GraphPlace place;
    ZString name;
    std::string className;
    std::string configClass;
    std::optional<boost::json::object> config;  ///< absent: the node gets no record
    bool required =
        true;  ///< without it the graph does not run; else it is left out, and tried again, when it can't start
};

/// What a graph file says. See arbor-graph.schema.json for the keys and docs for their meaning.
struct GraphFile {
    std::shared_ptr<ZEnvironment> environment;
    std::shared_ptr<ZCoreConfigParams> core;
    std::int32_t logLevel = 2;  ///< threshold of the host's own lines
    ZLogSettings log;
    ZPlatformSettings platform;
    std::vector<std::string> libraries;
    std::vector<GraphNode> nodes;
};

/// Reads the file that `errors` names. What is wrong is added to `errors`; the result is usable only when that is
/// empty.
GraphFile ReadGraphFile(GraphErrors& errors);

/// A node's record: of the class that the node names, filled from the file and checked; no file that it names may
/// lie in the updates folder. Null, with nothing added to
/// `errors`, when the node has none. The libraries that define the classes must be loaded.
std::shared_ptr<ZConfig> MakeRecord(const GraphNode& node, const std::shared_ptr<ZEnvironment>& environment,
                                    const std::filesystem::path& updatesFolder, GraphErrors& errors);
