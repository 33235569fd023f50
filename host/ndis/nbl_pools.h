// NET_BUFFER_LIST pools, their NBLs, and the context space on NBLs.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "host/kernel/quarantine.h"
#include "host/verifier/nbl_tracker.h"

namespace netsieve::host {

class LoadedDriver;
class Machine;
struct NblBlock;

/// A pool of NBLs that belong to one party.
struct NblPool {
    Component* owner = nullptr;
    const LoadedDriver* driver = nullptr;  ///< null for a pool of the host's own edges
    std::atomic<int> live = 0;             ///< NBLs that are allocated
    KSPIN_LOCK lock = 0;                   ///< guards `free`
    NblBlock* free = nullptr;              ///< kept for the next allocation (verifier off)
};

class NblPools {
  public:
    explicit NblPools(Machine& machine);
    ~NblPools();

    /// A pool whose NBLs are at home with `home`; null on a fault, which only a driver meets.
    NblPool* CreatePool(Component* owner, const LoadedDriver* driver);
    void FreePool(NblPool* pool);
    /// Whether NBLs can be made from this handle; without the verifier only null is told apart.
    bool IsPool(NDIS_HANDLE handle);
    /// An NBL with one NET_BUFFER over the MDL chain; null on a fault.
    PNET_BUFFER_LIST AllocateNbl(NblPool* pool, PMDL mdlChain, ULONG dataOffset, SIZE_T length);
    void FreeNbl(PNET_BUFFER_LIST nbl);
    /// Puts `size` bytes of context space on top of the NBL's, with room for `backFill` more.
    /// With `ofList` the space belongs to the NBL for its life.
    NDIS_STATUS AllocateContext(PNET_BUFFER_LIST nbl,
                                USHORT size,
                                USHORT backFill,
                                ULONG tag,
                                bool ofNbl = false);
    void FreeContext(PNET_BUFFER_LIST nbl, USHORT size);

    /// Where the verifier follows the NBLs; only used when it is on.
    NblTracker& tracker() { return tracker_; }
    std::size_t PoolsOf(const LoadedDriver* driver);
    /// Pools whose NBLs are at home with `home`.
    std::size_t PoolsOwnedBy(const Component& owner);
    /// Checks the freed NBLs and context space in quarantine and lets them go.
    void Settle() { quarantine_.Drain(); }
    /// Pools of drivers, and the NBLs allocated from them, that are not freed.
    std::size_t DriverPools();
    std::size_t DriverNbls();
    /// Pools and NBLs taken from the heap since the start: a data path that allocates nothing
    /// leaves it as it is.
    std::uint64_t allocations() const { return allocations_.load(std::memory_order_relaxed); }

  private:
    struct Area {
        USHORT size;
        const void* module;  ///< in whose callback it was allocated
        bool ofNbl;          ///< came with the NBL and goes with it
    };
    bool CheckContextFree(PNET_BUFFER_LIST nbl, USHORT size);
    NblBlock* TakeBlock(NblPool* pool);
    void ReleaseContextBlock(NET_BUFFER_LIST_CONTEXT* block);
    void ReleaseContexts(PNET_BUFFER_LIST nbl);

    Machine& machine_;
    NblTracker tracker_;
    Quarantine quarantine_;
    HostMutex mutex_;
    std::set<NblPool*> pools_;
    std::map<PNET_BUFFER_LIST, std::vector<Area>> areas_;  ///< the stack on each NBL, top last
    std::atomic<std::uint64_t> allocations_ = 0;
};

}  // namespace netsieve::host
