#include "host/sched/simulated_scheduler.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/sched/happens_before.h"
#include "host/sched/raise_hook.h"

namespace netsieve::host {

SimulatedScheduler::SimulatedScheduler(Options options)
    : strategy_(std::move(options.strategy)),
      clock_(options.clock),
      holders_(options.processors),
      pointsWithoutProgress_(options.pointsWithoutProgress),
      pointsLimit_(options.pointsWithoutProgress),
      describe_(std::move(options.describe)) {
    strategy_->OnStart(Strategy::kClock);
}

SimulatedScheduler::~SimulatedScheduler() = default;

RunResult SimulatedScheduler::Run(const std::function<void()>& body) {
    root_ = Fiber::Adopt();
    Context* const outside = t_context;
    StartTask({.name = "main"}, AfterNow(body));
    SwitchTo(*tasks_.front(), false);
    t_context = outside;
    current_ = nullptr;
    NoteAcquire(&endQueue_);
    tasks_.clear();
    ended_.clear();
    calls_.clear();
    callDue_.clear();
    return {.points = points_,
            .choices = strategy_->choices(),
            .traceHash = traceHash_,
            .completed = abandonReason_.empty(),
            .abandonReason = abandonReason_};
}

std::uint32_t SimulatedScheduler::Start(StartOptions options, std::function<void()> body) {
    const std::uint32_t id = StartTask(std::move(options), AfterNow(std::move(body)));
    if (current_ != nullptr) {
        Point(PointKind::kStart);
    }
    return id;
}

std::uint32_t SimulatedScheduler::StartTask(StartOptions options, std::function<void()> body) {
    auto task = std::make_unique<Task>();
    task->scheduler = this;
    task->body = std::move(body);
    task->context.id = nextId_++;
    task->context.kind = options.kind;
    task->context.name = std::move(options.name);
    task->context.processor = options.processor % processors();
    task->context.irql = options.kind == ContextKind::kDpc ? DISPATCH_LEVEL : PASSIVE_LEVEL;
    task->fiber = Fiber::Create(
        &Enter, task.get(),
        options.kind == ContextKind::kThread ? StackSize::kLarge : StackSize::kKernel);
    const std::uint32_t id = task->context.id;
    strategy_->OnStart(id);
    tasks_.push_back(std::move(task));
    return id;
}

void SimulatedScheduler::Enter(void* argument) {
    Task& task = *static_cast<Task*>(argument);
    SimulatedScheduler& self = *task.scheduler;
    self.ended_.clear();
    task.body();
    if (&task == self.tasks_.front().get() && task.context.id == 1) {
        self.WaitUntilIdle();
    }
    self.End(task);
}

void SimulatedScheduler::End(Task& task) {
    task.body = nullptr;
    SetIrql(PASSIVE_LEVEL);
    task.state = State::kEnded;
    NoteProgress();
    const auto it =
        std::find_if(tasks_.begin(), tasks_.end(), [&](const auto& t) { return t.get() == &task; });
    ended_.push_back(std::move(*it));
    tasks_.erase(it);
    NoteRelease(&endQueue_);
    Wake(endQueue_);
    WakeIdleWaiters();
    if (tasks_.empty()) {
        Fiber::Switch(*task.fiber, *root_, true);
    }
    Reschedule(PointKind::kEnd);
}

bool SimulatedScheduler::Enabled(const Task& task) const {
    const Task* holder = holders_[task.context.processor];
    return task.state == State::kReady && (holder == nullptr || holder == &task);
}

std::size_t SimulatedScheduler::CollectChoices() {
    enabled_.clear();
    choices_.clear();
    std::size_t current = Strategy::kNone;
    if (clock_ == ClockMode::kEager && HasDeadline()) {
        enabled_.push_back(nullptr);
        choices_.push_back(Strategy::kClock);
    }
    for (const auto& task : tasks_) {
        if (Enabled(*task)) {
            if (task.get() == current_) {
                current = enabled_.size();
            }
            enabled_.push_back(task.get());
            choices_.push_back(task->context.id);
        }
    }
    return current;
}

void SimulatedScheduler::CountPoint() {
    ++current_->context.points;
    if (++points_ > pointsLimit_) [[unlikely]] {
        GiveUpWithoutProgress();
    }
}

void SimulatedScheduler::Reschedule(PointKind kind) {
    CountPoint();
    for (;;) {
        const std::size_t current = CollectChoices();
        const bool onlyClock = enabled_.size() == 1 && enabled_[0] == nullptr;
        if (enabled_.empty() || onlyClock) {
            if (!HasDeadline()) {
                Abandon(DescribeStuck());
            }
            AdvanceClock();
            continue;
        }
        const std::size_t pick = enabled_.size() == 1 ? 0 : strategy_->Pick(choices_, current);
        Fold(static_cast<std::uint64_t>(choices_[pick]) << 8 | static_cast<std::uint64_t>(kind));
        if (enabled_[pick] == nullptr) {
            AdvanceClock();
            continue;
        }
        if (enabled_[pick] != current_) {
            SwitchTo(*enabled_[pick], current_->state == State::kEnded);
        }
        return;
    }
}

void SimulatedScheduler::SwitchTo(Task& next, bool final) {
    Fiber& from = current_ == nullptr ? *root_ : *current_->fiber;
    Task* const previous = current_;
    current_ = &next;
    t_context = &next.context;
    if (next.context.irql >= DISPATCH_LEVEL) {
        holders_[next.context.processor] = &next;
        CallRaiseHook();
    }
    Fiber::Switch(from, *next.fiber, final);
    // Here again, some time later: whoever switched back has set current_ to this task.
    if (previous != nullptr) {
        ended_.clear();
    }
}

void SimulatedScheduler::Point(PointKind kind) {
    if (tasks_.size() == 1 && clock_ == ClockMode::kIdle) {
        CountPoint();
        return;
    }
    Reschedule(kind);
}

void SimulatedScheduler::Block(State state) {
    current_->state = state;
    Reschedule(PointKind::kWait);
}

void SimulatedScheduler::AcquireSpin(PKSPIN_LOCK lock) {
    Point(PointKind::kLockAcquire);
    while ((*lock & 1) != 0) {
        current_->lock = lock;
        Block(State::kSpinning);
    }
    *lock |= 1;
}

void SimulatedScheduler::ReleaseSpin(PKSPIN_LOCK lock) {
    *lock &= ~static_cast<KSPIN_LOCK>(1);
    for (const auto& task : tasks_) {
        if (task->state == State::kSpinning && task->lock == lock) {
            task->state = State::kReady;
            task->lock = nullptr;
        }
    }
    Point(PointKind::kLockRelease);
}

void SimulatedScheduler::SetIrql(KIRQL irql) {
    Context& context = current_->context;
    const bool kept = context.irql >= DISPATCH_LEVEL;
    context.irql = irql;
    if (irql >= DISPATCH_LEVEL) {
        holders_[context.processor] = current_;
        CallRaiseHook();
    } else if (kept) {
        holders_[context.processor] = nullptr;
        Point(PointKind::kIrql);
    }
}

bool SimulatedScheduler::Wait(WaitQueue& queue, HostLock&, Ticks deadline) {
    Task& task = *current_;
    task.queue = &queue;
    task.deadline = deadline;
    task.woken = false;
    Block(State::kWaiting);
    return task.woken;
}

void SimulatedScheduler::Wake(WaitQueue& queue) {
    for (const auto& task : tasks_) {
        if (task->state == State::kWaiting && task->queue == &queue) {
            task->state = State::kReady;
            task->queue = nullptr;
            task->deadline = kForever;
            task->woken = true;
        }
    }
}

void SimulatedScheduler::Sleep(Ticks duration) {
    current_->queue = nullptr;
    current_->deadline = now_ + std::max<Ticks>(duration, 0);
    Block(State::kWaiting);
}

void SimulatedScheduler::Join(std::uint32_t id) {
    HostLock lock(mutex_);
    const auto alive = [&] {
        return std::any_of(tasks_.begin(), tasks_.end(),
                           [&](const auto& task) { return task->context.id == id; });
    };
    while (alive()) {
        Wait(endQueue_, lock, kForever);
    }
    NoteAcquire(&endQueue_);
}

void SimulatedScheduler::WaitUntilIdle() {
    HostLock lock(mutex_);
    const auto idle = [&] {
        return std::all_of(tasks_.begin(), tasks_.end(), [&](const auto& task) {
            return task.get() == current_ || task->queue == &idleQueue_;
        });
    };
    NoteRelease(&endQueue_);
    while (!idle()) {
        Wait(idleQueue_, lock, kForever);
    }
    NoteAcquire(&endQueue_);
    Wake(idleQueue_);
}

void SimulatedScheduler::WakeIdleWaiters() {
    const bool all = std::all_of(tasks_.begin(), tasks_.end(),
                                 [&](const auto& task) { return task->queue == &idleQueue_; });
    if (all) {
        Wake(idleQueue_);
    }
}

bool SimulatedScheduler::HasDeadline() const {
    return !calls_.empty() || std::any_of(tasks_.begin(), tasks_.end(), [](const auto& task) {
        return task->state == State::kWaiting && task->deadline != kForever;
    });
}

void SimulatedScheduler::AdvanceClock() {
    Ticks next = calls_.empty() ? kForever : calls_.begin()->first.first;
    for (const auto& task : tasks_) {
        if (task->state == State::kWaiting) {
            next = std::min(next, task->deadline);
        }
    }
    now_ = std::max(now_, next);
    Fold(static_cast<std::uint64_t>(now_));
    for (const auto& task : tasks_) {
        if (task->state == State::kWaiting && task->deadline <= now_) {
            task->state = State::kReady;
            task->queue = nullptr;
            task->deadline = kForever;
        }
    }
    while (!calls_.empty() && calls_.begin()->first.first <= now_) {
        auto node = calls_.extract(calls_.begin());
        callDue_.erase(node.key().second);
        StartTask(
            {.name = "timer", .kind = ContextKind::kDpc, .processor = node.mapped().processor},
            std::move(node.mapped().routine));
    }
}

std::uint64_t SimulatedScheduler::CallAt(Ticks due,
                                         unsigned processor,
                                         std::function<void()> routine) {
    const std::uint64_t id = nextCall_++;
    calls_[{due, id}] = {processor, AfterNow(std::move(routine))};
    callDue_[id] = due;
    return id;
}

bool SimulatedScheduler::CancelCall(std::uint64_t id) {
    const auto due = callDue_.find(id);
    if (due == callDue_.end()) {
        return false;
    }
    calls_.erase({due->second, id});
    callDue_.erase(due);
    return true;
}

std::string SimulatedScheduler::DescribeSpin(const Task& task) const {
    for (const auto& other : tasks_) {
        for (const HeldLock& held : other->context.held) {
            if (held.lock == task.lock) {
                return fmt::format("spins on the lock in {} held by {}", describe_(task.lock),
                                   other->context.Describe());
            }
        }
    }
    return fmt::format("spins on the lock in {}, which nobody alive holds", describe_(task.lock));
}

std::string SimulatedScheduler::DescribeStuck() const {
    std::string text = "deadlock: nothing can run and no deadline is left";
    for (const auto& task : tasks_) {
        text += fmt::format("\n  {} at IRQL {}: ", task->context.Describe(), task->context.irql);
        if (task->state == State::kSpinning) {
            text += DescribeSpin(*task);
        } else if (task->state == State::kWaiting) {
            text += task->queue == &endQueue_    ? "waits for another context to end"
                    : task->queue == &idleQueue_ ? "waits for the machine to be idle"
                                                 : "waits for an event without a timeout";
        } else {
            text += fmt::format("cannot run: processor {} is kept at DISPATCH_LEVEL by {}",
                                task->context.processor,
                                holders_[task->context.processor]->context.Describe());
        }
        for (const HeldLock& held : task->context.held) {
            text += fmt::format("; holds the lock in {}", describe_(held.lock));
        }
        text += task->context.DescribeCalls();
    }
    return text;
}

void SimulatedScheduler::GiveUpWithoutProgress() {
    std::string text =
        fmt::format("no progress: nothing began or ended while {} scheduling points were passed",
                    pointsWithoutProgress_);
    text += fmt::format("\n  {} at IRQL {}{} stands in\n{}", current_->context.Describe(),
                        current_->context.irql, current_->context.DescribeCalls(), CallStack());
    Abandon(text);
    __builtin_unreachable();
}

void SimulatedScheduler::Abandon(const std::string& reason) {
    abandonReason_ = reason;
    // Not final: this flow has not ended, it is dropped with all that its frames own.
    Fiber::Switch(*current_->fiber, *root_, false);
}

}  // namespace netsieve::host
