#pragma once

#include "ZShared/ZFileDescriptor.h"

/// A flag that a thread can sleep on with poll: set once, from any thread, and never cleared.
class ZStopEvent {
public:
    /// Throws std::system_error when the system has no descriptor left.
    ZStopEvent();

    void Set() noexcept;
    bool IsSet() const noexcept;
    /// Readable once the flag is set. Owned by this object.
    int Descriptor() const noexcept { return m_event.Get(); }

    /// The event that ends blocking platform calls (commands) of the calling thread; null when there is none.
    static const ZStopEvent* OfThisThread() noexcept;

private:
    friend class ZStopScope;
    ZFileDescriptor m_event;
};

/// While it lives, `event` ends the blocking platform calls of the thread that made it.
class ZStopScope {
public:
    explicit ZStopScope(const ZStopEvent& event) noexcept;
    ~ZStopScope();
    ZStopScope(const ZStopScope&) = delete;
    ZStopScope& operator=(const ZStopScope&) = delete;

private:
    const ZStopEvent* m_previous;
};
