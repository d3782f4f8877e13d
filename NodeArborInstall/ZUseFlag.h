#pragma once

#include <atomic>

/// A flag that is set while anybody holds it: two workers that overlap don't clear it for each other.
class ZUseFlag {
public:
    /// Whether it is held now. Any thread.
    operator bool() const { return m_holders > 0; }  // NOLINT(google-explicit-constructor): it reads as a flag

    /// Holds the flag while it lives.
    class Hold {
    public:
        explicit Hold(ZUseFlag& flag) : m_flag(flag) { ++m_flag.m_holders; }
        ~Hold() { --m_flag.m_holders; }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

    private:
        ZUseFlag& m_flag;
    };

private:
    std::atomic<int> m_holders{0};
};
