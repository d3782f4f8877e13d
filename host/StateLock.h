#pragma once

#include <filesystem>

#include "ZShared/ZError.h"
#include "ZShared/ZFileDescriptor.h"

/// Keeps a second graph host away from the state that one works on: both would empty the same updates folder and write
/// to the same archive. Held while it lives; the system gives it back when the process ends, however it ends.
class StateLock {
public:
    /// Holds the state that goes with `updatesFolder`, through the file ".<its name>.lock" beside it, whose folder is
    /// made when it is missing. An error when another process holds it, which it names, or when the file can't be made.
    static ZResult<StateLock> Take(const std::filesystem::path& updatesFolder);

private:
    explicit StateLock(ZFileDescriptor file) : m_file(std::move(file)) {}
    ZFileDescriptor m_file;
};
