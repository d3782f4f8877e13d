#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <new>
#include <string>
#include <string_view>
#include <vector>

/// What the framework's allocator has handed out, in bytes. A snapshot, exact when no other thread is at work.
struct ZAllocatorUsage {
    std::size_t inUse = 0;  ///< allocated and not yet freed
    std::size_t peak = 0;   ///< the most that was seen in use at once: a thread's rise of less than 2 KiB may go unseen
};

/// The process-wide account behind every ZAllocator. Thread-safe, no locks; threads do not share a cache line unless
/// there are more than a few.
class ZAllocatorAccount {
public:
    static void Add(std::size_t bytes) noexcept;
    static void Remove(std::size_t bytes) noexcept;
    static ZAllocatorUsage Usage() noexcept;
};

/// The allocator of all framework strings, containers and objects: operator new with an account.
template <typename T>
class ZAllocator {
public:
    using value_type = T;

    ZAllocator() noexcept = default;
    template <typename U>
    ZAllocator(const ZAllocator<U>&) noexcept {}  // NOLINT(google-explicit-constructor): allocators rebind freely

    T* allocate(std::size_t count) {
        if (count > SIZE_MAX / sizeof(T)) {
            throw std::bad_array_new_length();
        }
        const std::size_t bytes = count * sizeof(T);
        void* memory = nullptr;
        if constexpr (kIsOverAligned) {
            memory = ::operator new (bytes, std::align_val_t{alignof(T)});
        } else {
            memory = ::operator new(bytes);
        }
        ZAllocatorAccount::Add(bytes);
        return static_cast<T*>(memory);
    }

    void deallocate(T* memory, std::size_t count) noexcept {
        ZAllocatorAccount::Remove(count * sizeof(T));
        if constexpr (kIsOverAligned) {
            ::operator delete (memory, std::align_val_t{alignof(T)});
        } else {
            ::operator delete(memory);
        }
    }

    template <typename U>
    bool operator==(const ZAllocator<U>&) const noexcept {
        return true;
    }

private:
    static constexpr bool kIsOverAligned = alignof(T) > __STDCPP_DEFAULT_NEW_ALIGNMENT__;
};

using ZString = std::basic_string<char, std::char_traits<char>, ZAllocator<char>>;
template <typename T>
using ZVector = std::vector<T, ZAllocator<T>>;
template <typename T>
using ZList = std::list<T, ZAllocator<T>>;
template <typename Key, typename Value, typename Compare = std::less<Key>>
using ZMap = std::map<Key, Value, Compare, ZAllocator<std::pair<const Key, Value>>>;

/// A standard string's copy in framework memory, and the way back.
inline ZString ToZString(std::string_view text) {
    return ZString(text);
}
inline std::string ToStdString(const ZString& text) {
    return std::string(text.data(), text.size());
}
