// When the ends of a stack give lists back.
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

enum class Pace : std::uint8_t {
    kInline,     ///< before the call that brought the lists returns
    kDeferred,   ///< later, from DPCs and workers of any processor, out of order, chains split and
                 ///< mixed
    kMixed,      ///< each list one way or the other
    kHold,       ///< when ReleaseAll is called
    kForwarded,  ///< whoever listens to what arrives keeps it, and calls GiveBack
};

/// The lists that an edge has in hand, and the moment it lets go of them.
class EdgePace {
  public:
    /// Gives a chain back; `dispatch` says that the caller is at DISPATCH_LEVEL.
    using Release = std::function<void(PNET_BUFFER_LIST chain, bool dispatch)>;

    EdgePace(Machine& machine, std::string name, std::uint64_t seed, Release release);

    /// Set it while no list is in hand.
    void Set(Pace pace) { pace_ = pace; }
    Pace Current() const { return pace_; }

    /// Takes a chain in hand. `dispatch` as in the call that brought it.
    void Take(PNET_BUFFER_LIST chain, bool dispatch);
    /// Lets go of everything in hand, in order, from the calling context.
    void ReleaseAll();
    /// Gives back what was not taken in hand because it is forwarded.
    void GiveBack(PNET_BUFFER_LIST chain, bool dispatch) { release_(chain, dispatch); }
    /// While the stack is being emptied nothing is held back: what is in hand goes now, and what
    /// comes later goes inline if it would have been held.
    void SetDraining(bool draining);
    /// Lists in hand.
    std::size_t InHand();

  private:
    void Schedule();
    void ReleaseSome(bool dispatch);

    Machine& machine_;
    std::string name_;
    Release release_;
    Pace pace_ = Pace::kInline;
    HostMutex mutex_;
    bool draining_ = false;
    Random random_;
    std::vector<PNET_BUFFER_LIST> held_;
};

}  // namespace netsieve::host
