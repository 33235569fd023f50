// Making host calls fail on demand.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "host/sched/random.h"
#include "host/sched/scheduler.h"

namespace netsieve::host {

/// Everything the platform may refuse.
enum class FaultKind : std::uint8_t {
    kPool,                ///< tagged memory
    kNblPool,             ///< a NET_BUFFER_LIST pool
    kNbl,                 ///< an NBL of such a pool
    kNblContext,          ///< context space on an NBL
    kMdl,                 ///< an MDL
    kMapping,             ///< a system address for one
    kWorkItem,            ///< an IO work item
    kDevice,              ///< a device object
    kFilterRegistration,  ///< NdisFRegisterFilterDriver
    kFilterAttributes,    ///< NdisFSetAttributes
    kRegistry,            ///< a Zw registry call
    kCount
};

const char* FaultKindName(FaultKind kind);

/// Which failable calls fail. A call counts when it matches `kind` and `tag` (unset: every one).
struct FaultPlan {
    std::optional<FaultKind> kind{};
    std::optional<std::uint32_t> tag{};
    std::uint64_t nth = 0;    ///< the nth counted call fails (from 1); 0: none by number
    bool persistent = false;  ///< and every later one too
    double probability = 0;   ///< of each counted call, drawn from `seed`
    std::uint64_t seed = 0;
};

/// Decides which calls fail. With no plan armed nothing fails and nothing is counted.
class Faults {
  public:
    /// From now on calls fail as `plan` says; the counts start at 0.
    void Arm(const FaultPlan& plan);
    void Disarm();
    /// Failable calls counted since Arm.
    std::uint64_t Counted();
    /// Calls made to fail since Arm. A sweep over `nth` is complete when this stays 0.
    std::uint64_t Injected();

    /// Asked by each failable call; true when it must fail.
    bool Fails(FaultKind kind, std::uint32_t tag = 0) {
        return __builtin_expect(armed_.load(std::memory_order_relaxed), 0) && Decide(kind, tag);
    }

  private:
    bool Decide(FaultKind kind, std::uint32_t tag);

    std::atomic<bool> armed_ = false;
    HostMutex mutex_;
    FaultPlan plan_;
    Random random_{0};
    std::uint64_t counted_ = 0;
    std::uint64_t injected_ = 0;
};

}  // namespace netsieve::host
