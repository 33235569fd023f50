#include "host/verifier/watchdog.h"

#include <signal.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>

#include "host/sched/context.h"
#include "host/signal_text.h"
#include "host/verifier/crash_report.h"

namespace netsieve::host {

namespace {

constexpr unsigned kLooks = 8;

/// What the thread was doing when it was looked at last.
struct Look {
    const Context* context = nullptr;
    std::uint64_t points = 0;
    unsigned unchanged = 0;
    std::chrono::milliseconds limit{};
};
thread_local Look t_look;

int TickSignal() {
    return SIGRTMIN + 4;
}

void OnTick(int, siginfo_t*, void* context) {
    const Context* const running = t_context;
    if (running == nullptr || running->frame == nullptr || running->frame->driver == nullptr) {
        t_look.context = nullptr;
        return;
    }
    if (t_look.context != running || t_look.points != running->points) {
        t_look.context = running;
        t_look.points = running->points;
        t_look.unchanged = 0;
        return;
    }
    if (++t_look.unchanged >= kLooks) {
        SignalText what;
        what << "has not come back for " << static_cast<std::uint64_t>(t_look.limit.count())
             << " ms, nor passed a scheduling point";
        WriteCrashReport(what.View(), PlaceOf(context));
        EndCrashedProcess();
    }
}

void InstallOnce() {
    static std::atomic<bool> installed = false;
    if (!installed.exchange(true)) {
        struct sigaction action {};
        action.sa_sigaction = &OnTick;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
        sigaction(TickSignal(), &action, nullptr);
    }
}

}  // namespace

Watchdog::Watchdog(std::chrono::milliseconds limit) {
    if (limit == std::chrono::milliseconds::zero()) {
        return;
    }
    InstallOnce();
    t_look = {.limit = limit};
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = TickSignal();
    event._sigev_un._tid = gettid();
    const auto tick = std::chrono::nanoseconds(limit) / kLooks;
    const timespec time{.tv_sec = static_cast<time_t>(tick.count() / 1'000'000'000),
                        .tv_nsec = static_cast<long>(tick.count() % 1'000'000'000)};
    const itimerspec schedule{.it_interval = time, .it_value = time};
    armed_ = timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0 &&
             timer_settime(timer_, 0, &schedule, nullptr) == 0;
}

Watchdog::~Watchdog() {
    if (armed_) {
        timer_delete(timer_);
    }
}

}  // namespace netsieve::host
