// The context space on NBLs.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "host/kernel/quarantine.h"
#include "host/verifier/check_site.h"
#include "platform/ndis.h"

namespace netsieve::host {

class Machine;

/// Gives and takes the context areas of NBLs. With the verifier on, every area is guarded at both
/// ends: by bytes before and behind its block, by the block's unused space, and by a gap between
/// two areas of one block where there is room for it.
class NblContexts {
  public:
    explicit NblContexts(Machine& machine);

    /// Pushes `size` bytes on the NBL, with room for `backFill` more. With `ofNbl` the space is
    /// freed with the NBL. IRQL <= DISPATCH_LEVEL.
    NDIS_STATUS Allocate(PNET_BUFFER_LIST nbl,
                         USHORT size,
                         USHORT backFill,
                         ULONG tag,
                         bool ofNbl = false);
    void Free(PNET_BUFFER_LIST nbl, USHORT size);
    /// The NBL is freed: reports the contexts that others left on it, and frees all of them.
    void Release(PNET_BUFFER_LIST nbl);
    /// Frees the context space of an NBL that outlives the machine's run, without a check.
    static void Drop(PNET_BUFFER_LIST nbl);
    /// Checks the freed context space in quarantine and releases it.
    void Settle() { quarantine_.Drain(); }
    /// Blocks taken from the heap since the start.
    std::uint64_t allocations() const { return allocations_.load(std::memory_order_relaxed); }

  private:
    /// An area as it was handed out, and its block as it was then.
    struct Area {
        USHORT size;
        USHORT gap;          ///< unused bytes between this area and the one before in its block
        const void* module;  ///< in whose callback it was allocated
        bool ofNbl;          ///< allocated and freed with the NBL
        NET_BUFFER_LIST_CONTEXT* block;
        NET_BUFFER_LIST_CONTEXT head;
    };

    NET_BUFFER_LIST_CONTEXT* NewBlock(PNET_BUFFER_LIST nbl, std::size_t space);
    void CheckGuards(PNET_BUFFER_LIST nbl, const Area& area, CheckSite site = CheckSite::Here());
    bool CheckFree(PNET_BUFFER_LIST nbl, USHORT size, Area& freed);
    void ReleaseBlock(NET_BUFFER_LIST_CONTEXT* block);

    Machine& machine_;
    Quarantine quarantine_;
    HostMutex mutex_;
    std::map<PNET_BUFFER_LIST, std::vector<Area>> areas_;  ///< the areas of each NBL, top last
    std::atomic<std::uint64_t> allocations_ = 0;
};

}  // namespace netsieve::host
