// When the ends of a stack give NBLs back.
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

enum class ReleaseMode : std::uint8_t {
    kInline,     ///< before the call that brought the NBLs returns
    kDeferred,   ///< later, from DPCs and workers of any processor, out of order, chains split and
                 ///< mixed
    kMixed,      ///< each NBL one way or the other
    kHold,       ///< when ReleaseAll is called
    kForwarded,  ///< whoever listens to what arrives keeps it, and calls Release
};

/// The NBLs that an edge has in hand, and the moment it lets go of them.
class NblQueue {
  public:
    /// Gives a chain back; `dispatch` says that the caller is at DISPATCH_LEVEL.
    using ReleaseFunction = std::function<void(PNET_BUFFER_LIST chain, bool dispatch)>;

    NblQueue(Machine& machine, std::string name, std::uint64_t seed, ReleaseFunction release);

    /// Set it while no NBL is in hand.
    void SetMode(ReleaseMode mode) { mode_ = mode; }
    ReleaseMode mode() const { return mode_; }

    /// Takes a chain in hand. `dispatch` as in the call that brought it.
    void Add(PNET_BUFFER_LIST chain, bool dispatch);
    /// Lets go of everything in hand, in order, from the calling context.
    void ReleaseAll();
    /// Gives back what was not taken in hand because it is forwarded.
    void Release(PNET_BUFFER_LIST chain, bool dispatch) { release_(chain, dispatch); }
    /// While the stack is being emptied nothing is held back: what is in hand goes now, and what
    /// comes later goes inline if it would have been held.
    void SetDraining(bool draining);
    /// NBLs in hand.
    std::size_t Queued();

  private:
    void Schedule();
    void ReleaseSome(bool dispatch);

    Machine& machine_;
    std::string name_;
    ReleaseFunction release_;
    ReleaseMode mode_ = ReleaseMode::kInline;
    HostMutex mutex_;
    bool draining_ = false;
    Random random_;
    std::vector<PNET_BUFFER_LIST> queued_;
};

}  // namespace netsieve::host
