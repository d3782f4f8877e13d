#include "ZShared/ZAllocator.h"

#include <algorithm>
#include <array>
#include <atomic>

namespace {

constexpr std::size_t kCacheLine = 64;
constexpr std::size_t kAccounts = 16;
// A thread that has come to hold this much more looks whether the whole is at its peak.
constexpr std::ptrdiff_t kLookAfter = 1024;

/// What the threads of one account have allocated less what they have freed: negative when they free what others made.
struct alignas(kCacheLine) Account {
    std::atomic<std::ptrdiff_t> inUse{0};
    std::atomic<std::ptrdiff_t> lookAt{kLookAfter};
};

// Constant-initialised: static objects of every library allocate before and after any dynamic initialisation.
constinit std::array<Account, kAccounts> g_accounts{};
constinit std::atomic<std::size_t> g_threads{0};
constinit std::atomic<std::size_t> g_peak{0};

Account& OwnAccount() {
    static constinit thread_local Account* own = nullptr;
    if (own == nullptr) {
        own = &g_accounts[g_threads.fetch_add(1, std::memory_order_relaxed) % kAccounts];
    }
    return *own;
}

std::size_t Sum() {
    std::ptrdiff_t sum = 0;
    for (const Account& account : g_accounts) {
        sum += account.inUse.load(std::memory_order_relaxed);
    }
    return static_cast<std::size_t>(std::max<std::ptrdiff_t>(sum, 0));
}

std::size_t Look() {
    const std::size_t now = Sum();
    std::size_t peak = g_peak.load(std::memory_order_relaxed);
    while (now > peak && !g_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
    return now;
}

}  // namespace

void ZAllocatorAccount::Add(std::size_t bytes) noexcept {
    Account& own = OwnAccount();
    const auto size = static_cast<std::ptrdiff_t>(bytes);
    const std::ptrdiff_t now = own.inUse.fetch_add(size, std::memory_order_relaxed) + size;
    if (now >= own.lookAt.load(std::memory_order_relaxed)) {
        own.lookAt.store(now + kLookAfter, std::memory_order_relaxed);
        Look();
    }
}

void ZAllocatorAccount::Remove(std::size_t bytes) noexcept {
    Account& own = OwnAccount();
    const auto size = static_cast<std::ptrdiff_t>(bytes);
    const std::ptrdiff_t now = own.inUse.fetch_sub(size, std::memory_order_relaxed) - size;
    if (now + 2 * kLookAfter < own.lookAt.load(std::memory_order_relaxed)) {
        own.lookAt.store(now + kLookAfter, std::memory_order_relaxed);
    }
}

ZAllocatorUsage ZAllocatorAccount::Usage() noexcept {
    const std::size_t now = Look();
    return {now, g_peak.load(std::memory_order_relaxed)};
}
