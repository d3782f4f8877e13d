#include "Fuzz.h"
#include "GraphErrors.h"
#include "GraphFile.h"

// A graph file: read to its end, with everything that is wrong told with its place.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::File file(fuzz::Text(data, size));
    GraphErrors errors(file.Path());
    const GraphFile graph = ReadGraphFile(errors);
    for (const GraphNode& node : graph.nodes) {
        MakeRecord(node, graph.environment, {}, errors);
    }
    return 0;
}
