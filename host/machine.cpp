#include "host/machine.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/client/client_watch.h"
#include "host/image/code_place.h"
#include "host/kernel/memory_faults.h"
#include "host/ndis/ndis.h"
#include "host/sanitizers.h"
#include "host/sched/happens_before.h"
#include "host/sched/threaded_scheduler.h"
#include "host/verifier/fault_signals.h"
#include "host/verifier/signal_stack.h"
#include "host/verifier/watchdog.h"
#include "platform/atomics.h"

// The native driver's atomic operations call this when it is set.
extern "C" {
void(NTAPI* PlatformAtomicHook)(const volatile void* address) = nullptr;
}

namespace netsieve::host {

bool g_plainMode = false;
bool g_verifyMode = true;

namespace {

// The strategy draws from the seed itself; the two must not follow each other.
constexpr std::uint64_t kPlacementSalt = 0x706C616365ull;

void NTAPI AtomicPointHook(const volatile void*) {
    if (t_context != nullptr) {
        Machine::Current().scheduler().Point(PointKind::kAtomic);
    }
}

// Where nothing is checked nothing counts points.
std::chrono::milliseconds LimitOf(const MachineOptions& options) {
    const bool counts = options.verify || options.scheduler == SchedulerKind::kSimulated;
    return counts ? options.stuckAfter : std::chrono::milliseconds::zero();
}

std::unique_ptr<Scheduler> MakeScheduler(const MachineOptions& options) {
    if (options.scheduler == SchedulerKind::kThreaded) {
        return std::make_unique<ThreadedScheduler>(options.processors, [limit = LimitOf(options)] {
            UseSignalStack();
            thread_local const Watchdog watchdog(limit);
        });
    }
    SimulatedScheduler::Options simulated{
        .processors = options.processors,
        .clock = options.clock,
        .pointsWithoutProgress = options.pointsWithoutProgress,
        .describe = [](const void* address) { return Machine::Current().Describe(address); }};
    if (options.tree != nullptr) {
        simulated.strategy = std::make_unique<TreeStrategy>(*options.tree);
    } else if (options.strategy == StrategyKind::kPct) {
        simulated.strategy =
            std::make_unique<PctStrategy>(options.seed, options.pctDepth, options.expectedChoices);
    } else {
        simulated.strategy = std::make_unique<UniformStrategy>(options.seed);
    }
    return std::make_unique<SimulatedScheduler>(std::move(simulated));
}

}  // namespace

Machine::Machine(MachineOptions options)
    : options_(options), verifier_(options.verify), placement_(options.seed ^ kPlacementSalt) {
    current_ = this;
    g_unseenCodeRuns = false;
    const bool simulated = options.scheduler == SchedulerKind::kSimulated;
    HostMutex::SetThreaded(!simulated);
    InstallFaultSignals();
    g_verifyMode = options.verify;
    g_plainMode = !options.verify && !simulated;
    scheduler_ = MakeScheduler(options);
    pool_ = std::make_unique<MemoryPool>(
        verifier_, [this](const void* start, std::size_t size) { ForgetRange(start, size); });
    if (options.verify) {
        locks_ = std::make_unique<LockTracker>(
            verifier_, [this](const void* address) { return Describe(address); });
    }
    events_ = std::make_unique<Events>(*scheduler_, verifier_);
    timers_ = std::make_unique<Timers>(*scheduler_, verifier_);
    mdls_ = std::make_unique<Mdls>(*this);
    devices_ = std::make_unique<Devices>(*this);
    registry_ = std::make_unique<Registry>(*this);
    ndis_ = std::make_unique<Ndis>(*this);
    if (options.verify && options.watchHooks) {
        clients_ = std::make_unique<ClientWatch>(*this);
    }
    PlatformAtomicHook = simulated ? &AtomicPointHook : nullptr;
}

Machine::~Machine() {
    PlatformAtomicHook = nullptr;
    scheduler_.reset();
    clients_.reset();
    ndis_.reset();
    registry_.reset();
    devices_.reset();
    mdls_.reset();
    drivers_.clear();
    goneDrivers_.clear();
    pool_.reset();
    current_ = nullptr;
}

RunResult Machine::Run(const std::function<void()>& body) {
    UseSignalStack();
    const Watchdog watchdog(LimitOf(options_));
    RunResult result = scheduler_->Run([&] {
        body();
        CollectTouch(*this);
    });
    if (!result.completed && result.abandonReason.starts_with("deadlock")) {
        verifier_.Report(Rule::kDeadlock, result.abandonReason);
    }
    if (!result.completed && result.abandonReason.starts_with("no progress")) {
        verifier_.Report(Rule::kHang, result.abandonReason);
    }
    pool_->Settle();
    mdls_->Settle();
    ndis_->nblPools().Settle();
    return result;
}

NTSTATUS Machine::LoadDriver(const DriverSource& source) {
    auto made = std::make_unique<LoadedDriver>(source);
    LoadedDriver& driver = *made;
    std::string error;
    if (!driver.Prepare(error)) {
        WriteDebug(fmt::format("{} cannot be loaded: {}\n", source.name, error));
        return STATUS_UNSUCCESSFUL;
    }
    if (driver.image() != nullptr && locks_ != nullptr) {
        locks_->AcceptInlineInitialisation();
    }
    g_unseenCodeRuns = g_unseenCodeRuns || driver.image() != nullptr;
    {
        HostLock lock(mutex_);
        drivers_.push_back(std::move(made));
    }
    registry_->AddServiceKey(std::u16string(source.name.begin(), source.name.end()));
    NTSTATUS status = STATUS_SUCCESS;
    {
        const std::u16string path = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" +
                                    std::u16string(source.name.begin(), source.name.end());
        UNICODE_STRING registryPath{
            .Length = static_cast<USHORT>(path.size() * sizeof(WCHAR)),
            .MaximumLength = static_cast<USHORT>(path.size() * sizeof(WCHAR)),
            .Buffer = const_cast<PWSTR>(path.data())};
        const CallbackScope scope("DriverEntry", &driver, nullptr);
        status = driver.entry()(&driver.object(), &registryPath);
    }
    ndis_->WaitForAttaches(&driver);
    if (!NT_SUCCESS(status)) {
        Retire(driver);
    }
    return status;
}

void Machine::UnloadDriver(const std::string& name) {
    LoadedDriver* const driver = FindDriver(name);
    if (driver == nullptr || driver->object().DriverUnload == nullptr) {
        return;
    }
    driver->SetUnloading();
    {
        const CallbackScope scope("DriverUnload", driver, nullptr);
        driver->object().DriverUnload(&driver->object());
    }
    Retire(*driver);
}

void Machine::Retire(LoadedDriver& driver) {
    CheckNothingLeft(driver);
    driver.SetGone();
    HostLock lock(mutex_);
    const auto it = std::find_if(drivers_.begin(), drivers_.end(),
                                 [&](const auto& entry) { return entry.get() == &driver; });
    goneDrivers_.push_back(std::move(*it));
    drivers_.erase(it);
}

void Machine::CheckNothingLeft(LoadedDriver& driver) {
    if (!verifier_.enabled()) {
        return;
    }
    if (clients_ != nullptr) {
        clients_->ReportLeft(driver);
    }
    const std::string& name = driver.name();
    constexpr Rule kRoutine = Rule::kRoutineOutlivesDriver;
    verifier_.DemandNoneLeft(name, devices_->RoutinesOf(&driver), "work item(s) queued", kRoutine);
    verifier_.DemandNoneLeft(name, timers_->Outstanding(&driver), "timer(s) armed", kRoutine);
    // What the driver keeps of a hook is not its leak when the hook was never deregistered.
    const auto blocks = pool_->Find([&](const PoolBlock& block) {
        return block.driver == &driver && !ClientWatch::IsLeft(block.hook);
    });
    for (const PoolBlock& block : blocks) {
        verifier_.Report(Rule::kPoolLeak, fmt::format("{}: block '{}' of {} bytes", name,
                                                      TagText(block.tag), block.size));
    }
    verifier_.DemandNoneLeft(name, devices_->DevicesOf(&driver), "device(s)");
    verifier_.DemandNoneLeft(name, devices_->WorkItemsOf(&driver), "work item(s)");
    verifier_.DemandNoneLeft(name, registry_->HandlesOf(&driver), "registry handle(s)");
    verifier_.DemandNoneLeft(name, mdls_->AllocatedBy(&driver), "MDL(s)");
    verifier_.DemandNoneLeft(name, ndis_->nblPools().PoolsOf(&driver), "NBL pool(s)");
    verifier_.DemandNoneLeft(name, ndis_->IsRegistered(&driver) ? 1 : 0, "filter registration");
}

LoadedDriver* Machine::FindDriver(const std::string& name) {
    HostLock lock(mutex_);
    const auto it = std::find_if(drivers_.begin(), drivers_.end(),
                                 [&](const auto& driver) { return driver->name() == name; });
    return it == drivers_.end() ? nullptr : it->get();
}

LoadedDriver* Machine::DriverOf(const DRIVER_OBJECT* object) {
    HostLock lock(mutex_);
    const auto it = std::find_if(drivers_.begin(), drivers_.end(),
                                 [&](const auto& driver) { return &driver->object() == object; });
    return it == drivers_.end() ? nullptr : it->get();
}

void Machine::CheckStack(const char* routine, const void* stack) {
    CallFrame* const frame = CurrentContext().frame;
    if (frame == nullptr) {
        return;
    }
    const auto taken = [frame] {
        const bool called = frame->stackAtCall != 0 && frame->stackAtEntry > frame->stackAtCall;
        return frame->stackBefore + (called ? frame->stackAtEntry - frame->stackAtCall : 0);
    };
    const bool known = taken() > kKernelStackSize;
    frame->stackAtCall = reinterpret_cast<std::uintptr_t>(stack);
    // A sanitizer makes frames several times larger than they are.
    if (!known && taken() > kKernelStackSize && !kSanitized) {
        verifier_.Report(Rule::kKernelStack,
                         fmt::format("{} called with {} bytes of stack in use", routine, taken()));
    }
}

LoadedDriver* Machine::DriverAt(const void* address) {
    HostLock lock(mutex_);
    for (const auto* drivers : {&drivers_, &goneDrivers_}) {
        for (const auto& driver : *drivers) {
            if (driver->Contains(address)) {
                return driver.get();
            }
        }
    }
    return nullptr;
}

std::string Machine::Describe(const void* address) {
    if (const std::optional<std::string> block = pool_->BlockAt(address)) {
        return *block;
    }
    const std::string place = PlaceName(address);
    return place.empty() ? pool_->Describe(address) : place;
}

void Machine::EnterCallChecked(const char* routine) {
    CheckStack(routine, __builtin_frame_address(0));
    CollectTouch(*this);
    verifier_.DemandUpToDispatch(routine);
    // A routine whose last act lets the unload continue may still be returning. It may call nothing
    // any more.
    if (const auto* frame = CurrentContext().frame;
        frame != nullptr && frame->driver != nullptr &&
        static_cast<LoadedDriver*>(frame->driver)->gone()) {
        verifier_.Report(Rule::kRoutineOutlivesDriver,
                         fmt::format("{} called by {}, which is unloaded", routine,
                                     static_cast<LoadedDriver*>(frame->driver)->name()));
    }
    scheduler_->Point(PointKind::kCall);
}

unsigned Machine::AnyProcessor() {
    if (!scheduler_->simulated() || options_.tree != nullptr) {
        return CurrentContext().processor;
    }
    return static_cast<unsigned>(placement_.Below(scheduler_->processors()));
}

void Machine::WriteDebug(std::string text) {
    HostLock lock(mutex_);
    debugOutput_.push_back(std::move(text));
}

void Machine::ForgetRange(const void* start, std::size_t size) {
    if (locks_ != nullptr) {
        locks_->ForgetRange(start, size);
    }
    timers_->ForgetRange(start, size);
    ndis_->ForgetRange(start, size);
}

}  // namespace netsieve::host
