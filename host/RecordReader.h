#pragma once

#include <boost/json.hpp>
#include <set>

#include "GraphErrors.h"
#include "ZCoreConfigs/ZConfig.h"

/// Reads the members of `object` into the records, each of which takes its own keys, and checks their values. A key
/// that none of them has, nor `others`, is an error, and so is a value of the wrong type or one that breaks its rule.
void ReadRecords(const boost::json::object& object, const GraphPlace& place, const std::vector<ZConfig*>& records,
                 const std::set<std::string>& others, GraphErrors& errors);

/// As above, without a record: only looks for keys that are not known.
void CheckKeys(const boost::json::object& object, const GraphPlace& place, const std::set<std::string>& known,
               GraphErrors& errors);
