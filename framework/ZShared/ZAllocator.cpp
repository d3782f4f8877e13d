#include "ZShared/ZAllocator.h"

#include <atomic>

namespace {

// Constant-initialised: static objects of every library allocate before and after any dynamic initialisation.
constinit std::atomic<std::size_t> g_inUse{0};
constinit std::atomic<std::size_t> g_peak{0};

}  // namespace

void ZAllocatorAccount::Add(std::size_t bytes) noexcept {
    const std::size_t now = g_inUse.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    std::size_t peak = g_peak.load(std::memory_order_relaxed);
    while (now > peak && !g_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
}

void ZAllocatorAccount::Remove(std::size_t bytes) noexcept {
    g_inUse.fetch_sub(bytes, std::memory_order_relaxed);
}

ZAllocatorUsage ZAllocatorAccount::Usage() noexcept {
    return {g_inUse.load(std::memory_order_relaxed), g_peak.load(std::memory_order_relaxed)};
}
