#pragma once

#include "ZShared/ZWakeUp.h"

/// A flag that a thread can sleep on with poll: set once, from any thread, and never cleared.
class ZStopEvent {
public:
    void Set() noexcept { m_event.Set(); }
    bool IsSet() const noexcept { return m_event.IsSet(); }
    /// Readable once the flag is set. Owned by this object.
    int Descriptor() const noexcept { return m_event.Descriptor(); }

    /// The event that ends blocking platform calls (commands) of the calling thread; null when there is none.
    static const ZStopEvent* OfThisThread() noexcept;

private:
    ZWakeUp m_event;
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
