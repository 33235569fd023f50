// The machine: a kernel, NDIS and the drivers loaded into them. What a test, a tool or a hook
// filter's author starts from.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/kernel/callback.h"
#include "host/kernel/devices.h"
#include "host/kernel/events.h"
#include "host/kernel/faults.h"
#include "host/kernel/mdls.h"
#include "host/kernel/memory_pool.h"
#include "host/kernel/registry.h"
#include "host/kernel/timers.h"
#include "host/loaded_driver.h"
#include "host/modes.h"
#include "host/sched/random.h"
#include "host/sched/schedule_tree.h"
#include "host/sched/scheduler.h"
#include "host/sched/simulated_scheduler.h"
#include "host/verifier/lock_tracker.h"
#include "host/verifier/verifier.h"

namespace netsieve::host {

class ClientWatch;
class Ndis;

enum class SchedulerKind : std::uint8_t { kSimulated, kThreaded };
enum class StrategyKind : std::uint8_t { kUniform, kPct };

/// What kind of machine to make. Everything random in it follows from `seed`.
struct MachineOptions {
    SchedulerKind scheduler = SchedulerKind::kSimulated;
    StrategyKind strategy = StrategyKind::kUniform;
    ScheduleTree* tree = nullptr;  ///< chooses instead of a strategy; lives longer
    std::uint64_t seed = 1;
    unsigned pctDepth = 2;
    std::uint64_t expectedChoices = 300;  ///< in a run, for PCT's change points
    ClockMode clock = ClockMode::kIdle;
    unsigned processors = 2;  ///< 1 to 4 are tried
    bool verify = true;
    /// How long a routine of a driver may run without a scheduling point before the process ends
    /// with a crash report; zero for ever. On real threads only with the verifier.
    std::chrono::milliseconds stuckAfter = std::chrono::seconds(30);
    /// How many points a simulated run may pass while no callback begins or ends before it is
    /// abandoned and reported as a hang.
    std::uint64_t pointsWithoutProgress = 10'000'000;
    bool watchHooks = true;  ///< whether hooks are held to the client rules; needs `verify`
    MM_SYSTEMSIZE systemSize = MmSmallSystem;
    std::uint32_t ndisVersion = 0x60000;  ///< as NdisGetVersion gives it
    std::uint32_t osMajorVersion = 6;     ///< as PsGetVersion gives it
};

/// One machine exists at a time in a process: drivers call the platform by plain functions, and
/// those have to find it.
class Machine {
  public:
    explicit Machine(MachineOptions options = {});
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    static Machine& Current() { return *current_; }
    static bool Exists() { return current_ != nullptr; }

    /// Runs `body` as the machine's first thread, at PASSIVE_LEVEL on processor 0, and everything
    /// it starts. A deadlock or a hang ends the run early and is reported by the verifier. Drivers
    /// that are still loaded at the end are not unloaded.
    RunResult Run(const std::function<void()>& body);

    /// Loads a driver: makes its driver object and calls its entry routine. Returns the entry
    /// routine's status; a driver whose entry failed is gone again. Inside Run, at PASSIVE_LEVEL.
    NTSTATUS LoadDriver(const DriverSource& source);
    /// Calls the unload routine and checks that nothing of the driver is left. No effect when no
    /// driver of this name is loaded.
    void UnloadDriver(const std::string& name);
    /// The loaded driver of this name, or null.
    LoadedDriver* FindDriver(const std::string& name);
    LoadedDriver* DriverOf(const DRIVER_OBJECT* object);
    /// The driver whose image or shared object the address lies in, unloaded or not; or null.
    LoadedDriver* DriverAt(const void* address);
    /// What lies at an address: a block with its tag, or a place in a driver.
    std::string Describe(const void* address);

    const MachineOptions& options() const { return options_; }
    Scheduler& scheduler() { return *scheduler_; }
    Verifier& verifier() { return verifier_; }
    Faults& faults() { return faults_; }
    MemoryPool& pool() { return *pool_; }
    Events& events() { return *events_; }
    Timers& timers() { return *timers_; }
    Devices& devices() { return *devices_; }
    Registry& registry() { return *registry_; }
    Mdls& mdls() { return *mdls_; }
    Ndis& ndis() { return *ndis_; }
    /// The lock records; null when the verifier is off.
    LockTracker* locks() { return locks_.get(); }

    /// At the start of every platform call that may be made up to DISPATCH_LEVEL: checks the IRQL
    /// and is a scheduling point.
    /// Inlined, so that the return address is that of the routine's caller.
    [[gnu::always_inline]] void EnterCall(const char* routine) {
        if (!g_plainMode) {
            CurrentContext().caller = __builtin_return_address(0);
            EnterCallChecked(routine);
        }
    }

    /// At the end of a platform call that may have woken or released someone: a scheduling point,
    /// so that what the caller touches next may be gone by then. Nothing of the call's may be
    /// touched behind it.
    void LeaveCall() {
        if (!g_plainMode) {
            scheduler_->Point(PointKind::kReleased);
        }
    }

    /// The processor that a DPC, worker or thread of the machine's own is put on. Nobody outside of
    /// the kernel decides that, so that in a simulated machine the seed does; where every schedule
    /// is run, it is the caller's.
    unsigned AnyProcessor();

    /// What drivers printed with DbgPrint, in order.
    const std::vector<std::string>& debugOutput() const { return debugOutput_; }
    void WriteDebug(std::string text);

    /// The memory is about to be freed: locks and timers in it are forgotten, live ones reported.
    void ForgetRange(const void* start, std::size_t size);

  private:
    void EnterCallChecked(const char* routine);
    /// Notes how deep the stack is at a platform call, and reports a driver that is too deep.
    void CheckStack(const char* routine, const void* stack);
    void CheckNothingLeft(LoadedDriver& driver);
    void Retire(LoadedDriver& driver);

    inline static Machine* current_ = nullptr;

    MachineOptions options_;
    Verifier verifier_;
    Faults faults_;
    Random placement_;
    std::unique_ptr<Scheduler> scheduler_;
    std::unique_ptr<LockTracker> locks_;
    std::unique_ptr<MemoryPool> pool_;
    std::unique_ptr<Events> events_;
    std::unique_ptr<Timers> timers_;
    std::unique_ptr<Mdls> mdls_;
    std::unique_ptr<Devices> devices_;
    std::unique_ptr<Registry> registry_;
    std::unique_ptr<Ndis> ndis_;
    std::unique_ptr<ClientWatch> clients_;
    HostMutex mutex_;
    std::vector<std::unique_ptr<LoadedDriver>> drivers_;
    /// Unloaded drivers. Their images stay mapped until nothing runs any more, since a call may
    /// still be returning through a driver's code.
    std::vector<std::unique_ptr<LoadedDriver>> goneDrivers_;
    std::vector<std::string> debugOutput_;
};

}  // namespace netsieve::host
