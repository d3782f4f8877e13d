#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>

#include "GraphSchema.h"
#include "Host.h"
#include "LibrarySet.h"
#include "SetupNotes.h"
#include "StateLock.h"

namespace {

struct Arguments {
    std::string graph;
    bool check = false;
    bool schema = false;
};

void LoadLibraries(const GraphFile& file, LibrarySet& libraries, GraphErrors& errors) {
    const std::filesystem::path base = std::filesystem::absolute(errors.File()).parent_path();
    for (std::size_t index = 0; index < file.libraries.size(); ++index) {
        if (const auto loaded = libraries.Load(file.libraries[index], base); !loaded) {
            errors.Add(GraphPlace().Member("libraries").Element(index), loaded.error().text);
        }
    }
}

/// The nodes' records, in their order. What is wrong with a node's class or record is added to `errors`; nothing about
/// classes that a missing library may have.
std::vector<std::shared_ptr<ZConfig>> MakeRecords(const GraphFile& file, bool allLibraries, GraphErrors& errors) {
    std::vector<std::shared_ptr<ZConfig>> records;
    for (const GraphNode& node : file.nodes) {
        const ZShared::CID known = ZShared::ZFactory::Instance().Find(node.className);
        const bool mayBeMissing = !allLibraries && known.Name()[0] == '\0';
        if (!known.IsKindOf(ZNode::m_cid) && !node.className.empty() && !mayBeMissing) {
            errors.Add(node.place, "class", '"' + node.className + "\" is not the name of a node class");
        }
        records.push_back(mayBeMissing ? nullptr
                                       : MakeRecord(node, file.environment, file.core->UpdatesFolder(), errors));
    }
    return records;
}

/// Where the devices are mounted that the records have for an archive.
std::set<std::filesystem::path> ArchivesOf(const std::vector<std::shared_ptr<ZConfig>>& records) {
    std::set<std::filesystem::path> archives;
    const auto collect = [&archives](const ZFieldInfo& field, const ZFieldValue& value) {
        const auto* const text = std::get_if<ZString*>(&value);
        if (text != nullptr && std::string_view(field.key) == "ArchiveDevice" && !(*text)->empty()) {
            archives.emplace(ZPlatform::GetMountPointFromDevice(ToStdString(**text)));
        }
    };
    for (const auto& record : records) {
        if (record) {
            record->VisitFields(collect);
        }
    }
    archives.erase(std::filesystem::path());  // of a device that is not mounted
    return archives;
}

/// Standard descriptors that whoever started this left closed: the next files opened would take their places, and
/// what is written to standard error end up in one of them.
void OpenStandardDescriptors() {
    int last = -1;
    do {
        last = ::open("/dev/null", O_RDWR);
    } while (last >= 0 && last <= STDERR_FILENO);
    if (last >= 0) {
        ::close(last);
    }
}

HostExit PrintSchema() {
    LibrarySet libraries;
    if (const auto loaded = libraries.LoadAll(); !loaded) {
        std::cerr << "arbord: " << loaded.error().text << '\n';
        return HostExit::Failed;
    }
    std::cout << GraphSchema() << '\n' << std::flush;
    return std::cout ? HostExit::Done : HostExit::Failed;
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
    const std::size_t before = errors.All().size();
    LoadLibraries(file, libraries, errors);
    const bool allLibraries = errors.All().size() == before;
    // Before the records are read: reading one may look a device's mount point up.
    ZPlatform::Configure(file.platform);
    const auto records = MakeRecords(file, allLibraries, errors);
    if (!errors.IsEmpty()) {
        return Report(errors);
    }
    if (arguments.check) {
        std::cout << arguments.graph << ": no errors, nodes: " << file.nodes.size() << '\n';
        const auto notes = NotesOnSetup(file, records, errors);
        std::cout << (notes.empty() ? "" : "Before this runs on a real instrument:\n");
        for (const std::string& note : notes) {
            std::cout << note << '\n';
        }
        return HostExit::Done;
    }
    const auto lock = StateLock::Take(file.core->UpdatesFolder(), ArchivesOf(records));
    if (!lock) {
        std::cerr << "arbord: " << lock.error().text << '\n';
        return HostExit::Failed;
    }
    if (const auto opened = ZLog::Instance().Configure(file.log); !opened) {
        errors.Add(GraphPlace(), "log", "the log could not be opened: " + opened.error().text);
        return Report(errors);
    }
    const SignalWatch signals(file.logLevel);
    return Host(file, records, signals).Run();
}

}  // namespace

int main(int argc, char** argv) {
    OpenStandardDescriptors();
    // A heap for each thread would keep what that thread needed once, at the start.
    ::mallopt(M_ARENA_MAX, 2);
    // A client that goes away is an error of that write, not the end of the process.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        CLI::App app("Runs the node graph that a graph file describes.", "arbord");
        Arguments arguments;
        auto* const graph = app.add_option("--graph", arguments.graph, "The graph file (JSON)")->type_name("FILE");
        app.add_flag("--check", arguments.check,
                     "Only look for errors in the graph file: load the libraries, read the "
                     "records, start nothing; and say what a real instrument still needs");
        app.add_flag("--schema", arguments.schema,
                     "Only print the JSON Schema of graph files, for the node libraries that come with this program")
            ->excludes(graph);
        app.set_version_flag("--version", "arbord " ARBORD_VERSION);
        app.footer(
            "Exit status: 0 done, 1 the graph is bad or could not start, 2 usage, 75 to be started again.\n"
            "SIGTERM or SIGINT stops the graph; a second one does not wait for busy nodes, a third for nothing.");
        try {
            app.parse(argc, argv);
            if (arguments.graph.empty() && !arguments.schema) {
                throw CLI::RequiredError("--graph");
            }
        } catch (const CLI::ParseError& problem) {
            return static_cast<int>(app.exit(problem) == 0 ? HostExit::Done : HostExit::Usage);
        }
        return static_cast<int>(arguments.schema ? PrintSchema() : RunGraph(arguments));
    } catch (const std::exception& failure) {
        std::cerr << "arbord: " << failure.what() << '\n';
        return static_cast<int>(HostExit::Failed);
    }
}
