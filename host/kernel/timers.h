// One-shot NDIS timers.
#pragma once

#include <map>
#include <set>

#include "host/verifier/verifier.h"
#include "platform/ndis.h"

namespace netsieve::host {

class LoadedDriver;

/// Timers by the address of their record. The routine runs as a DPC of the processor that set it.
class Timers {
  public:
    Timers(Scheduler& scheduler, Verifier& verifier);

    void Initialise(PNDIS_TIMER timer, PNDIS_TIMER_FUNCTION function, PVOID context);
    /// Whether it looks like one that Initialise wrote; reports one that does not.
    bool IsInitialised(PNDIS_TIMER timer, const char* routine, CheckSite site = CheckSite::Here());
    /// Arms, or arms anew, for `milliseconds` from now.
    void Set(PNDIS_TIMER timer, UINT milliseconds);
    /// True when the timer was armed and will not fire. A routine that has started goes on.
    bool Cancel(PNDIS_TIMER timer);

    /// Waits until every routine that is due by now has ended.
    void AwaitDue();

    /// The memory is about to be freed: an armed timer in it is a fault.
    void ForgetRange(const void* start, std::size_t size);
    /// Timers that are armed, or whose routine is queued or running.
    unsigned Live();
    /// Timers of `driver` that are armed, or whose routine is queued and has not begun.
    unsigned Outstanding(const LoadedDriver* driver);
    /// Timers that were armed in callbacks of the filter module, and are.
    unsigned ArmedIn(const void* module);

  private:
    struct Armed {
        std::uint64_t call = 0;        ///< the scheduler's id
        std::uint64_t generation = 0;  ///< of the arming: a queued DPC may be older
        LoadedDriver* driver = nullptr;
        const void* module = nullptr;  ///< in whose callback it was armed
    };
    void Fire(PNDIS_TIMER timer, const Armed& armed);
    void End(const Armed& armed);  ///< mutex_ is held

    Scheduler& scheduler_;
    Verifier& verifier_;
    HostMutex mutex_;
    std::map<std::uintptr_t, Armed> armed_;
    std::map<const LoadedDriver*, unsigned> started_;  ///< armed or queued
    std::set<std::uint64_t> forgotten_;                ///< queued, and the timer's memory is gone
    std::map<std::uint64_t, Ticks> underWay_;          ///< when each is due; until its routine ends
    WaitQueue ended_;
    std::uint64_t generations_ = 0;
};

}  // namespace netsieve::host
