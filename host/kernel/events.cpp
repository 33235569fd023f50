#include "host/kernel/events.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/machine.h"
#include "host/sched/happens_before.h"

namespace netsieve::host {

namespace {

constexpr UCHAR kEventSize = sizeof(KEVENT) / sizeof(LONG);

// Sixty seconds for a driver that waits three at a time: far beyond what any wait needs here.
constexpr unsigned kTimeoutsThatHang = 20;

}  // namespace

Events::Events(Scheduler& scheduler, Verifier& verifier)
    : scheduler_(scheduler), verifier_(verifier) {}

void Events::Initialise(PKEVENT event, EVENT_TYPE type, bool state) {
    event->Header.Type = static_cast<UCHAR>(type);
    event->Header.Signalling = 0;
    event->Header.Size = kEventSize;
    event->Header.Reserved = 0;
    event->Header.WaitListHead = {&event->Header.WaitListHead, &event->Header.WaitListHead};
    __atomic_store_n(&event->Header.SignalState, state ? 1 : 0, __ATOMIC_SEQ_CST);
}

void Events::CheckInitialised(PKEVENT event, const char* routine, CheckSite site) {
    if (verifier_.enabled() &&
        (event->Header.Size != kEventSize || event->Header.Type > SynchronizationEvent)) {
        verifier_.Report(
            Rule::kEventUninitialised,
            fmt::format("{} on an event in {}", routine, Machine::Current().Describe(event)), site);
    }
}

LONG Events::Set(PKEVENT event) {
    CheckInitialised(event, "KeSetEvent");
    NoteRelease(event);
    const LONG before = __atomic_exchange_n(&event->Header.SignalState, 1, __ATOMIC_SEQ_CST);
    if (waiterCount_.load(std::memory_order_seq_cst) != 0) {
        ReleaseWaiters(event);
    }
    return before;
}

// From here on `event` may only be touched while one of its waiters is still in the list: once its
// last waiter has gone on, its memory may be gone too.
void Events::ReleaseWaiters(PKEVENT event) {
    HostLock lock(mutex_);
    for (Waiter* waiter : waiters_) {
        if (waiter->event != event || waiter->satisfied) {
            continue;
        }
        if (event->Header.Type == SynchronizationEvent && !TryTake(event)) {
            return;
        }
        waiter->satisfied = true;
        scheduler_.Wake(waiter->queue);
    }
}

void Events::Clear(PKEVENT event) {
    CheckInitialised(event, "KeClearEvent");
    __atomic_store_n(&event->Header.SignalState, 0, __ATOMIC_SEQ_CST);
}

bool Events::TryTake(PKEVENT event) {
    LONG expected = 1;
    if (event->Header.Type == SynchronizationEvent) {
        return __atomic_compare_exchange_n(&event->Header.SignalState, &expected, 0, false,
                                           __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    }
    return __atomic_load_n(&event->Header.SignalState, __ATOMIC_SEQ_CST) != 0;
}

NTSTATUS Events::Wait(PKEVENT event, Ticks deadline, const char* routine) {
    CheckInitialised(event, routine);
    Context& context = CurrentContext();
    const bool mayBlock = deadline > scheduler_.Now();
    if (mayBlock) {
        CheckWaitAllowed(routine);
    }
    HostLock lock(mutex_);
    Waiter self{.event = event};
    waiters_.push_back(&self);
    waiterCount_.fetch_add(1, std::memory_order_seq_cst);
    bool late = false;
    while (!self.satisfied && !(self.satisfied = TryTake(event)) && !late) {
        late = deadline <= scheduler_.Now() || !scheduler_.Wait(self.queue, lock, deadline);
    }
    waiters_.remove(&self);
    waiterCount_.fetch_sub(1, std::memory_order_seq_cst);
    lock.unlock();
    if (self.satisfied) {
        NoteAcquire(event);
        context.timedOutOn = nullptr;
        return STATUS_SUCCESS;
    }
    if (mayBlock) {
        NoteTimeout(event, routine);
    }
    return STATUS_TIMEOUT;
}

void Events::CheckWaitAllowed(const char* routine) {
    const Context& context = CurrentContext();
    if (verifier_.enabled() && (context.irql >= DISPATCH_LEVEL || !context.held.empty())) {
        verifier_.Report(Rule::kWaitLevel, fmt::format("{} at IRQL {} with {} spin lock(s) held",
                                                       routine, context.irql, context.held.size()));
    }
}

void Events::NoteTimeout(PKEVENT event, const char* routine) {
    Context& context = CurrentContext();
    context.timeouts = context.timedOutOn == event ? context.timeouts + 1 : 1;
    context.timedOutOn = event;
    if (context.timeouts == kTimeoutsThatHang) {
        const std::string what =
            fmt::format("{} on the event in {} has timed out {} times in a row", routine,
                        Machine::Current().Describe(event), context.timeouts);
        verifier_.Report(Rule::kHang, what);
        scheduler_.Abandon("hang: " + what);
    }
}

}  // namespace netsieve::host

using namespace netsieve::host;

namespace {

// NULL waits for ever, a negative timeout is relative, any other an absolute time.
Ticks DeadlineOf(Machine& machine, PLARGE_INTEGER timeout) {
    if (timeout == nullptr) {
        return kForever;
    }
    return timeout->QuadPart < 0 ? machine.scheduler().Now() - timeout->QuadPart
                                 : timeout->QuadPart;
}

// Out of the fast paths for the registers' sake, as the spin locks' slow forms are.
__attribute__((noinline)) LONG NTAPI SetSlowly(PKEVENT event, bool wait) {
    Machine::Current().EnterCall("KeSetEvent");
    if (wait && CurrentContext().irql >= DISPATCH_LEVEL) {
        Machine::Current().verifier().Report(
            Rule::kEventWaitLevel,
            fmt::format("KeSetEvent with Wait TRUE at IRQL {}", CurrentContext().irql));
    }
    const LONG before = Machine::Current().events().Set(event);
    Machine::Current().LeaveCall();
    return before;
}

__attribute__((noinline)) void NTAPI ReleaseSlowly(PKEVENT event) {
    Machine::Current().events().ReleaseWaiters(event);
}

__attribute__((noinline)) void NTAPI ClearSlowly(PKEVENT event) {
    Machine::Current().EnterCall("KeClearEvent");
    Machine::Current().events().Clear(event);
}

}  // namespace

extern "C" {

VOID NTAPI KeInitializeEvent(PKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
    Machine::Current().events().Initialise(Event, Type, State != FALSE);
}

LONG NTAPI KeSetEvent(PKEVENT Event, KPRIORITY, BOOLEAN Wait) {
    if (!g_plainMode) {
        return SetSlowly(Event, Wait != FALSE);
    }
    NoteRelease(Event);
    const LONG before = __atomic_exchange_n(&Event->Header.SignalState, 1, __ATOMIC_SEQ_CST);
    if (Machine::Current().events().waiters() != 0) {
        ReleaseSlowly(Event);
    }
    return before;
}

VOID NTAPI KeClearEvent(PKEVENT Event) {
    if (!g_plainMode) {
        ClearSlowly(Event);
        return;
    }
    __atomic_store_n(&Event->Header.SignalState, 0, __ATOMIC_RELEASE);
}

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object,
                                     KWAIT_REASON,
                                     KPROCESSOR_MODE,
                                     BOOLEAN,
                                     PLARGE_INTEGER Timeout) {
    Machine& machine = Machine::Current();
    machine.EnterCall("KeWaitForSingleObject");
    return machine.events().Wait(static_cast<PKEVENT>(Object), DeadlineOf(machine, Timeout),
                                 "KeWaitForSingleObject");
}

VOID NTAPI NdisInitializeEvent(PNDIS_EVENT Event) {
    Machine::Current().events().Initialise(&Event->Event, NotificationEvent, false);
}

VOID NTAPI NdisSetEvent(PNDIS_EVENT Event) {
    Machine::Current().EnterCall("NdisSetEvent");
    Machine::Current().events().Set(&Event->Event);
    Machine::Current().LeaveCall();
}

VOID NTAPI NdisResetEvent(PNDIS_EVENT Event) {
    Machine::Current().EnterCall("NdisResetEvent");
    Machine::Current().events().Clear(&Event->Event);
}

BOOLEAN NTAPI NdisWaitEvent(PNDIS_EVENT Event, UINT MsToWait) {
    Machine& machine = Machine::Current();
    machine.verifier().DemandPassive("NdisWaitEvent");
    machine.EnterCall("NdisWaitEvent");
    const Ticks deadline =
        MsToWait == 0 ? kForever : machine.scheduler().Now() + MsToWait * kTicksPerMillisecond;
    return machine.events().Wait(&Event->Event, deadline, "NdisWaitEvent") == STATUS_SUCCESS;
}

}  // extern "C"
