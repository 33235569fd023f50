// The one interface through which everything in the host waits, locks, yields, sets timers and
// starts threads.
//
// Two implementations: ThreadedScheduler (real threads, real clock) and SimulatedScheduler (fibers
// on one OS thread, virtual time, every choice from a seed).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <limits>
#include <mutex>
#include <span>
#include <string>

#include "host/sched/context.h"

namespace netsieve::host {

/// Time in units of 100 ns, as the kernel counts it.
using Ticks = std::int64_t;
constexpr Ticks kTicksPerMillisecond = 10'000;
constexpr Ticks kTicksPerSecond = 10'000'000;
constexpr Ticks kForever = std::numeric_limits<Ticks>::max();

/// Where a switch may happen. The kinds enter the trace hash; their order must not change between
/// two runs that are to be compared.
enum class PointKind : std::uint8_t {
    kLockAcquire,
    kLockRelease,
    kAtomic,
    kMemory,
    kCall,
    kIrql,
    kStart,
    kWait,
    kEnd,
    kClock,
    kReleased
};

/// Guards host data that several OS threads share. Costs nothing in a simulated machine, whose
/// fibers share one thread; never hold it across a scheduling point.
class HostMutex {
  public:
    void lock() {
        if (threaded_) {
            mutex_.lock();
        }
    }
    void unlock() {
        if (threaded_) {
            mutex_.unlock();
        }
    }
    bool try_lock() { return !threaded_ || mutex_.try_lock(); }
    /// Set once when a machine is made, before anything runs in it.
    static void SetThreaded(bool threaded) { threaded_ = threaded; }

  private:
    std::mutex mutex_;
    inline static bool threaded_ = true;
};

using HostLock = std::unique_lock<HostMutex>;

/// Contexts that wait for something. A condition variable in spirit: the waiter tests its condition
/// under a HostMutex and calls Scheduler::Wait in a loop.
class WaitQueue {
  public:
    WaitQueue() = default;
    WaitQueue(const WaitQueue&) = delete;
    WaitQueue& operator=(const WaitQueue&) = delete;

  private:
    friend class ThreadedScheduler;
    friend class SimulatedScheduler;
    std::condition_variable_any condition_;
};

struct StartOptions {
    std::string name;
    ContextKind kind = ContextKind::kThread;
    unsigned processor = 0;
};

/// How a run of the whole machine ended.
struct RunResult {
    std::uint64_t points = 0;     ///< scheduling points passed (simulated)
    std::uint64_t choices = 0;    ///< as Strategy::choices
    std::uint64_t traceHash = 0;  ///< of every choice and point kind (simulated)
    bool completed = true;        ///< false when the run was abandoned (deadlock, hang)
    std::string abandonReason;    ///< why, with who holds and awaits what
};

class Scheduler {
  public:
    virtual ~Scheduler() = default;

    /// True for the deterministic one.
    virtual bool simulated() const = 0;
    virtual unsigned processors() const = 0;

    /// Runs `body` as the machine's first thread (processor 0, PASSIVE_LEVEL) and returns when it
    /// and everything it started has ended, or when the run was abandoned. Timers that are still
    /// armed then never fire.
    virtual RunResult Run(const std::function<void()>& body) = 0;

    /// Starts a context: a thread or worker at PASSIVE_LEVEL, a DPC at DISPATCH_LEVEL. Returns its
    /// id. Callable at any IRQL.
    virtual std::uint32_t Start(StartOptions options, std::function<void()> body) = 0;

    /// Blocks the caller until the context with this id has ended.
    virtual void Join(std::uint32_t id) = 0;
    void JoinAll(std::span<const std::uint32_t> ids) {
        for (const std::uint32_t id : ids) {
            Join(id);
        }
    }

    /// Blocks the caller until no other context is left but those that wait here too. Armed timers
    /// are not waited for.
    virtual void WaitUntilIdle() = 0;

    /// A scheduling point: another context may run before this returns.
    virtual void Point(PointKind kind) = 0;

    /// The machine has got on: a callback began or ended. A simulated run that passes very many
    /// points without this is abandoned.
    virtual void NoteProgress() {}

    /// Spins until bit 0 of the word was clear and has been set by this caller.
    virtual void AcquireSpin(PKSPIN_LOCK lock) = 0;
    virtual void ReleaseSpin(PKSPIN_LOCK lock) = 0;

    /// Sets the caller's IRQL. At DISPATCH_LEVEL and above it keeps its processor.
    virtual void SetIrql(KIRQL irql) = 0;

    /// Releases `lock`, waits for a wake or until `deadline` (absolute), and takes `lock` again.
    /// False when the deadline has passed. May wake without cause: test the condition again.
    virtual bool Wait(WaitQueue& queue, HostLock& lock, Ticks deadline) = 0;
    /// Wakes every waiter; called with the mutex held that the waiters use.
    virtual void Wake(WaitQueue& queue) = 0;

    /// Time since the machine started.
    virtual Ticks Now() = 0;
    /// Blocks the caller for `duration`.
    virtual void Sleep(Ticks duration) = 0;
    /// From now on the clock jumps to the next timer instead of waiting for it. For the end of a
    /// run, when all that is left is what drivers wait for. A simulated clock always does so.
    virtual void FastForward() {}

    /// Runs `routine` as a DPC on `processor` once `due` (absolute) has come. Returns an id that is
    /// never 0.
    virtual std::uint64_t CallAt(Ticks due, unsigned processor, std::function<void()> routine) = 0;
    /// True when the call was taken back before its DPC started; false when it has started or
    /// ended.
    virtual bool CancelCall(std::uint64_t id) = 0;

    /// Gives the run up: Run returns with this reason. Does not return in a simulated machine; in a
    /// threaded one it only notes the reason, since a real thread cannot be dropped.
    virtual void Abandon(const std::string& reason) = 0;
};

}  // namespace netsieve::host
