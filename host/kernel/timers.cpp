#include "host/kernel/timers.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/kernel/callback.h"
#include "host/machine.h"
#include "host/sched/happens_before.h"

namespace netsieve::host {

namespace {

PNDIS_TIMER_FUNCTION FunctionOf(PNDIS_TIMER timer) {
    return reinterpret_cast<PNDIS_TIMER_FUNCTION>(timer->Dpc.DeferredRoutine);
}

constexpr UCHAR kTimerType = 8;  // TimerNotificationObject
constexpr UCHAR kTimerSize = sizeof(KTIMER) / sizeof(LONG);

}  // namespace

Timers::Timers(Scheduler& scheduler, Verifier& verifier)
    : scheduler_(scheduler), verifier_(verifier) {}

void Timers::Initialise(PNDIS_TIMER timer, PNDIS_TIMER_FUNCTION function, PVOID context) {
    if (Cancel(timer)) {
        verifier_.Report(Rule::kTimerReinitialised,
                         fmt::format("NdisInitializeTimer of the timer in {}",
                                     Machine::Current().Describe(timer)));
    }
    *timer = {};
    timer->Timer.Header.Type = kTimerType;
    timer->Timer.Header.Size = kTimerSize;
    timer->Dpc.DeferredRoutine = reinterpret_cast<PVOID>(function);
    timer->Dpc.DeferredContext = context;
}

bool Timers::IsInitialised(PNDIS_TIMER timer, const char* routine, CheckSite site) {
    if (timer->Timer.Header.Type == kTimerType && timer->Timer.Header.Size == kTimerSize) {
        return true;
    }
    verifier_.Report(
        Rule::kTimerUninitialised,
        fmt::format("{} of a timer in {}", routine, Machine::Current().Describe(timer)), site);
    return false;
}

void Timers::Set(PNDIS_TIMER timer, UINT milliseconds) {
    Cancel(timer);
    const Context& context = CurrentContext();
    HostLock lock(mutex_);
    Armed armed{.generation = ++generations_,
                .driver = LoadedDriver::Calling(context),
                .module = CallingModule()};
    const Ticks due = scheduler_.Now() + milliseconds * kTicksPerMillisecond;
    armed.call = scheduler_.CallAt(due, Machine::Current().AnyProcessor(),
                                   [this, timer, armed] { Fire(timer, armed); });
    armed_[reinterpret_cast<std::uintptr_t>(timer)] = armed;
    underWay_[armed.generation] = due;
    ++started_[armed.driver];
    NoteRelease(timer);
}

void Timers::Fire(PNDIS_TIMER timer, const Armed& armed) {
    {
        HostLock lock(mutex_);
        --started_[armed.driver];
        if (forgotten_.erase(armed.generation) != 0) {
            End(armed);
            return;
        }
        const auto it = armed_.find(reinterpret_cast<std::uintptr_t>(timer));
        if (it != armed_.end() && it->second.generation == armed.generation) {
            armed_.erase(it);
        }
    }
    const PNDIS_TIMER_FUNCTION function = FunctionOf(timer);
    const PVOID context = timer->Dpc.DeferredContext;
    {
        const CallbackScope scope("timer routine", armed.driver, nullptr);
        function(nullptr, context, nullptr, nullptr);
    }
    HostLock lock(mutex_);
    End(armed);
}

void Timers::End(const Armed& armed) {
    underWay_.erase(armed.generation);
    NoteRelease(&ended_);
    scheduler_.Wake(ended_);
}

void Timers::AwaitDue() {
    HostLock lock(mutex_);
    const Ticks now = scheduler_.Now();
    const std::uint64_t latest = generations_;
    const auto isDue = [now, latest](const auto& entry) {
        return entry.first <= latest && entry.second <= now;
    };
    while (std::any_of(underWay_.begin(), underWay_.end(), isDue)) {
        scheduler_.Wait(ended_, lock, kForever);
    }
    NoteAcquire(&ended_);
}

bool Timers::Cancel(PNDIS_TIMER timer) {
    HostLock lock(mutex_);
    const auto it = armed_.find(reinterpret_cast<std::uintptr_t>(timer));
    if (it == armed_.end() || !scheduler_.CancelCall(it->second.call)) {
        return false;
    }
    --started_[it->second.driver];
    End(it->second);
    armed_.erase(it);
    NoteAcquire(timer);
    return true;
}

void Timers::ForgetRange(const void* start, std::size_t size) {
    const auto first = reinterpret_cast<std::uintptr_t>(start);
    HostLock lock(mutex_);
    for (auto it = armed_.lower_bound(first); it != armed_.end() && it->first < first + size;) {
        verifier_.Report(
            Rule::kTimerInFreedMemory,
            fmt::format("a timer {} bytes into the block is armed", it->first - first));
        if (scheduler_.CancelCall(it->second.call)) {
            --started_[it->second.driver];
            End(it->second);
        } else {
            forgotten_.insert(it->second.generation);
        }
        it = armed_.erase(it);
    }
}

unsigned Timers::Live() {
    HostLock lock(mutex_);
    unsigned live = 0;
    for (const auto& [driver, count] : started_) {
        live += count;
    }
    return live;
}

unsigned Timers::ArmedIn(const void* module) {
    HostLock lock(mutex_);
    return static_cast<unsigned>(
        std::count_if(armed_.begin(), armed_.end(),
                      [&](const auto& entry) { return entry.second.module == module; }));
}

unsigned Timers::Outstanding(const LoadedDriver* driver) {
    HostLock lock(mutex_);
    const auto it = started_.find(driver);
    return it == started_.end() ? 0 : it->second;
}

}  // namespace netsieve::host

using namespace netsieve::host;

extern "C" {

VOID NTAPI NdisInitializeTimer(PNDIS_TIMER Timer,
                               PNDIS_TIMER_FUNCTION TimerFunction,
                               PVOID FunctionContext) {
    Machine::Current().EnterCall("NdisInitializeTimer");
    Machine::Current().timers().Initialise(Timer, TimerFunction, FunctionContext);
}

VOID NTAPI NdisSetTimer(PNDIS_TIMER Timer, UINT MillisecondsToDelay) {
    Machine::Current().EnterCall("NdisSetTimer");
    Timers& timers = Machine::Current().timers();
    if (timers.IsInitialised(Timer, "NdisSetTimer")) {
        timers.Set(Timer, MillisecondsToDelay);
    }
    Machine::Current().LeaveCall();
}

VOID NTAPI KeFlushQueuedDpcs(VOID) {
    Machine::Current().EnterCall("KeFlushQueuedDpcs");
    Machine::Current().verifier().DemandPassive("KeFlushQueuedDpcs");
    Machine::Current().timers().AwaitDue();
}

VOID NTAPI KeStallExecutionProcessor(ULONG MicroSeconds) {
    if (!g_plainMode) {
        Machine::Current().scheduler().Point(PointKind::kCall);  // at any IRQL
    }
    Machine::Current().scheduler().Sleep(Ticks{MicroSeconds} * 10);
}

VOID NTAPI NdisCancelTimer(PNDIS_TIMER Timer, PBOOLEAN TimerCancelled) {
    Machine::Current().EnterCall("NdisCancelTimer");
    Timers& timers = Machine::Current().timers();
    const bool cancelled = timers.IsInitialised(Timer, "NdisCancelTimer") && timers.Cancel(Timer);
    *TimerCancelled = cancelled ? TRUE : FALSE;
    Machine::Current().LeaveCall();
}

}  // extern "C"
