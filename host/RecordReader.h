#pragma once

#include <boost/json.hpp>
#include <set>

#include "GraphErrors.h"
#include "ZCoreConfigs/ZConfig.h"

/// Reads the members of `object` into the records, each of which takes the keys that it would write. A key that none of
/// them has, nor `others`, is an error, and so is a value of the wrong type. False when there was an error.
bool ReadRecords(const boost::json::object& object, const GraphPlace& place, const std::vector<ZConfig*>& records,
                 const std::set<std::string>& others, GraphErrors& errors);

/// As above, without a record: only looks for keys that are not known.
bool CheckKeys(const boost::json::object& object, const GraphPlace& place, const std::set<std::string>& known,
               GraphErrors& errors);
