#include "host/ndis/module_pnp.h"

#include <fmt/format.h>

#include <utility>

#include "host/kernel/callback.h"
#include "host/machine.h"
#include "host/ndis/ndis.h"
#include "host/ndis/stack.h"
#include "host/sched/happens_before.h"

namespace netsieve::host {
namespace {

constexpr std::uint32_t OID_GEN_MINIPORT_RESTART_ATTRIBUTES = 0x0001'021D;

std::string StatusText(NDIS_STATUS status) {
    return fmt::format("{:#010x}", static_cast<std::uint32_t>(status));
}

/// A pause or restart in progress: its time is limited.
class TimedChange {
  public:
    TimedChange(Machine& machine, FilterModule& module, const char* what)
        : machine_(machine), module_(module), what_(what), start_(machine.scheduler().Now()) {
        module_.completion.Begin();
    }

    /// The final status of a handler that returned `answer`; nothing when it is not completed.
    std::optional<NDIS_STATUS> End(NDIS_STATUS answer) {
        if (answer != NDIS_STATUS_PENDING && module_.completion.IsCompleted()) {
            machine_.verifier().Report(Rule::kPnpCompletion,
                                       fmt::format("{} of {} was completed and answered {}", what_,
                                                   module_.component.name, StatusText(answer)));
        }
        const auto status = module_.completion.Await(machine_.scheduler(), answer);
        const Ticks taken = machine_.scheduler().Now() - start_;
        if (!status || taken > kPnpLimit) {
            machine_.verifier().Report(
                Rule::kPauseTooLong, fmt::format("{} of {} {} {} ms", what_, module_.component.name,
                                                 status ? "took" : "was not completed in",
                                                 taken / kTicksPerMillisecond));
        }
        return status;
    }

  private:
    Machine& machine_;
    FilterModule& module_;
    const char* what_;
    Ticks start_;
};

NDIS_STATUS CallPause(FilterModule& module) {
    NDIS_OBJECT_HEADER parameters{NDIS_OBJECT_TYPE_FILTER_PAUSE_PARAMETERS, 1,
                                  sizeof(NDIS_OBJECT_HEADER)};
    const CallbackScope scope("FilterPause", module.registration.driver, &module);
    return module.handlers.PauseHandler(
        module.context, reinterpret_cast<PNDIS_FILTER_PAUSE_PARAMETERS>(&parameters));
}

NDIS_STATUS CallRestart(FilterModule& module, const AdapterOptions& adapter) {
    alignas(16) std::uint8_t storage[sizeof(NDIS_RESTART_ATTRIBUTES) + 128] = {};
    auto* const attributes = reinterpret_cast<PNDIS_RESTART_ATTRIBUTES>(storage);
    auto* const general = reinterpret_cast<PNDIS_RESTART_GENERAL_ATTRIBUTES>(attributes->Data);
    attributes->Oid = OID_GEN_MINIPORT_RESTART_ATTRIBUTES;
    attributes->DataLength = 128;
    general->MtuSize = adapter.mtu;
    general->LookaheadSize = adapter.mtu;
    NDIS_FILTER_RESTART_PARAMETERS parameters{};
    parameters.Header = {NDIS_OBJECT_TYPE_FILTER_RESTART_PARAMETERS, 1,
                         sizeof(NDIS_FILTER_RESTART_PARAMETERS)};
    parameters.MiniportMediaType = adapter.medium;
    parameters.RestartAttributes = adapter.restartAttributes ? attributes : nullptr;
    const CallbackScope scope("FilterRestart", module.registration.driver, &module);
    const NDIS_STATUS status = module.handlers.RestartHandler(module.context, &parameters);
    module.lookaheadSize = general->LookaheadSize;
    return status;
}

void CheckPaused(Machine& machine, const FilterModule& module) {
    if (!g_verifyMode) {
        return;
    }
    if (module.component.originatedOutstanding != 0) {
        machine.verifier().Report(
            Rule::kPauseOutstanding,
            fmt::format("{} has {} NBL(s) of its own outstanding", module.component.name,
                        module.component.originatedOutstanding.load()));
    }
    const std::size_t kept = machine.ndis().nblPools().tracker().KeptByOther(module.component);
    if (kept != 0) {
        machine.verifier().Report(
            Rule::kPauseOutstanding,
            fmt::format("{} keeps {} NBL(s) of others", module.component.name, kept));
    }
}

}  // namespace

void PnpCompletion::Begin() {
    const HostLock lock(mutex_);
    open_ = true;
    status_.reset();
}

bool PnpCompletion::Complete(Scheduler& scheduler, NDIS_STATUS status) {
    const HostLock lock(mutex_);
    if (!open_ || status_) {
        return false;
    }
    status_ = status;
    NoteRelease(&completed_);
    scheduler.Wake(completed_);
    return true;
}

bool PnpCompletion::IsCompleted() {
    const HostLock lock(mutex_);
    return status_.has_value();
}

std::optional<NDIS_STATUS> PnpCompletion::Await(Scheduler& scheduler, NDIS_STATUS answer) {
    HostLock lock(mutex_);
    if (answer != NDIS_STATUS_PENDING) {
        open_ = false;
        return answer;
    }
    const Ticks deadline = scheduler.Now() + kPnpLimit;
    while (!status_ && scheduler.Now() < deadline) {
        scheduler.Wait(completed_, lock, deadline);
    }
    open_ = false;
    NoteAcquire(&completed_);
    return status_;
}

void PauseModule(Machine& machine, FilterModule& module) {
    if (module.state != ModuleState::kRunning) {
        return;
    }
    module.state = ModuleState::kPausing;
    TimedChange change(machine, module, "pause");
    const std::optional<NDIS_STATUS> status = change.End(CallPause(module));
    module.state = ModuleState::kPaused;
    module.component.mayOriginate = false;
    if (status && *status != NDIS_STATUS_SUCCESS) {
        machine.verifier().Report(
            Rule::kPauseFailed,
            fmt::format("{} answered {}", module.component.name, StatusText(*status)));
    }
    CheckPaused(machine, module);
}

bool RestartModule(Machine& machine, FilterModule& module, const AdapterOptions& adapter) {
    if (module.state != ModuleState::kPaused) {
        return true;
    }
    module.state = ModuleState::kRestarting;
    module.component.mayOriginate = true;
    TimedChange change(machine, module, "restart");
    const bool restarted = change.End(CallRestart(module, adapter)) == NDIS_STATUS_SUCCESS;
    module.state = restarted ? ModuleState::kRunning : ModuleState::kPaused;
    module.component.mayOriginate = restarted;
    return restarted;
}

}  // namespace netsieve::host

using namespace netsieve::host;

namespace {

void CompleteChange(NDIS_HANDLE handle, NDIS_STATUS status, const char* routine) {
    Machine& machine = Machine::Current();
    machine.EnterCall(routine);
    FilterModule* const module = machine.ndis().ModuleOf(handle);
    if (module == nullptr || !module->completion.Complete(machine.scheduler(), status)) {
        machine.verifier().Report(Rule::kPnpCompletion,
                                  fmt::format("{} by {}", routine,
                                              module == nullptr ? "a handle that is no module's"
                                                                : module->component.name));
    }
    machine.LeaveCall();
}

}  // namespace

extern "C" {

VOID NTAPI NdisFPauseComplete(NDIS_HANDLE NdisFilterHandle) {
    CompleteChange(NdisFilterHandle, NDIS_STATUS_SUCCESS, "NdisFPauseComplete");
}

VOID NTAPI NdisFRestartComplete(NDIS_HANDLE NdisFilterHandle, NDIS_STATUS Status) {
    CompleteChange(NdisFilterHandle, Status, "NdisFRestartComplete");
}

}  // extern "C"
