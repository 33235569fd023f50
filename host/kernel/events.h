// Kernel events and waits.
#pragma once

#include <atomic>
#include <list>

#include "host/verifier/verifier.h"
#include "platform/ndis.h"

namespace netsieve::host {

/// Signals events and lets contexts wait for them, with the published semantics: a notification
/// event releases everyone who waits at the moment it is set, a synchronization event one.
class Events {
  public:
    Events(Scheduler& scheduler, Verifier& verifier);

    void Initialise(PKEVENT event, EVENT_TYPE type, bool state);
    /// Returns the previous state.
    LONG Set(PKEVENT event);
    void Clear(PKEVENT event);
    /// STATUS_SUCCESS, or STATUS_TIMEOUT once `deadline` (absolute; kForever for none) has passed.
    NTSTATUS Wait(PKEVENT event, Ticks deadline, const char* routine);

    /// The second half of Set, for a caller that has stored the signal itself.
    void ReleaseWaiters(PKEVENT event);
    /// Contexts that wait now.
    unsigned waiters() const { return waiterCount_.load(); }

  private:
    struct Waiter {
        PKEVENT event;
        bool satisfied = false;
        WaitQueue queue{};
    };

    bool TryTake(PKEVENT event);
    void CheckInitialised(PKEVENT event, const char* routine, CheckSite site = CheckSite::Here());
    void CheckWaitAllowed(const char* routine);
    void NoteTimeout(PKEVENT event, const char* routine);

    Scheduler& scheduler_;
    Verifier& verifier_;
    HostMutex mutex_;  // the dispatcher lock
    std::list<Waiter*> waiters_;
    /// Read by Set without the lock; raised before a waiter looks at the event, so that either the
    /// setter sees the waiter or the waiter sees the signal.
    std::atomic<unsigned> waiterCount_ = 0;
};

}  // namespace netsieve::host
