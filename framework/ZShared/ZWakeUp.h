#pragma once

#include "ZShared/ZFileDescriptor.h"

/// Wakes a thread that sleeps in poll. Set from any thread, also more than once; cleared by the one that slept.
class ZWakeUp {
public:
    /// Throws std::system_error when the system has no descriptor left.
    ZWakeUp();

    void Set() noexcept;
    void Clear() noexcept;
    bool IsSet() const noexcept;
    /// Readable while it is set. Owned by this object.
    int Descriptor() const noexcept { return m_event.Get(); }

private:
    ZFileDescriptor m_event;
};
