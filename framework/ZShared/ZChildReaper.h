#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

/// Waits for detached children so that none stays a zombie, and logs how each ended. One thread, which exists only
/// while there are children and sleeps until one ends.
class ZChildReaper {
public:
    static ZChildReaper& Instance();

    /// Takes over a child of this process. When no thread or descriptor is to be had that is logged, and the child is
    /// left to end unreaped.
    void Watch(pid_t child, const std::string& program);

    /// The line that tells how a program ended; `waitStatus` as waitpid gives it.
    static void LogEnd(const std::string& program, pid_t child, int waitStatus);

private:
    ZChildReaper();
    ~ZChildReaper();
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
