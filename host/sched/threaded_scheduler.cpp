#include "host/sched/threaded_scheduler.h"

#include <sched.h>

#include <algorithm>

#include "host/sched/happens_before.h"
#include "host/sched/raise_hook.h"

namespace netsieve::host {

ThreadedScheduler::ThreadedScheduler(unsigned processors, std::function<void()> onThread)
    : onThread_(std::move(onThread)), start_(Clock::now()) {
    for (unsigned i = 0; i < processors; ++i) {
        processors_.push_back(std::make_unique<Processor>());
    }
    for (unsigned i = 0; i < processors; ++i) {
        processors_[i]->thread = std::thread([this, i] { RunProcessor(i); });
    }
    timerThread_ = std::thread([this] { RunTimers(); });
}

ThreadedScheduler::~ThreadedScheduler() {
    {
        HostLock lock(mutex_);
        stopping_ = true;
        for (const auto& processor : processors_) {
            Wake(processor->wake);
        }
        Wake(timersChanged_);
    }
    for (const auto& processor : processors_) {
        processor->thread.join();
    }
    timerThread_.join();
}

RunResult ThreadedScheduler::Run(const std::function<void()>& body) {
    std::uint32_t id = 0;
    {
        HostLock lock(mutex_);
        id = nextId_++;
        live_.insert(id);
    }
    RunContext(id, {.name = "main"}, [&] {
        body();
        WaitUntilIdle();
    });
    HostLock lock(mutex_);
    calls_.clear();
    callDue_.clear();
    // A context is counted out before its thread has quite left this object.
    while (!live_.empty()) {
        Wait(ended_, lock, kForever);
    }
    return {.completed = abandonReason_.empty(), .abandonReason = abandonReason_};
}

std::uint32_t ThreadedScheduler::Start(StartOptions options, std::function<void()> body) {
    HostLock lock(mutex_);
    options.processor %= processors();
    if (options.kind == ContextKind::kDpc) {
        return QueueDpc(std::move(options), std::move(body));
    }
    const std::uint32_t id = nextId_++;
    live_.insert(id);
    lock.unlock();
    std::thread([this, id, options = std::move(options), body = std::move(body)]() mutable {
        if (onThread_) {
            onThread_();
        }
        RunContext(id, options, body);
    }).detach();
    return id;
}

std::uint32_t ThreadedScheduler::QueueDpc(StartOptions options, std::function<void()> body) {
    const std::uint32_t id = nextId_++;
    live_.insert(id);
    Processor& processor = *processors_[options.processor];
    processor.queue.push_back({id, std::move(options.name), std::move(body)});
    Wake(processor.wake);
    return id;
}

void ThreadedScheduler::RunContext(std::uint32_t id,
                                   const StartOptions& options,
                                   const std::function<void()>& body) {
    Context context;
    context.id = id;
    context.kind = options.kind;
    context.processor = options.processor;
    context.name = options.name;
    context.irql = options.kind == ContextKind::kDpc ? DISPATCH_LEVEL : PASSIVE_LEVEL;
    Context* const outside = t_context;
    t_context = &context;
    SetIrql(context.irql);
    body();
    t_context = outside;
    Ended(id);
}

void ThreadedScheduler::Ended(std::uint32_t id) {
    HostLock lock(mutex_);
    live_.erase(id);
    Wake(ended_);
}

void ThreadedScheduler::RunProcessor(unsigned index) {
    if (onThread_) {
        onThread_();
    }
    Processor& processor = *processors_[index];
    HostLock lock(mutex_);
    for (;;) {
        while (!stopping_ && processor.queue.empty()) {
            Wait(processor.wake, lock, kForever);
        }
        if (processor.queue.empty()) {
            return;
        }
        const Dpc dpc = std::move(processor.queue.front());
        processor.queue.pop_front();
        lock.unlock();
        RunContext(dpc.id, {.name = dpc.name, .kind = ContextKind::kDpc, .processor = index},
                   dpc.body);
        lock.lock();
    }
}

void ThreadedScheduler::RunTimers() {
    HostLock lock(mutex_);
    while (!stopping_) {
        const Ticks wait = calls_.empty() ? kForever : calls_.begin()->first.first - Now();
        if (wait > 0 && wait != kForever && fastForward_) {
            skipped_ += wait;
        } else if (wait > 0) {
            Wait(timersChanged_, lock, calls_.empty() ? kForever : calls_.begin()->first.first);
            continue;
        }
        auto node = calls_.extract(calls_.begin());
        callDue_.erase(node.key().second);
        // Counted in before the lock is given up: a run must not end between the two.
        QueueDpc({.name = "timer",
                  .kind = ContextKind::kDpc,
                  .processor = node.mapped().processor % processors()},
                 std::move(node.mapped().routine));
    }
}

void ThreadedScheduler::Join(std::uint32_t id) {
    HostLock lock(mutex_);
    while (live_.contains(id)) {
        Wait(ended_, lock, kForever);
    }
}

void ThreadedScheduler::WaitUntilIdle() {
    HostLock lock(mutex_);
    ++idleWaiters_;
    Wake(ended_);
    while (live_.size() > idleWaiters_) {
        Wait(ended_, lock, kForever);
    }
    --idleWaiters_;
}

void ThreadedScheduler::SetIrql(KIRQL irql) {
    CurrentContext().irql = irql;
    if (irql >= DISPATCH_LEVEL) {
        CallRaiseHook();
    }
}

bool ThreadedScheduler::Wait(WaitQueue& queue, HostLock& lock, Ticks deadline) {
    if (deadline == kForever) {
        queue.condition_.wait(lock);
        return true;
    }
    return queue.condition_.wait_until(lock, At(deadline)) == std::cv_status::no_timeout;
}

Ticks ThreadedScheduler::Now() {
    const auto real = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start_);
    return real.count() / 100 + skipped_.load(std::memory_order_relaxed);
}

void ThreadedScheduler::FastForward() {
    HostLock lock(mutex_);
    fastForward_ = true;
    Wake(timersChanged_);
}

ThreadedScheduler::Clock::time_point ThreadedScheduler::At(Ticks time) const {
    return start_ +
           std::chrono::nanoseconds((time - skipped_.load(std::memory_order_relaxed)) * 100);
}

void ThreadedScheduler::Sleep(Ticks duration) {
    std::this_thread::sleep_for(std::chrono::nanoseconds(std::max<Ticks>(duration, 0) * 100));
}

std::uint64_t ThreadedScheduler::CallAt(Ticks due,
                                        unsigned processor,
                                        std::function<void()> routine) {
    HostLock lock(mutex_);
    const std::uint64_t id = nextCall_++;
    calls_[{due, id}] = {processor, AfterNow(std::move(routine))};
    callDue_[id] = due;
    Wake(timersChanged_);
    return id;
}

bool ThreadedScheduler::CancelCall(std::uint64_t id) {
    HostLock lock(mutex_);
    const auto due = callDue_.find(id);
    if (due == callDue_.end()) {
        return false;
    }
    calls_.erase({due->second, id});
    callDue_.erase(due);
    return true;
}

void ThreadedScheduler::Abandon(const std::string& reason) {
    HostLock lock(mutex_);
    abandonReason_ = reason;
}

void NTAPI ThreadedScheduler::SpinContended(PKSPIN_LOCK lock) {
    constexpr int kSpinsBeforeYield = 128;
    for (;;) {
        for (int i = 0; i < kSpinsBeforeYield; ++i) {
            if ((__atomic_load_n(lock, __ATOMIC_RELAXED) & 1) == 0 &&
                (__atomic_fetch_or(lock, 1, __ATOMIC_ACQUIRE) & 1) == 0) {
                return;
            }
            __builtin_ia32_pause();
        }
        // More threads than processors: the owner may be waiting for this one's turn to end.
        sched_yield();
    }
}

}  // namespace netsieve::host
