// NBLs that a protocol has not returned or an adapter has not completed.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/sched/random.h"
#include "host/sched/scheduler.h"
#include "platform/ndis.h"

namespace netsieve::host {

class Machine;

/// When NBLs are completed or returned.
enum class ReleaseMode : std::uint8_t {
    kInline,     ///< before the call that passed the NBLs returns
    kDeferred,   ///< later, from DPCs and workers of any processor, out of order, chains split and
                 ///< mixed
    kMixed,      ///< each NBL inline or deferred, at random
    kHold,       ///< when ReleaseAll is called
    kForwarded,  ///< not queued: the owner of the callback keeps them and calls Release
};

/// The NBLs that were passed to a protocol or an adapter, until it returns or completes them.
class NblQueue {
  public:
    /// Completes or returns a chain; `dispatch` says that the caller is at DISPATCH_LEVEL.
    using ReleaseFunction = std::function<void(PNET_BUFFER_LIST chain, bool dispatch)>;

    NblQueue(Machine& machine, std::string name, std::uint64_t seed, ReleaseFunction release);

    /// Set it while no NBL is queued.
    void SetMode(ReleaseMode mode) { mode_ = mode; }
    ReleaseMode mode() const { return mode_; }

    /// Queues a chain, or releases it at once if the mode says so. `dispatch`: the dispatch flag of
    /// the call that passed it.
    void Add(PNET_BUFFER_LIST chain, bool dispatch);
    /// Releases every queued NBL, in order, from the calling context.
    void ReleaseAll();
    /// Releases NBLs that were not queued because the mode is kForwarded.
    void Release(PNET_BUFFER_LIST chain, bool dispatch) { release_(chain, dispatch); }
    /// Takes the queued NBLs with this cancel id out of the queue, without releasing them.
    PNET_BUFFER_LIST TakeCancelled(PVOID cancelId);
    /// While the stack is pausing: releases every queued NBL, and later ones inline where the mode
    /// is kHold.
    void SetDraining(bool draining);
    /// Number of queued NBLs.
    std::size_t Queued();

  private:
    /// The id is read before the NBL is put away.
    struct Entry {
        PNET_BUFFER_LIST nbl;
        PVOID cancelId;
    };
    void PutAway(PNET_BUFFER_LIST nbl);
    PNET_BUFFER_LIST TakeUp(const Entry& entry, PNET_BUFFER_LIST next);
    void Schedule();
    void ReleaseSome(bool dispatch);

    Machine& machine_;
    std::string name_;
    ReleaseFunction release_;
    ReleaseMode mode_ = ReleaseMode::kInline;
    HostMutex mutex_;
    bool draining_ = false;
    Random random_;
    std::vector<Entry> queued_;
};

}  // namespace netsieve::host
