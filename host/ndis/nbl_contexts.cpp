#include "host/ndis/nbl_contexts.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "host/kernel/callback.h"
#include "host/machine.h"
#include "host/memory_poison.h"
#include "host/sched/happens_before.h"

namespace netsieve::host {

namespace {

constexpr USHORT kAllocationAlignment = 16;  // MEMORY_ALLOCATION_ALIGNMENT

// Context space is 8-byte but deliberately not 16-byte aligned, since the platform only promises
// the former: a block's head stands this far into its 16-byte aligned allocation.
constexpr std::size_t kContextShift = 24;
constexpr std::size_t kRearGuard = 16;
constexpr USHORT kGap = 16;
constexpr unsigned char kGuardByte = 0xFD;

// Freed context blocks that each thread keeps for its next allocation.
class ContextCache {
  public:
    ~ContextCache() {
        for (void* allocation : free_) {
            std::free(allocation);
        }
    }
    void* Take(std::size_t size) {
        if (size != size_ || free_.empty()) {
            return nullptr;
        }
        void* const allocation = free_.back();
        free_.pop_back();
        NoteAcquire(allocation);
        return allocation;
    }
    bool Give(void* allocation, std::size_t size) {
        if (free_.empty()) {
            size_ = size;
        }
        if (size != size_ || free_.size() == kMost) {
            return false;
        }
        NoteRelease(allocation);
        free_.push_back(allocation);
        return true;
    }

  private:
    static constexpr std::size_t kMost = 256;
    std::size_t size_ = 0;
    std::vector<void*> free_;
};

thread_local ContextCache t_contextCache;

std::size_t AllocationSize(std::size_t space) {
    return kContextShift + sizeof(NET_BUFFER_LIST_CONTEXT) + space + kRearGuard;
}

unsigned char* AllocationOf(NET_BUFFER_LIST_CONTEXT* block) {
    return reinterpret_cast<unsigned char*>(block) - kContextShift;
}

unsigned char* SpaceOf(NET_BUFFER_LIST_CONTEXT* block) {
    return reinterpret_cast<unsigned char*>(block + 1);
}

bool IsGuard(const unsigned char* bytes, std::size_t size) {
    return std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == kGuardByte; });
}

void MakeGuard(unsigned char* bytes, std::size_t size) {
    std::memset(bytes, kGuardByte, size);
    PoisonMemory(bytes, size);
}

bool SameHead(const NET_BUFFER_LIST_CONTEXT& a, const NET_BUFFER_LIST_CONTEXT& b) {
    return a.Next == b.Next && a.Size == b.Size && a.Offset == b.Offset && a.Reserved == b.Reserved;
}

}  // namespace

NblContexts::NblContexts(Machine& machine)
    : machine_(machine), quarantine_([&machine](const std::string& what) {
          machine.verifier().Report(Rule::kFreedNblUsed, what + " was written after it was freed");
      }) {}

NET_BUFFER_LIST_CONTEXT* NblContexts::NewBlock(PNET_BUFFER_LIST nbl, std::size_t space) {
    const bool checked = machine_.verifier().enabled();
    const std::size_t bytes = AllocationSize(space);
    void* allocation = checked ? nullptr : t_contextCache.Take(bytes);
    if (allocation == nullptr) {
        allocation = std::malloc(bytes);
        allocations_.fetch_add(1, std::memory_order_relaxed);
    }
    auto* const block = reinterpret_cast<NET_BUFFER_LIST_CONTEXT*>(
        static_cast<unsigned char*>(allocation) + kContextShift);
    block->Next = nbl->Context;
    block->Size = static_cast<USHORT>(space);
    block->Offset = block->Size;
    block->Reserved = 0;
    if (checked) {
        MakeGuard(AllocationOf(block), kContextShift);
        MakeGuard(SpaceOf(block), space + kRearGuard);
    }
    nbl->Context = block;
    return block;
}

NDIS_STATUS NblContexts::Allocate(PNET_BUFFER_LIST nbl,
                                  USHORT size,
                                  USHORT backFill,
                                  ULONG tag,
                                  bool ofNbl) {
    const bool checked = machine_.verifier().enabled();
    if (checked && (size % kAllocationAlignment != 0 || backFill % kAllocationAlignment != 0)) {
        machine_.verifier().Report(Rule::kContextSize,
                                   fmt::format("size {}, back-fill {}", size, backFill));
    }
    if (machine_.faults().Fails(FaultKind::kNblContext, tag)) {
        return NDIS_STATUS_RESOURCES;
    }
    NET_BUFFER_LIST_CONTEXT* block = nbl->Context;
    const bool fits = block != nullptr && block->Offset >= size;
    const USHORT gap = checked && fits && block->Offset >= size + kGap ? kGap : 0;
    if (!fits) {
        block = NewBlock(nbl, std::size_t{size} + backFill);
    }
    block->Offset = static_cast<USHORT>(block->Offset - size - gap);
    if (checked) {
        UnpoisonMemory(SpaceOf(block) + block->Offset, size);
        HostLock lock(mutex_);
        areas_[nbl].push_back({size, gap, CallingModule(), ofNbl, block, *block});
    }
    return NDIS_STATUS_SUCCESS;
}

// The head counts as the guard below an area with no unused space before it.
void NblContexts::CheckGuards(PNET_BUFFER_LIST nbl, const Area& area, CheckSite site) {
    NET_BUFFER_LIST_CONTEXT* const block = area.block;
    const std::size_t end = area.head.Offset + area.size;
    const bool whole = nbl->Context == block && SameHead(*block, area.head) &&
                       (kPoisonIsWatched || (IsGuard(AllocationOf(block), kContextShift) &&
                                             IsGuard(SpaceOf(block), area.head.Offset) &&
                                             IsGuard(SpaceOf(block) + end, area.gap) &&
                                             IsGuard(SpaceOf(block) + area.head.Size, kRearGuard)));
    if (!whole) {
        machine_.verifier().Report(
            Rule::kContextOverrun,
            fmt::format("seen when the area of {} bytes is freed", area.size), site);
        nbl->Context = block;
        *block = area.head;
    }
}

bool NblContexts::CheckFree(PNET_BUFFER_LIST nbl, USHORT size, Area& freed) {
    HostLock lock(mutex_);
    const auto it = areas_.find(nbl);
    if (it == areas_.end()) {
        machine_.verifier().Report(Rule::kContextNotOnTop, "the NBL carries no context");
        return false;
    }
    const Area top = it->second.back();
    const void* const module = CallingModule();
    if (top.size != size) {
        machine_.verifier().Report(
            Rule::kContextNotOnTop,
            fmt::format("freed with size {}; the one on top has {}", size, top.size));
        return false;
    }
    if (top.module != nullptr && module != nullptr && top.module != module) {
        machine_.verifier().Report(Rule::kContextNotOnTop, "the one on top is another module's");
        return false;
    }
    it->second.pop_back();
    if (it->second.empty()) {
        areas_.erase(it);
    }
    freed = top;
    return true;
}

void NblContexts::Free(PNET_BUFFER_LIST nbl, USHORT size) {
    Area freed{};
    if (machine_.verifier().enabled()) {
        if (!CheckFree(nbl, size, freed)) {
            return;
        }
        CheckGuards(nbl, freed);
        unsigned char* const area = SpaceOf(nbl->Context) + nbl->Context->Offset;
        machine_.ForgetRange(area, size);
        MakeGuard(area, size);
    }
    NET_BUFFER_LIST_CONTEXT* const block = nbl->Context;
    block->Offset = static_cast<USHORT>(block->Offset + size + freed.gap);
    if (block->Offset == block->Size) {
        nbl->Context = block->Next;
        ReleaseBlock(block);
    }
}

void NblContexts::Release(PNET_BUFFER_LIST nbl) {
    HostLock lock(mutex_);
    const auto it = areas_.find(nbl);
    if (it == areas_.end()) {
        return;
    }
    const Area top = it->second.back();
    areas_.erase(it);
    lock.unlock();
    if (!top.ofNbl) {
        machine_.verifier().Report(Rule::kContextLeft, "an NBL was freed with a context on it");
    }
    CheckGuards(nbl, top);
    while (NET_BUFFER_LIST_CONTEXT* const block = nbl->Context) {
        nbl->Context = block->Next;
        ReleaseBlock(block);
    }
}

void NblContexts::ReleaseBlock(NET_BUFFER_LIST_CONTEXT* block) {
    const std::size_t bytes = AllocationSize(block->Size);
    unsigned char* const allocation = AllocationOf(block);
    if (machine_.verifier().enabled()) {
        UnpoisonMemory(allocation, bytes);
        quarantine_.Add(allocation, allocation, bytes, "an NBL's context space");
    } else if (!t_contextCache.Give(allocation, bytes)) {
        std::free(allocation);
    }
}

void NblContexts::Drop(PNET_BUFFER_LIST nbl) {
    while (NET_BUFFER_LIST_CONTEXT* const block = nbl->Context) {
        nbl->Context = block->Next;
        std::free(AllocationOf(block));
    }
}

}  // namespace netsieve::host
