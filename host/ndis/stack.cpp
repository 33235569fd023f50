#include "host/ndis/stack.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/kernel/callback.h"
#include "host/machine.h"
#include "host/ndis/ndis.h"
#include "host/sched/happens_before.h"

namespace netsieve::host {

namespace {

UNICODE_STRING Counted(const std::u16string& text) {
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {.Length = bytes, .MaximumLength = bytes, .Buffer = const_cast<PWSTR>(text.data())};
}

void ReportLeftBehind(Machine& machine,
                      const FilterModule& module,
                      const std::string& what,
                      CheckSite site = CheckSite::Here()) {
    machine.verifier().Report(Rule::kAttachLeftBehind, module.component.name + ": " + what, site);
}

}  // namespace

FilterModule::FilterModule(FilterRegistration& itsRegistration, Stack& itsStack, std::string name)
    : registration(itsRegistration), handlers(itsRegistration.handlers), stack(itsStack) {
    component.kind = ComponentKind::kFilterModule;
    component.stack = &itsStack;
    component.name = std::move(name);
    component.handle = object.address();
    component.mayOriginate = false;
}

/// Admits one pause, restart, attach or detach at a time to a stack.
class Stack::PnpTurn {
  public:
    explicit PnpTurn(Stack& stack) : stack_(stack) {
        HostLock lock(stack_.mutex_);
        while (stack_.pnpBusy_) {
            stack_.machine_.scheduler().Wait(stack_.pnpFree_, lock, kForever);
        }
        stack_.pnpBusy_ = true;
        NoteAcquire(&stack_.pnpFree_);
    }
    ~PnpTurn() {
        HostLock lock(stack_.mutex_);
        stack_.pnpBusy_ = false;
        NoteRelease(&stack_.pnpFree_);
        stack_.machine_.scheduler().Wake(stack_.pnpFree_);
    }
    PnpTurn(const PnpTurn&) = delete;
    PnpTurn& operator=(const PnpTurn&) = delete;

  private:
    Stack& stack_;
};

Stack::Stack(Machine& machine, AdapterOptions options) : machine_(machine) {
    adapter_ = std::make_unique<Adapter>(machine, *this, std::move(options));
}

Stack::~Stack() = default;

Protocol& Stack::AddProtocol(std::u16string name) {
    const std::uint64_t seed =
        machine_.options().seed ^
        (0xB0B0'0000ull + adapter_->options().ifIndex * 64 + protocols_.size());
    protocols_.push_back(std::make_unique<Protocol>(machine_, *this, std::move(name), seed));
    return *protocols_.back();
}

bool Stack::Enter(ULONG nbls, Gate least) {
    outstanding_.fetch_add(nbls, std::memory_order_seq_cst);
    if (gate_.load(std::memory_order_seq_cst) >= least) {
        NoteAcquire(&gate_);
        return true;
    }
    Leave(nbls);
    return false;
}

void Stack::Leave(ULONG nbls) {
    NoteRelease(&drained_);
    const std::int64_t left = outstanding_.fetch_sub(nbls, std::memory_order_seq_cst) - nbls;
    if (left == 0 && gate_.load(std::memory_order_seq_cst) == Gate::kClosed) {
        HostLock lock(mutex_);
        machine_.scheduler().Wake(drained_);
    }
}

bool Stack::DrawsNoFlag() {
    return Random(machine_.options().seed + 0xD15Bull * ++dispatchCalls_).OneIn(3);
}

void Stack::Pause() {
    machine_.verifier().DemandPassive("pause of a stack");
    const PnpTurn turn(*this);
    PauseStack();
}

void Stack::Restart() {
    machine_.verifier().DemandPassive("restart of a stack");
    const PnpTurn turn(*this);
    RestartStack();
}

// The filter modules are paused while NBLs are outstanding and others are indicated, as NDIS does.
// Only then are the NBLs waited for.
void Stack::PauseStack() {
    if (running()) {
        gate_.store(Gate::kNoSends, std::memory_order_seq_cst);
    }
    for (FilterModule* module : modules_) {
        PauseModule(machine_, *module);
    }
    gate_.store(Gate::kClosed, std::memory_order_seq_cst);
    WaitUntilDrained();
}

// The adapter is up before the filter modules, as published, and may indicate while they restart.
void Stack::RestartStack() {
    OpenGate(Gate::kNoSends);
    const std::vector<FilterModule*> bottomUp(modules_.rbegin(), modules_.rend());
    for (FilterModule* module : bottomUp) {
        if (!RestartModule(machine_, *module, adapter_->options())) {
            gate_.store(Gate::kClosed, std::memory_order_seq_cst);
            WaitUntilDrained();
            CallDetach(*module);
            OpenGate(Gate::kNoSends);
        }
    }
    adapter_->queue().SetDraining(false);
    for (const auto& protocol : protocols_) {
        protocol->queue().SetDraining(false);
    }
    OpenGate(Gate::kOpen);
}

// What was done while it was closed happens before the calls that it lets in.
void Stack::OpenGate(Gate how) {
    NoteRelease(&gate_);
    gate_.store(how, std::memory_order_seq_cst);
}

void Stack::WaitUntilDrained() {
    Scheduler& scheduler = machine_.scheduler();
    const Ticks deadline = scheduler.Now() + kPnpLimit;
    adapter_->queue().SetDraining(true);
    for (const auto& protocol : protocols_) {
        protocol->queue().SetDraining(true);
    }
    HostLock lock(mutex_);
    while (outstanding_.load(std::memory_order_seq_cst) != 0) {
        if (!scheduler.Wait(drained_, lock, deadline) && scheduler.Now() >= deadline) {
            lock.unlock();
            machine_.ndis().nblPools().tracker().ReportOutstanding(
                "outstanding 10 s after the stack was paused",
                [this](const Component& owner, const Component&) { return owner.stack == this; });
            return;
        }
    }
    NoteAcquire(&drained_);
}

NDIS_STATUS Stack::Attach(FilterRegistration& registration) {
    machine_.verifier().DemandPassive("attach of a filter");
    const PnpTurn turn(*this);
    if (registration.deregistering) {
        return NDIS_STATUS_CLOSING;
    }
    const bool wasOpen = running();
    if (wasOpen) {
        PauseStack();
    }
    allModules_.push_back(std::make_unique<FilterModule>(
        registration, *this,
        fmt::format("{} on adapter {}", registration.driver->name(), adapter_->options().ifIndex)));
    FilterModule& module = *allModules_.back();
    machine_.ndis().AddHandle(module);
    NDIS_STATUS status = CallAttach(module);
    if (status == NDIS_STATUS_SUCCESS && !module.attributesSet) {
        machine_.verifier().Report(Rule::kAttachAttributes, module.component.name);
        status = NDIS_STATUS_FAILURE;
    }
    if (status == NDIS_STATUS_SUCCESS) {
        module.state = ModuleState::kPaused;
        Insert(module);
    } else {
        module.state = ModuleState::kGone;
        machine_.ndis().RemoveHandle(module);
    }
    if (wasOpen) {
        RestartStack();
    }
    return status;
}

NDIS_STATUS Stack::CallAttach(FilterModule& module) {
    const AdapterOptions& options = adapter_->options();
    UNICODE_STRING guid = Counted(options.moduleGuid);
    UNICODE_STRING instance = Counted(options.instanceName);
    UNICODE_STRING device = Counted(options.deviceName);
    NDIS_FILTER_ATTACH_PARAMETERS parameters{};
    parameters.Header = {NDIS_OBJECT_TYPE_FILTER_ATTACH_PARAMETERS, 1,
                         sizeof(NDIS_FILTER_ATTACH_PARAMETERS)};
    parameters.IfIndex = options.ifIndex + 100;
    parameters.FilterModuleGuidName = &guid;
    parameters.BaseMiniportIfIndex = options.ifIndex;
    parameters.BaseMiniportInstanceName = &instance;
    parameters.BaseMiniportName = &device;
    parameters.MiniportMediaType = options.medium;
    parameters.MacAddressLength = static_cast<USHORT>(options.mac.size());
    std::copy(options.mac.begin(), options.mac.end(), parameters.CurrentMacAddress);
    NDIS_STATUS status = NDIS_STATUS_SUCCESS;
    {
        const CallbackScope scope("FilterAttach", module.registration.driver, &module);
        status = module.handlers.AttachHandler(module.handle(), module.registration.context,
                                               &parameters);
    }
    if (status != NDIS_STATUS_SUCCESS) {
        CheckAttachLeftNothing(module);
    }
    return status;
}

void Stack::CheckAttachLeftNothing(FilterModule& module) {
    const auto blocks =
        machine_.pool().Find([&](const PoolBlock& block) { return block.module == &module; });
    for (const PoolBlock& block : blocks) {
        ReportLeftBehind(machine_, module,
                         fmt::format("block '{}' of {} bytes", TagText(block.tag), block.size));
    }
    if (machine_.ndis().nblPools().PoolsOwnedBy(module.component) != 0) {
        ReportLeftBehind(machine_, module, "an NBL pool");
    }
    if (machine_.mdls().AllocatedIn(&module) != 0) {
        ReportLeftBehind(machine_, module, "an MDL");
    }
    if (machine_.timers().ArmedIn(&module) != 0) {
        ReportLeftBehind(machine_, module, "an armed timer");
    }
}

void Stack::Insert(FilterModule& module) {
    const auto place = std::find_if(modules_.begin(), modules_.end(), [&](FilterModule* other) {
        return other->registration.driver->altitude() < module.registration.driver->altitude();
    });
    modules_.insert(place, &module);
    Relink();
}

void Stack::Remove(FilterModule& module) {
    std::erase(modules_, &module);
    Relink();
}

void Stack::Relink() {
    FilterModule* above = nullptr;
    for (FilterModule* module : modules_) {
        module->upper = above;
        module->lower = nullptr;
        if (above != nullptr) {
            above->lower = module;
        }
        above = module;
    }
    top_ = modules_.empty() ? nullptr : modules_.front();
    bottom_ = modules_.empty() ? nullptr : modules_.back();
}

void Stack::Detach(FilterModule& module) {
    machine_.verifier().DemandPassive("detach of a filter");
    const PnpTurn turn(*this);
    if (module.state == ModuleState::kGone) {
        return;
    }
    const bool wasOpen = running();
    PauseStack();
    CallDetach(module);
    if (wasOpen) {
        RestartStack();
    }
}

void Stack::DetachUnderCalls(FilterModule& module) {
    const PnpTurn turn(*this);
    PauseModule(machine_, module);
    CallDetach(module);
}

void Stack::CallDetach(FilterModule& module) {
    {
        const CallbackScope scope("FilterDetach", module.registration.driver, &module);
        module.handlers.DetachHandler(module.context);
    }
    module.state = ModuleState::kGone;
    Remove(module);
    machine_.ndis().RemoveHandle(module);
    machine_.ndis().nblPools().tracker().ReportOutstanding(
        "held by a module that is detached",
        [&](const Component&, const Component& holder) { return &holder == &module.component; });
}

void Stack::DetachDriver(const LoadedDriver* driver) {
    const PnpTurn turn(*this);
    const bool wasOpen = running();
    while (FilterModule* const module = FindModule(driver)) {
        PauseStack();
        CallDetach(*module);
    }
    if (wasOpen && !running()) {
        RestartStack();
    }
}

FilterModule* Stack::FindModule(const LoadedDriver* driver) {
    const auto it = std::find_if(modules_.begin(), modules_.end(), [&](FilterModule* module) {
        return module->registration.driver == driver;
    });
    return it == modules_.end() ? nullptr : *it;
}

}  // namespace netsieve::host
