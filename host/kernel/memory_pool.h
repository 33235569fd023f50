// The kernel's tagged pools.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/kernel/quarantine.h"
#include "host/verifier/verifier.h"

namespace netsieve::host {

enum class PoolKind : std::uint8_t { kNonPaged, kPaged };

/// The four bytes of a tag as text, in memory order: "nsvf".
std::string TagText(std::uint32_t tag);

/// A block that is allocated now.
struct PoolBlock {
    std::uint64_t id = 0;  ///< in order of allocation
    std::size_t size = 0;
    std::uint32_t tag = 0;
    PoolKind kind = PoolKind::kNonPaged;
    const void* driver = nullptr;       ///< the LoadedDriver whose code allocated it
    const void* module = nullptr;       ///< the FilterModule in whose callback it was allocated
    const WatchedHook* hook = nullptr;  ///< that the driver allocated it for
};

/// Tagged memory. With the verifier on it knows every live block, guards both ends with a pattern
/// and keeps freed blocks in quarantine; with it off it only counts.
class MemoryPool {
  public:
    /// `onFree` is told of every range just before it is freed.
    MemoryPool(Verifier& verifier, std::function<void(const void*, std::size_t)> onFree);
    ~MemoryPool();

    /// A block aligned to 16 bytes, filled with a pattern that is no valid pointer, or null when
    /// the system is out of memory. Faults are the caller's to ask for.
    void* Allocate(std::size_t size, std::uint32_t tag, PoolKind kind);
    /// Frees a block; `tag` 0 means that the interface used has no tag to compare.
    void Free(void* block, std::uint32_t tag);

    /// Blocks allocated and not freed.
    std::uint64_t liveBlocks() const { return live_.load(std::memory_order_relaxed); }
    /// Allocations made since the start: what a path that allocates nothing leaves as it is.
    std::uint64_t allocations() const { return allocations_.load(std::memory_order_relaxed); }

    /// Live blocks that satisfy `wanted`, by id. Needs the verifier.
    std::vector<PoolBlock> Find(const std::function<bool(const PoolBlock&)>& wanted);
    /// Which live block an address lies in: "block 'nsvf' of 3000 bytes, offset 88", or where else.
    std::string Describe(const void* address);
    /// The same; none outside of any block.
    std::optional<std::string> BlockAt(const void* address);
    /// Whether a live block of this kind is there. Needs the verifier.
    bool IsIn(const void* address, PoolKind kind);
    /// Checks what is in quarantine and lets it go.
    void Settle();

  private:
    void* AllocateChecked(std::size_t size, std::uint32_t tag, PoolKind kind);
    void FreeChecked(void* block, std::uint32_t tag);
    void DemandPageable(PoolKind kind, const char* what, CheckSite site = CheckSite::Here());
    bool EndsIntact(const void* block, const PoolBlock& info) const;

    Verifier& verifier_;
    std::function<void(const void*, std::size_t)> onFree_;
    Quarantine quarantine_;
    HostMutex mutex_;
    std::map<std::uintptr_t, PoolBlock> blocks_;
    std::map<std::uintptr_t, PoolBlock> freed_;  ///< the latest to be freed at an address
    std::uint64_t nextId_ = 1;
    std::atomic<std::uint64_t> live_ = 0;
    std::atomic<std::uint64_t> allocations_ = 0;
};

}  // namespace netsieve::host
