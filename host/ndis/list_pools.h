// NET_BUFFER_LIST pools, their lists, and the context space on lists.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "host/kernel/quarantine.h"
#include "host/verifier/list_tracker.h"

namespace netsieve::host {

class LoadedDriver;
class Machine;
struct ListBlock;

/// A pool of lists that belong to one party.
struct ListPool {
    Party* home = nullptr;
    const LoadedDriver* driver = nullptr;  ///< null for a pool of the host's own edges
    std::atomic<int> live = 0;             ///< lists that are allocated
    KSPIN_LOCK lock = 0;                   ///< guards `free`
    ListBlock* free = nullptr;             ///< kept for the next allocation (verifier off)
};

class ListPools {
  public:
    explicit ListPools(Machine& machine);
    ~ListPools();

    /// A pool whose lists are at home with `home`; null on a fault, which only a driver meets.
    ListPool* CreatePool(Party* home, const LoadedDriver* driver);
    void FreePool(ListPool* pool);
    /// Whether lists can be made from this handle; without the verifier only null is told apart.
    bool IsPool(NDIS_HANDLE handle);
    /// A list with one NET_BUFFER over the MDL chain; null on a fault.
    PNET_BUFFER_LIST AllocateList(ListPool* pool, PMDL mdlChain, ULONG dataOffset, SIZE_T length);
    void FreeList(PNET_BUFFER_LIST list);
    /// Puts `size` bytes of context space on top of the list's, with room for `backFill` more.
    /// With `ofList` the space belongs to the list for its life.
    NDIS_STATUS AllocateContext(PNET_BUFFER_LIST list,
                                USHORT size,
                                USHORT backFill,
                                ULONG tag,
                                bool ofList = false);
    void FreeContext(PNET_BUFFER_LIST list, USHORT size);

    /// Where the verifier follows the lists; only used when it is on.
    ListTracker& tracker() { return tracker_; }
    std::size_t PoolsOf(const LoadedDriver* driver);
    /// Pools whose lists are at home with `home`.
    std::size_t PoolsAtHome(const Party& home);
    /// Checks the freed lists and context space in quarantine and lets them go.
    void Settle() { quarantine_.Drain(); }
    /// Pools of drivers, and the lists allocated from them, that are not freed.
    std::size_t DriverPools();
    std::size_t DriverLists();
    /// Pools and lists taken from the heap since the start: a data path that allocates nothing
    /// leaves it as it is.
    std::uint64_t Allocations() const { return allocations_.load(std::memory_order_relaxed); }

  private:
    struct Area {
        USHORT size;
        const void* module;  ///< in whose callback it was allocated
        bool ofList;         ///< came with the list and goes with it
    };
    bool CheckContextFree(PNET_BUFFER_LIST list, USHORT size);
    ListBlock* TakeBlock(ListPool* pool);
    void ReleaseContextBlock(NET_BUFFER_LIST_CONTEXT* block);
    void ReleaseContexts(PNET_BUFFER_LIST list);

    Machine& machine_;
    ListTracker tracker_;
    Quarantine quarantine_;
    HostMutex mutex_;
    std::set<ListPool*> pools_;
    std::map<PNET_BUFFER_LIST, std::vector<Area>> areas_;  ///< the stack on each list, top last
    std::atomic<std::uint64_t> allocations_ = 0;
};

}  // namespace netsieve::host
