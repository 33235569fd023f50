// What is to be done when code goes on at a raised IRQL.
#pragma once

#include <atomic>

namespace netsieve::host {

/// Called by the schedulers, on the thread that is concerned, when a context has been raised to
/// DISPATCH_LEVEL or above and when a raised one is switched to. Null while nothing needs it, so
/// that raising costs a load.
inline std::atomic<void (*)()> g_raiseHook = nullptr;

inline void CallRaiseHook() {
    if (void (*const hook)() = g_raiseHook.load(std::memory_order_acquire)) [[unlikely]] {
        hook();
    }
}

}  // namespace netsieve::host
