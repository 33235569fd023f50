// The scheduler on real threads and the real clock.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/sched/scheduler.h"

namespace netsieve::host {

/// Threads and workers each get a thread of their own. Each processor has one thread that runs its
/// DPCs in turn, and one more thread keeps the timers. IRQL is an attribute of each context: a
/// thread at DISPATCH_LEVEL does not keep other threads off a processor, so what can only happen
/// when it does is for the simulated scheduler to find.
class ThreadedScheduler final : public Scheduler {
  public:
    /// Each thread that it makes calls `onThread` first.
    explicit ThreadedScheduler(unsigned processors, std::function<void()> onThread = {});
    ~ThreadedScheduler() override;

    bool simulated() const override { return false; }
    unsigned processors() const override { return static_cast<unsigned>(processors_.size()); }
    RunResult Run(const std::function<void()>& body) override;
    std::uint32_t Start(StartOptions options, std::function<void()> body) override;
    void Join(std::uint32_t id) override;
    void WaitUntilIdle() override;
    void Point(PointKind) override { ++CurrentContext().points; }
    void AcquireSpin(PKSPIN_LOCK lock) override { SpinUntilAcquired(lock); }
    void ReleaseSpin(PKSPIN_LOCK lock) override { ReleaseWord(lock); }
    void SetIrql(KIRQL irql) override;
    bool Wait(WaitQueue& queue, HostLock& lock, Ticks deadline) override;
    void Wake(WaitQueue& queue) override { queue.condition_.notify_all(); }
    Ticks Now() override;
    void Sleep(Ticks duration) override;
    void FastForward() override;
    std::uint64_t CallAt(Ticks due, unsigned processor, std::function<void()> routine) override;
    bool CancelCall(std::uint64_t id) override;
    void Abandon(const std::string& reason) override;

    /// The bare lock operations, for the kernel's fast paths.
    static void SpinUntilAcquired(PKSPIN_LOCK lock) {
        if (__builtin_expect(__atomic_fetch_or(lock, 1, __ATOMIC_ACQUIRE) & 1, 0)) {
            SpinContended(lock);
        }
    }
    static void ReleaseWord(PKSPIN_LOCK lock) {
        __atomic_store_n(lock, __atomic_load_n(lock, __ATOMIC_RELAXED) & ~KSPIN_LOCK{1},
                         __ATOMIC_RELEASE);
    }

  private:
    using Clock = std::chrono::steady_clock;

    struct Dpc {
        std::uint32_t id = 0;
        std::string name;
        std::function<void()> body;
    };
    struct Processor {
        std::deque<Dpc> queue;
        WaitQueue wake;
        std::thread thread;
    };
    struct TimedCall {
        unsigned processor = 0;
        std::function<void()> routine;
    };

    /// Out of line, in the platform's calling convention: what calls it saves no registers for it.
    static void NTAPI SpinContended(PKSPIN_LOCK lock);
    Clock::time_point At(Ticks time) const;
    void RunContext(std::uint32_t id,
                    const StartOptions& options,
                    const std::function<void()>& body);
    void RunProcessor(unsigned index);
    void RunTimers();
    /// Queues a DPC and counts it in; called with mutex_ held.
    std::uint32_t QueueDpc(StartOptions options, std::function<void()> body);
    void Ended(std::uint32_t id);

    std::function<void()> onThread_;
    HostMutex mutex_;  // guards everything below
    std::vector<std::unique_ptr<Processor>> processors_;
    std::set<std::uint32_t> live_;
    unsigned idleWaiters_ = 0;
    WaitQueue ended_;
    WaitQueue timersChanged_;
    std::thread timerThread_;
    std::map<std::pair<Ticks, std::uint64_t>, TimedCall> calls_;
    std::map<std::uint64_t, Ticks> callDue_;
    std::uint32_t nextId_ = 1;
    std::uint64_t nextCall_ = 1;
    bool stopping_ = false;
    bool fastForward_ = false;
    std::string abandonReason_;
    Clock::time_point start_;
    std::atomic<Ticks> skipped_ = 0;  ///< how far the clock is ahead of the real one
};

}  // namespace netsieve::host
