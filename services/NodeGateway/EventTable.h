#pragma once

#include <span>

#include "NodeComm/ZCommEndpoint.h"

namespace gateway {

/// One kind of event: what is published at a place in the graph is told to every listener.
struct EventKind {
    const char* name;
    const char* className;  ///< messages of another class are no event
    ZEndpointType type;
    const char* keyword;
    bool bRepeated;       ///< the last one is told to each new listener first
    const char* meaning;  ///< for the description of the interface; empty: the name says it
};

/// Every kind but the log's lines, in the order in which repeated ones are told. Subscriptions, names and the
/// description of the interface follow from this one table.
std::span<const EventKind> Events();

/// The kind that says how far an install is.
const EventKind& ProgressEvent();

}  // namespace gateway
