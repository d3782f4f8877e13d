#pragma once

#include <string>

#include "ZShared/ZError.h"
#include "ZShared/ZFileDescriptor.h"

/// Tells other programs that somebody judges the trial: a lock beside the state's file, held as long as this lives.
class ZTrialWatch {
public:
    /// An error when the file can't be made, or somebody else has it.
    static ZResult<ZTrialWatch> Hold(const std::string& stateFile);
    /// Whether somebody has it.
    static bool IsHeld(const std::string& stateFile);

private:
    explicit ZTrialWatch(ZFileDescriptor file) : m_file(std::move(file)) {}

    ZFileDescriptor m_file;
};
