// The deterministic scheduler: fibers on one OS thread, virtual time, every choice from a seed.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/image/code_place.h"
#include "host/sched/fiber.h"
#include "host/sched/scheduler.h"
#include "host/sched/strategy.h"

namespace netsieve::host {

/// When virtual time moves.
enum class ClockMode : std::uint8_t {
    kIdle,   ///< only when nothing else can run: a run takes no longer than its waits
    kEager,  ///< also as one more choice of the strategy, so that timeouts race with running code
};

class SimulatedScheduler final : public Scheduler {
  public:
    struct Options {
        unsigned processors = 2;
        std::unique_ptr<Strategy> strategy = nullptr;
        ClockMode clock = ClockMode::kIdle;
        std::uint64_t pointsWithoutProgress = 10'000'000;  ///< the most, before a run is abandoned
        /// What a lock lies in, for reports.
        std::function<std::string(const void*)> describe = &PlaceName;
    };

    explicit SimulatedScheduler(Options options);
    ~SimulatedScheduler() override;

    bool simulated() const override { return true; }
    unsigned processors() const override { return static_cast<unsigned>(holders_.size()); }
    RunResult Run(const std::function<void()>& body) override;
    std::uint32_t Start(StartOptions options, std::function<void()> body) override;
    void Join(std::uint32_t id) override;
    void WaitUntilIdle() override;
    void Point(PointKind kind) override;
    void NoteProgress() override { pointsLimit_ = points_ + pointsWithoutProgress_; }
    void AcquireSpin(PKSPIN_LOCK lock) override;
    void ReleaseSpin(PKSPIN_LOCK lock) override;
    void SetIrql(KIRQL irql) override;
    bool Wait(WaitQueue& queue, HostLock& lock, Ticks deadline) override;
    void Wake(WaitQueue& queue) override;
    Ticks Now() override { return now_; }
    void Sleep(Ticks duration) override;
    std::uint64_t CallAt(Ticks due, unsigned processor, std::function<void()> routine) override;
    bool CancelCall(std::uint64_t id) override;
    void Abandon(const std::string& reason) override;

  private:
    enum class State : std::uint8_t { kReady, kSpinning, kWaiting, kEnded };

    struct Task {
        Context context;
        std::unique_ptr<Fiber> fiber;
        std::function<void()> body;
        SimulatedScheduler* scheduler = nullptr;
        State state = State::kReady;
        PKSPIN_LOCK lock = nullptr;        // while kSpinning
        const WaitQueue* queue = nullptr;  // while kWaiting; null in a sleep
        Ticks deadline = kForever;
        bool woken = false;
    };

    struct TimedCall {
        unsigned processor = 0;
        std::function<void()> routine;
    };

    std::uint32_t StartTask(StartOptions options, std::function<void()> body);
    static void Enter(void* task);
    void End(Task& task);
    bool Enabled(const Task& task) const;
    /// Fills enabled_ and choices_; returns the index of the running task or Strategy::kNone.
    std::size_t CollectChoices();
    void CountPoint();
    [[noreturn]] void GiveUpWithoutProgress();
    void Reschedule(PointKind kind);
    void SwitchTo(Task& next, bool final);
    bool HasDeadline() const;
    void AdvanceClock();
    void Block(State state);
    void WakeIdleWaiters();
    std::string DescribeStuck() const;
    std::string DescribeSpin(const Task& task) const;
    void Fold(std::uint64_t value) { traceHash_ = (traceHash_ ^ value) * 0x100000001B3ull; }

    std::unique_ptr<Strategy> strategy_;
    ClockMode clock_;
    std::vector<Task*> holders_;  // by processor: who is there at DISPATCH_LEVEL or above
    std::vector<std::unique_ptr<Task>> tasks_;  // alive, by id
    std::vector<std::unique_ptr<Task>> ended_;  // their stacks may still be in use until a switch
    std::vector<Task*> enabled_;
    std::vector<std::uint32_t> choices_;
    std::unique_ptr<Fiber> root_;
    Task* current_ = nullptr;
    std::map<std::pair<Ticks, std::uint64_t>, TimedCall> calls_;
    std::map<std::uint64_t, Ticks> callDue_;
    WaitQueue endQueue_;
    WaitQueue idleQueue_;
    HostMutex mutex_;
    Ticks now_ = 0;
    std::uint32_t nextId_ = 1;  // id 0 is the clock's
    std::uint64_t nextCall_ = 1;
    std::uint64_t points_ = 0;
    std::uint64_t pointsWithoutProgress_;
    std::uint64_t pointsLimit_;  // of points_
    std::uint64_t traceHash_ = 0xCBF29CE484222325ull;
    std::string abandonReason_;
    std::function<std::string(const void*)> describe_;
};

}  // namespace netsieve::host
