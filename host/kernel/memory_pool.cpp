#include "host/kernel/memory_pool.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "host/kernel/paged_memory.h"
#include "host/machine.h"
#include "host/sched/happens_before.h"
#include "platform/ndis.h"

namespace netsieve::host {

namespace {

constexpr std::size_t kEndSize = 16;  // keeps the block aligned, and guards it on both sides
constexpr unsigned char kEndPattern = 0xBD;
constexpr unsigned char kNewPattern = 0xCD;

void RetirePages(PoolKind kind) {
    if (kind == PoolKind::kPaged) {
        PagedMemory::Retire();
    }
}

void Release(void* allocation) {
    if (PagedMemory::Contains(allocation)) {
        PagedMemory::Free(allocation);
    } else {
        std::free(allocation);
    }
}

}  // namespace

std::string TagText(std::uint32_t tag) {
    std::string text;
    for (int i = 0; i < 4; ++i) {
        const auto byte = static_cast<unsigned char>(tag >> (8 * i));
        text += std::isprint(byte) != 0 ? static_cast<char>(byte) : '.';
    }
    return text;
}

MemoryPool::MemoryPool(Verifier& verifier, std::function<void(const void*, std::size_t)> onFree)
    : verifier_(verifier),
      onFree_(std::move(onFree)),
      quarantine_(
          [&verifier](const std::string& what) {
              verifier.Report(Rule::kPoolUseAfterFree, what + " was written after it was freed");
          },
          &Release) {}

MemoryPool::~MemoryPool() {
    const PagedMemory::HostAccess access;
    for (const auto& [address, info] : blocks_) {
        RetirePages(info.kind);
        Release(reinterpret_cast<void*>(address - kEndSize));
    }
}

void* MemoryPool::Allocate(std::size_t size, std::uint32_t tag, PoolKind kind) {
    allocations_.fetch_add(1, std::memory_order_relaxed);
    live_.fetch_add(1, std::memory_order_relaxed);
    return verifier_.enabled() ? AllocateChecked(size, tag, kind) : std::malloc(size);
}

void* MemoryPool::AllocateChecked(std::size_t size, std::uint32_t tag, PoolKind kind) {
    DemandPageable(kind, "allocated");
    if (size == 0) {
        verifier_.Report(Rule::kPoolZeroSize, fmt::format("tag '{}'", TagText(tag)));
    }
    const PagedMemory::HostAccess access;
    const std::size_t whole = size + 2 * kEndSize;
    auto* allocation = static_cast<unsigned char*>(
        kind == PoolKind::kPaged ? PagedMemory::Allocate(whole) : std::malloc(whole));
    if (allocation == nullptr) {
        live_.fetch_sub(1, std::memory_order_relaxed);
        return nullptr;
    }
    unsigned char* const block = allocation + kEndSize;
    NoteAcquire(block);
    std::memset(allocation, kEndPattern, kEndSize);
    std::memset(block, kNewPattern, size);
    std::memset(block + size, kEndPattern, kEndSize);

    PoolBlock info{.size = size, .tag = tag, .kind = kind};
    info.driver = LoadedDriver::Calling(CurrentContext());
    // What a hook allocates while a module's handler calls it is not the module's.
    for (const CallFrame* frame = CurrentContext().frame;
         frame != nullptr && info.module == nullptr && !frame->IsHookCallback();
         frame = frame->outer) {
        info.module = frame->module;
        info.hook = info.hook == nullptr ? frame->hook : info.hook;
    }
    HostLock lock(mutex_);
    info.id = nextId_++;
    blocks_[reinterpret_cast<std::uintptr_t>(block)] = info;
    freed_.erase(reinterpret_cast<std::uintptr_t>(block));
    return block;
}

void MemoryPool::Free(void* block, std::uint32_t tag) {
    if (verifier_.enabled()) {
        FreeChecked(block, tag);
        return;
    }
    live_.fetch_sub(1, std::memory_order_relaxed);
    std::free(block);
}

void MemoryPool::DemandPageable(PoolKind kind, const char* what, CheckSite site) {
    if (kind == PoolKind::kPaged && CurrentContext().irql >= DISPATCH_LEVEL) {
        verifier_.Report(Rule::kPagedPoolLevel,
                         fmt::format("a paged block is {} at IRQL {}", what, CurrentContext().irql),
                         site);
    }
}

void MemoryPool::FreeChecked(void* block, std::uint32_t tag) {
    const PagedMemory::HostAccess access;
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    HostLock lock(mutex_);
    const auto it = blocks_.find(address);
    if (it == blocks_.end()) {
        const auto before = freed_.find(address);
        lock.unlock();
        if (before != freed_.end()) {
            verifier_.Report(Rule::kPoolDoubleFree,
                             fmt::format("block '{}' of {} bytes", TagText(before->second.tag),
                                         before->second.size));
        } else {
            verifier_.Report(Rule::kPoolInvalidPointer,
                             Describe(block) + " is not a block's start");
        }
        return;
    }
    const PoolBlock info = it->second;
    blocks_.erase(it);
    freed_[address] = info;
    lock.unlock();
    DemandPageable(info.kind, "freed");
    if (tag != 0 && tag != info.tag) {
        verifier_.Report(Rule::kPoolWrongTag, fmt::format("block '{}' freed with tag '{}'",
                                                          TagText(info.tag), TagText(tag)));
    }
    if (!EndsIntact(block, info)) {
        verifier_.Report(Rule::kPoolOverrun,
                         fmt::format("the guard of block '{}' of {} bytes was overwritten",
                                     TagText(info.tag), info.size));
    }
    onFree_(block, info.size);
    RetirePages(info.kind);
    live_.fetch_sub(1, std::memory_order_relaxed);
    NoteFreed(block, info.size);
    NoteRelease(block);
    quarantine_.Add(static_cast<unsigned char*>(block) - kEndSize, block, info.size,
                    fmt::format("block '{}' of {} bytes", TagText(info.tag), info.size));
}

void MemoryPool::Settle() {
    const PagedMemory::HostAccess access;
    quarantine_.Drain();
}

bool MemoryPool::EndsIntact(const void* block, const PoolBlock& info) const {
    const auto* bytes = static_cast<const unsigned char*>(block);
    const auto intact = [](unsigned char byte) { return byte == kEndPattern; };
    return std::all_of(bytes - kEndSize, bytes, intact) &&
           std::all_of(bytes + info.size, bytes + info.size + kEndSize, intact);
}

std::vector<PoolBlock> MemoryPool::Find(const std::function<bool(const PoolBlock&)>& wanted) {
    std::vector<PoolBlock> found;
    HostLock lock(mutex_);
    for (const auto& [address, info] : blocks_) {
        if (wanted(info)) {
            found.push_back(info);
        }
    }
    std::sort(found.begin(), found.end(),
              [](const PoolBlock& left, const PoolBlock& right) { return left.id < right.id; });
    return found;
}

bool MemoryPool::IsIn(const void* address, PoolKind kind) {
    const auto value = reinterpret_cast<std::uintptr_t>(address);
    HostLock lock(mutex_);
    auto it = blocks_.upper_bound(value);
    return it != blocks_.begin() && value < (--it)->first + it->second.size &&
           it->second.kind == kind;
}

std::optional<std::string> MemoryPool::BlockAt(const void* address) {
    const auto value = reinterpret_cast<std::uintptr_t>(address);
    HostLock lock(mutex_);
    for (const auto* blocks : {&blocks_, &freed_}) {
        auto it = blocks->upper_bound(value);
        if (it != blocks->begin() && value < (--it)->first + it->second.size) {
            return fmt::format("{}block '{}' of {} bytes, offset {}",
                               blocks == &freed_ ? "freed " : "", TagText(it->second.tag),
                               it->second.size, value - it->first);
        }
    }
    return std::nullopt;
}

std::string MemoryPool::Describe(const void* address) {
    return BlockAt(address).value_or(address == nullptr ? "a null pointer"
                                                        : "memory outside the pools");
}

}  // namespace netsieve::host

using namespace netsieve::host;

extern "C" {

NDIS_STATUS NTAPI NdisAllocateMemoryWithTag(PVOID* VirtualAddress, UINT Length, ULONG Tag) {
    Machine& machine = Machine::Current();
    machine.EnterCall("NdisAllocateMemoryWithTag");
    if (machine.faults().Fails(FaultKind::kPool, Tag)) {
        *VirtualAddress = nullptr;
        return NDIS_STATUS_RESOURCES;
    }
    *VirtualAddress = machine.pool().Allocate(Length, Tag, PoolKind::kNonPaged);
    return *VirtualAddress != nullptr ? NDIS_STATUS_SUCCESS : NDIS_STATUS_RESOURCES;
}

VOID NTAPI NdisFreeMemory(PVOID VirtualAddress, UINT, UINT) {
    Machine& machine = Machine::Current();
    machine.EnterCall("NdisFreeMemory");
    machine.pool().Free(VirtualAddress, 0);
}

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    Machine& machine = Machine::Current();
    machine.EnterCall("ExAllocatePoolWithTag");
    if (machine.faults().Fails(FaultKind::kPool, Tag)) {
        return nullptr;
    }
    return machine.pool().Allocate(NumberOfBytes, Tag,
                                   PoolType == PagedPool ? PoolKind::kPaged : PoolKind::kNonPaged);
}

VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag) {
    Machine& machine = Machine::Current();
    machine.EnterCall("ExFreePoolWithTag");
    machine.pool().Free(P, Tag);
}

}  // extern "C"
