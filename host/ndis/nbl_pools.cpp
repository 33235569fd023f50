#include "host/ndis/nbl_pools.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>

#include "host/machine.h"
#include "host/ndis/ndis.h"
#include "host/sched/happens_before.h"
#include "host/sched/threaded_scheduler.h"

namespace netsieve::host {

/// An NBL as it is allocated: with the info array of the newest NDIS and its NET_BUFFER.
struct NblBlock {
    alignas(16) NET_BUFFER_LIST nbl;
    PVOID moreInfo[31];
    alignas(16) NET_BUFFER buffer;
    NblPool* pool;
    NblBlock* nextFree;
};

namespace {

NblBlock* BlockOf(PNET_BUFFER_LIST nbl) {
    return CONTAINING_RECORD(nbl, NblBlock, nbl);
}

}  // namespace

NblPools::NblPools(Machine& machine)
    : machine_(machine),
      tracker_(machine.verifier()),
      contexts_(machine),
      quarantine_([&machine](const std::string& what) {
          machine.verifier().Report(Rule::kFreedNblUsed, what + " was written after it was freed");
      }) {}

NblPools::~NblPools() {
    tracker_.TakeUpAll();
    for (PNET_BUFFER_LIST nbl : tracker_.All()) {
        NblContexts::Drop(nbl);
        std::free(BlockOf(nbl));
    }
    for (NblPool* pool : pools_) {
        while (NblBlock* block = pool->free) {
            pool->free = block->nextFree;
            std::free(block);
        }
        delete pool;
    }
}

NblPool* NblPools::CreatePool(Component* owner, const LoadedDriver* driver) {
    if (driver != nullptr && machine_.faults().Fails(FaultKind::kNblPool)) {
        return nullptr;
    }
    auto* pool = new NblPool{.owner = owner, .driver = driver};
    allocations_.fetch_add(1, std::memory_order_relaxed);
    HostLock lock(mutex_);
    pools_.insert(pool);
    return pool;
}

bool NblPools::IsPool(NDIS_HANDLE handle) {
    if (!g_verifyMode) {
        return handle != nullptr;
    }
    HostLock lock(mutex_);
    return pools_.contains(static_cast<NblPool*>(handle));
}

void NblPools::FreePool(NblPool* pool) {
    HostLock lock(mutex_);
    if (!pools_.contains(pool)) {
        machine_.verifier().Report(Rule::kPoolDoubleFree,
                                   "NdisFreeNetBufferListPool with a handle that is no pool");
        return;
    }
    if (pool->live != 0) {
        machine_.verifier().Report(Rule::kNblPoolInUse,
                                   fmt::format("{} NBL(s) of the pool of {} are not freed",
                                               pool->live.load(), pool->owner->name));
        pool->driver = nullptr;  // no longer the driver's, but its NBLs still need the pool
        return;
    }
    pools_.erase(pool);
    while (NblBlock* block = pool->free) {
        pool->free = block->nextFree;
        std::free(block);
    }
    delete pool;
}

NblBlock* NblPools::TakeBlock(NblPool* pool) {
    ThreadedScheduler::SpinUntilAcquired(&pool->lock);
    NblBlock* block = pool->free;
    if (block != nullptr) {
        NoteAcquire(block);
        pool->free = block->nextFree;
    }
    ThreadedScheduler::ReleaseWord(&pool->lock);
    if (block == nullptr) {
        block = static_cast<NblBlock*>(std::malloc(sizeof(NblBlock)));
        allocations_.fetch_add(1, std::memory_order_relaxed);
    }
    return block;
}

PNET_BUFFER_LIST NblPools::AllocateNbl(NblPool* pool,
                                       PMDL mdlChain,
                                       ULONG dataOffset,
                                       SIZE_T length) {
    if (pool->driver != nullptr && machine_.faults().Fails(FaultKind::kNbl)) {
        return nullptr;
    }
    NblBlock* const block = TakeBlock(pool);
    std::memset(block, 0, sizeof(NblBlock));
    block->pool = pool;
    PMDL mdl = mdlChain;
    ULONG skip = dataOffset;
    while (mdl != nullptr && skip != 0 && skip >= mdl->ByteCount) {
        skip -= mdl->ByteCount;
        mdl = mdl->Next;
    }
    block->buffer.CurrentMdl = mdl;
    block->buffer.CurrentMdlOffset = skip;
    block->buffer.stDataLength = length;
    block->buffer.MdlChain = mdlChain;
    block->buffer.DataOffset = dataOffset;
    block->buffer.NdisPoolHandle = pool;
    block->nbl.FirstNetBuffer = &block->buffer;
    block->nbl.NdisPoolHandle = pool;
    pool->live.fetch_add(1, std::memory_order_relaxed);
    if (machine_.verifier().enabled()) {
        tracker_.Add(&block->nbl, pool->owner);
    }
    return &block->nbl;
}

void NblPools::FreeNbl(PNET_BUFFER_LIST nbl) {
    if (!machine_.verifier().enabled()) {
        NblBlock* const block = BlockOf(nbl);
        NblPool* const pool = block->pool;
        pool->live.fetch_sub(1, std::memory_order_relaxed);
        NoteRelease(block);
        ThreadedScheduler::SpinUntilAcquired(&pool->lock);
        block->nextFree = pool->free;
        pool->free = block;
        ThreadedScheduler::ReleaseWord(&pool->lock);
        return;
    }
    if (!tracker_.Remove(nbl)) {
        return;
    }
    contexts_.Release(nbl);
    NblBlock* const block = BlockOf(nbl);
    block->pool->live.fetch_sub(1, std::memory_order_relaxed);
    const std::string what = fmt::format("an NBL of {}", block->pool->owner->name);
    quarantine_.Add(block, block, sizeof(NblBlock), what);
}

std::size_t NblPools::PoolsOf(const LoadedDriver* driver) {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        pools_.begin(), pools_.end(), [&](const NblPool* pool) { return pool->driver == driver; }));
}

std::size_t NblPools::PoolsOwnedBy(const Component& owner) {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        pools_.begin(), pools_.end(), [&](const NblPool* pool) { return pool->owner == &owner; }));
}

std::size_t NblPools::DriverPools() {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        pools_.begin(), pools_.end(), [](const NblPool* pool) { return pool->driver != nullptr; }));
}

std::size_t NblPools::DriverNbls() {
    HostLock lock(mutex_);
    std::size_t nbls = 0;
    for (const NblPool* pool : pools_) {
        nbls += pool->driver != nullptr ? static_cast<std::size_t>(pool->live.load()) : 0;
    }
    return nbls;
}

namespace {

// As published for revision 1, the first and smallest.
bool IsComplete(const NET_BUFFER_LIST_POOL_PARAMETERS& parameters) {
    return parameters.Header.Type == NDIS_OBJECT_TYPE_DEFAULT && parameters.Header.Revision >= 1 &&
           parameters.Header.Size >= sizeof(parameters) && parameters.PoolTag != 0;
}

SIZE_T BytesIn(const MDL* chain) {
    SIZE_T bytes = 0;
    for (; chain != nullptr; chain = chain->Next) {
        bytes += chain->ByteCount;
    }
    return bytes;
}

// What the platform's pages list, without the values of which the platform here has none.
constexpr NDIS_NET_BUFFER_LIST_INFO kCopiedOnSend[] = {
    TcpIpChecksumNetBufferListInfo,
    IPsecOffloadV1NetBufferListInfo,
    TcpLargeSendNetBufferListInfo,
    Ieee8021QNetBufferListInfo,
    MediaSpecificInformation,
    NetBufferListCancelId,
    NetBufferListProtocolId,
    IPsecOffloadV2TunnelNetBufferListInfo,
    IPsecOffloadV2HeaderNetBufferListInfo,
    NetBufferListFilteringInfo,
};
constexpr NDIS_NET_BUFFER_LIST_INFO kCopiedOnReceive[] = {
    TcpIpChecksumNetBufferListInfo,
    IPsecOffloadV1NetBufferListInfo,
    TcpReceiveNoPush,
    Ieee8021QNetBufferListInfo,
    MediaSpecificInformation,
    NetBufferListFrameType,
    NetBufferListHashValue,
    NetBufferListHashInfo,
    IPsecOffloadV2TunnelNetBufferListInfo,
    IPsecOffloadV2HeaderNetBufferListInfo,
    NetBufferListFilteringInfo,
};

void CopyInfo(PNET_BUFFER_LIST to,
              PNET_BUFFER_LIST from,
              std::span<const NDIS_NET_BUFFER_LIST_INFO> ids) {
    if (g_verifyMode) {
        Machine::Current().ndis().nblPools().tracker().CheckRead(from);
    }
    for (const NDIS_NET_BUFFER_LIST_INFO id : ids) {
        NET_BUFFER_LIST_INFO(to, id) = NET_BUFFER_LIST_INFO(from, id);
    }
}

}  // namespace

}  // namespace netsieve::host

using namespace netsieve::host;

extern "C" {

NDIS_HANDLE NTAPI NdisAllocateNetBufferListPool(NDIS_HANDLE NdisHandle,
                                                PNET_BUFFER_LIST_POOL_PARAMETERS Parameters) {
    Machine& machine = Machine::Current();
    machine.EnterCall("NdisAllocateNetBufferListPool");
    FilterModule* const module = machine.ndis().ModuleOf(NdisHandle);
    if (module == nullptr) {
        return nullptr;
    }
    if (!IsComplete(*Parameters)) {
        machine.verifier().Report(
            Rule::kNblPoolParameters,
            fmt::format("header {:#x}, revision {}, {} bytes; tag {:#x}", Parameters->Header.Type,
                        Parameters->Header.Revision, Parameters->Header.Size, Parameters->PoolTag));
        return nullptr;
    }
    return machine.ndis().nblPools().CreatePool(&module->component,
                                                LoadedDriver::Calling(CurrentContext()));
}

VOID NTAPI NdisFreeNetBufferListPool(NDIS_HANDLE PoolHandle) {
    Machine::Current().EnterCall("NdisFreeNetBufferListPool");
    Machine::Current().ndis().nblPools().FreePool(static_cast<NblPool*>(PoolHandle));
}

PNET_BUFFER_LIST NTAPI NdisAllocateNetBufferAndNetBufferList(NDIS_HANDLE PoolHandle,
                                                             USHORT ContextSize,
                                                             USHORT ContextBackFill,
                                                             PMDL MdlChain,
                                                             ULONG DataOffset,
                                                             SIZE_T DataLength) {
    Machine& machine = Machine::Current();
    machine.EnterCall("NdisAllocateNetBufferAndNetBufferList");
    NblPools& nbls = machine.ndis().nblPools();
    if (MdlChain != nullptr && DataOffset + DataLength > BytesIn(MdlChain)) {
        machine.verifier().Report(
            Rule::kNblBounds, fmt::format("{} bytes from {} on, of an MDL chain of {}", DataLength,
                                          DataOffset, BytesIn(MdlChain)));
        return nullptr;
    }
    if (!nbls.IsPool(PoolHandle)) {
        machine.verifier().Report(Rule::kHandleNotOpen,
                                  "an NBL was allocated from a handle that is no pool");
        return nullptr;
    }
    PNET_BUFFER_LIST const nbl =
        nbls.AllocateNbl(static_cast<NblPool*>(PoolHandle), MdlChain, DataOffset, DataLength);
    if (nbl != nullptr && ContextSize + ContextBackFill != 0 &&
        nbls.contexts().Allocate(nbl, ContextSize, ContextBackFill, 0, true) !=
            NDIS_STATUS_SUCCESS) {
        nbls.FreeNbl(nbl);
        return nullptr;
    }
    return nbl;
}

VOID NTAPI NdisFreeNetBufferList(PNET_BUFFER_LIST NetBufferList) {
    Machine::Current().EnterCall("NdisFreeNetBufferList");
    Machine::Current().ndis().nblPools().FreeNbl(NetBufferList);
}

NDIS_STATUS NTAPI NdisAllocateNetBufferListContext(PNET_BUFFER_LIST NetBufferList,
                                                   USHORT ContextSize,
                                                   USHORT ContextBackFill,
                                                   ULONG PoolTag) {
    Machine::Current().EnterCall("NdisAllocateNetBufferListContext");
    return Machine::Current().ndis().nblPools().contexts().Allocate(NetBufferList, ContextSize,
                                                                    ContextBackFill, PoolTag);
}

VOID NTAPI NdisFreeNetBufferListContext(PNET_BUFFER_LIST NetBufferList, USHORT ContextSize) {
    Machine::Current().EnterCall("NdisFreeNetBufferListContext");
    Machine::Current().ndis().nblPools().contexts().Free(NetBufferList, ContextSize);
}

VOID NTAPI NdisCopySendNetBufferListInfo(PNET_BUFFER_LIST DestNetBufferList,
                                         PNET_BUFFER_LIST SrcNetBufferList) {
    Machine::Current().EnterCall("NdisCopySendNetBufferListInfo");
    CopyInfo(DestNetBufferList, SrcNetBufferList, kCopiedOnSend);
}

VOID NTAPI NdisCopyReceiveNetBufferListInfo(PNET_BUFFER_LIST DestNetBufferList,
                                            PNET_BUFFER_LIST SrcNetBufferList) {
    Machine::Current().EnterCall("NdisCopyReceiveNetBufferListInfo");
    CopyInfo(DestNetBufferList, SrcNetBufferList, kCopiedOnReceive);
}

}  // extern "C"
