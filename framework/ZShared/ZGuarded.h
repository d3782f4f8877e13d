#pragma once

#include <condition_variable>
#include <mutex>
#include <utility>

/// A value that threads share, and the mutex without which nobody reaches it.
template <typename T, typename Mutex = std::mutex>
class ZGuarded {
public:
    ZGuarded() = default;
    explicit ZGuarded(T value) : m_value(std::move(value)) {}

    /// The value, for as long as the holder lives; nobody else has it meanwhile.
    template <typename Value>
    class Holder {
    public:
        Holder(Mutex& mutex, Value& value) : m_lock(mutex), m_value(value) {}
        Value* operator->() const { return &m_value; }
        Value& operator*() const { return m_value; }
        /// Lets others have the value, before the holder's end.
        void Release() { m_lock.unlock(); }
        /// Sleeps until `isDue(value)`, others having the value meanwhile.
        template <typename Due>
        void Wait(std::condition_variable& changed, const Due& isDue) {
            changed.wait(m_lock, [&] { return isDue(m_value); });
        }
        /// As Wait, until `deadline` at the latest; whether it is due.
        template <typename Time, typename Due>
        bool WaitUntil(std::condition_variable& changed, const Time& deadline, const Due& isDue) {
            return changed.wait_until(m_lock, deadline, [&] { return isDue(m_value); });
        }

    private:
        std::unique_lock<Mutex> m_lock;
        Value& m_value;
    };

    Holder<T> Lock() { return {m_mutex, m_value}; }
    Holder<const T> Lock() const { return {m_mutex, m_value}; }
    T Copy() const { return *Lock(); }
    /// Puts `value` in its place and returns what was there.
    T Exchange(T value) { return std::exchange(*Lock(), std::move(value)); }

private:
    mutable Mutex m_mutex;
    T m_value{};
};
