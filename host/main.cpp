#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>

#include "Host.h"
#include "LibrarySet.h"

namespace {

struct Arguments {
    std::string graph;
    bool check = false;
};

void LoadLibraries(const GraphFile& file, LibrarySet& libraries, GraphErrors& errors) {
    const std::filesystem::path base = std::filesystem::absolute(errors.File()).parent_path();
    for (std::size_t index = 0; index < file.libraries.size(); ++index) {
        std::string error;
        if (!libraries.Load(file.libraries[index], base, error)) {
            errors.Add(GraphPlace().Member("libraries").Element(index), error);
        }
    }
}

/// The nodes' records, in their order. What is wrong with a node's class or record is added to `errors`.
std::vector<std::shared_ptr<ZConfig>> MakeRecords(const GraphFile& file, GraphErrors& errors) {
    std::vector<std::shared_ptr<ZConfig>> records;
    for (const GraphNode& node : file.nodes) {
        if (!ZShared::ZFactory::Instance().Find(node.className).IsKindOf(ZNode::m_cid)) {
            errors.Add(node.place, "class", '"' + node.className + "\" is not the name of a node class");
        }
        records.push_back(MakeRecord(node, file.environment, errors));
    }
    return records;
}

HostExit Report(const GraphErrors& errors) {
    for (const std::string& error : errors.All()) {
        std::cerr << error << '\n';
    }
    return HostExit::Failed;
}

HostExit RunGraph(const Arguments& arguments) {
    GraphErrors errors(arguments.graph);
    const GraphFile file = ReadGraphFile(errors);
    // Outlives the records and the graph, which are of the libraries' classes.
    LibrarySet libraries;
    LoadLibraries(file, libraries, errors);
    // Before the records are read: reading one may look a device's mount point up.
    ZPlatform::Configure(file.platform);
    const auto records = errors.IsEmpty() ? MakeRecords(file, errors) : std::vector<std::shared_ptr<ZConfig>>();
    if (!errors.IsEmpty()) {
        return Report(errors);
    }
    if (arguments.check) {
        std::cout << arguments.graph << ": no errors, nodes: " << file.nodes.size() << '\n';
        return HostExit::Done;
    }
    std::string error;
    if (!ZLog::Instance().Configure(file.log, error)) {
        errors.Add(GraphPlace(), "log", "the log could not be opened: " + error);
        return Report(errors);
    }
    const SignalWatch signals(file.logLevel);
    return Host(file, records, signals).Run();
}

}  // namespace

int main(int argc, char** argv) {
    // A client that goes away is an error of that write, not the end of the process.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        CLI::App app("Runs the node graph that a graph file describes.", "arbord");
        Arguments arguments;
        app.add_option("--graph", arguments.graph, "The graph file (JSON)")->required()->type_name("FILE");
        app.add_flag("--check", arguments.check,
                     "Only look for errors in the graph file: load the libraries, read the "
                     "records, start nothing");
        app.set_version_flag("--version", "arbord " ARBORD_VERSION);
        app.footer(
            "Exit status: 0 done, 1 the graph is bad or could not start, 2 usage, 75 to be started again.\n"
            "SIGTERM or SIGINT stops the graph; a second one does not wait for busy nodes, a third for nothing.");
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& problem) {
            return static_cast<int>(app.exit(problem) == 0 ? HostExit::Done : HostExit::Usage);
        }
        return static_cast<int>(RunGraph(arguments));
    } catch (const std::exception& failure) {
        std::cerr << "arbord: " << failure.what() << '\n';
        return static_cast<int>(HostExit::Failed);
    }
}
