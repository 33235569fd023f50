// The pages of paged pool, which are taken away while code runs raised.
#pragma once

#include <cstddef>

namespace netsieve::host {

/// Paged blocks have pages of their own, apart from all other memory. While a context runs at
/// DISPATCH_LEVEL or above they are unreadable, as if the system had written them out; who touches
/// them then gets a fault, which MemoryFaults notes.
///
/// The simulated scheduler runs one context at a time, so that every touch is noticed. On real
/// threads a context below DISPATCH_LEVEL brings the pages back for all of them, so that a touch
/// may be missed; a context that may touch them is never blamed.
class PagedMemory {
  public:
    /// Whole pages, which belong to the caller until Free; null when the reserve is used up.
    static void* Allocate(std::size_t size);
    /// Nobody may use the block any more, but its bytes are kept until Free. With the last one in
    /// use pages are no longer taken away.
    static void Retire();
    static void Free(void* block);

    /// Whether the address lies in pages that are or were in use. Safe in a signal handler.
    static bool Contains(const void* address);
    /// Makes the pages accessible to the whole process. Safe in a signal handler.
    static void Release();

    /// Lets the host itself touch the pages on this thread at any IRQL. No scheduling point may lie
    /// in its lifetime.
    class HostAccess {
      public:
        HostAccess();
        ~HostAccess();
        HostAccess(const HostAccess&) = delete;
        HostAccess& operator=(const HostAccess&) = delete;
        /// Whether this thread has one. Safe in a signal handler.
        static bool Active();
    };
};

}  // namespace netsieve::host
