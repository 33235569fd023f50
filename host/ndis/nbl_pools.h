// NBL pools and their NBLs.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "host/kernel/quarantine.h"
#include "host/ndis/nbl_contexts.h"
#include "host/verifier/nbl_tracker.h"

namespace netsieve::host {

class LoadedDriver;
class Machine;
struct NblBlock;

/// A pool whose NBLs belong to one component.
struct NblPool {
    Component* owner = nullptr;
    const LoadedDriver* driver = nullptr;  ///< null for a pool of the host's own
    std::atomic<int> live = 0;             ///< NBLs that are allocated
    KSPIN_LOCK lock = 0;                   ///< guards `free`
    NblBlock* free = nullptr;              ///< kept for the next allocation (verifier off)
};

class NblPools {
  public:
    explicit NblPools(Machine& machine);
    ~NblPools();

    /// A pool whose NBLs belong to `owner`. Null when the allocation is made to fail, which happens
    /// to drivers only.
    NblPool* CreatePool(Component* owner, const LoadedDriver* driver);
    void FreePool(NblPool* pool);
    /// Whether this is the handle of a pool; without the verifier, whether it is not null.
    bool IsPool(NDIS_HANDLE handle);
    /// An NBL with one NET_BUFFER for the MDL chain; null when the allocation is made to fail.
    PNET_BUFFER_LIST AllocateNbl(NblPool* pool, PMDL mdlChain, ULONG dataOffset, SIZE_T length);
    void FreeNbl(PNET_BUFFER_LIST nbl);
    NblContexts& contexts() { return contexts_; }
    /// Tracks the NBLs; used only when the verifier is on.
    NblTracker& tracker() { return tracker_; }
    std::size_t PoolsOf(const LoadedDriver* driver);
    /// Number of pools whose NBLs belong to `owner`.
    std::size_t PoolsOwnedBy(const Component& owner);
    /// Checks the freed NBLs and context space in quarantine and releases them.
    void Settle() {
        contexts_.Settle();
        quarantine_.Drain();
    }
    /// Pools of drivers, and the NBLs allocated from them, that are not freed.
    std::size_t DriverPools();
    std::size_t DriverNbls();
    /// Pools and NBLs taken from the heap since the start: a data path that allocates nothing
    /// leaves it as it is.
    std::uint64_t allocations() const {
        return allocations_.load(std::memory_order_relaxed) + contexts_.allocations();
    }

  private:
    NblBlock* TakeBlock(NblPool* pool);

    Machine& machine_;
    NblTracker tracker_;
    NblContexts contexts_;
    Quarantine quarantine_;
    HostMutex mutex_;
    std::set<NblPool*> pools_;
    std::atomic<std::uint64_t> allocations_ = 0;
};

}  // namespace netsieve::host
