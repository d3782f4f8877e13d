#pragma once

#include <functional>
#include <string>

#include "ZBoot/ZTrialState.h"
#include "ZShared/ZError.h"

/// The file that keeps a ZTrialState through power cuts: two generations, one after the other, each with its checksum
/// (docs/trial.md). A change is written over the older one, so there is always one that is whole. Any number of
/// programs may use it at the same time: they take turns.
class ZTrialFile {
public:
    explicit ZTrialFile(std::string path);

    const std::string& Path() const { return m_path; }
    /// The newer one of those that are whole. A file that is not there is the state of a new device; an error when it
    /// is there and neither generation is whole.
    ZResult<ZTrialState> Read() const;
    /// Reads it, has `change` change it, and keeps what came of it: it is on the disk when this returns. A file without
    /// a whole generation is begun anew. Nothing is written when `change` leaves it as it was.
    ZResult<ZTrialState> Change(const std::function<void(ZTrialState&)>& change);

private:
    std::string m_path;
};
