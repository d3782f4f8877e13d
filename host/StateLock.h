#pragma once

#include <filesystem>
#include <set>
#include <vector>

#include "ZShared/ZError.h"
#include "ZShared/ZFileDescriptor.h"

/// Keeps a second graph host away from the state that one works on: both would empty the same updates folder, or write
/// to the same archive and slots. Held while it lives; the system gives it back when the process ends, however it ends.
class StateLock {
public:
    /// An error when another process holds one of these, which it names, or when an updates folder can't be held.
    /// `updatesFolder`, unless it is empty: through the file ".<its name>.lock" beside it, since it may be made anew
    /// itself; the file's folder is made when it is missing. `archives`: where devices are mounted that hold an
    /// archive, through the file ".arbor.lock" there; one where no file can be made is nobody's. Only this user can
    /// open these files, so nobody else can hold the locks.
    static ZResult<StateLock> Take(const std::filesystem::path& updatesFolder,
                                   const std::set<std::filesystem::path>& archives);

private:
    StateLock() = default;
    ZResult<void> Hold(ZFileDescriptor file, const std::filesystem::path& state);

    std::vector<ZFileDescriptor> m_held;
};
