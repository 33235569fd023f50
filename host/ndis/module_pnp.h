// Pausing and restarting one filter module.
#pragma once

#include <optional>

#include "host/sched/scheduler.h"
#include "platform/ndis.h"

constexpr NDIS_STATUS NDIS_STATUS_PENDING = 0x00000103;

namespace netsieve::host {

class Machine;
struct AdapterOptions;
struct FilterModule;

/// Longest time that a pause or a restart may take.
inline constexpr Ticks kPnpLimit = 10 * kTicksPerSecond;

/// The end of a pause or restart whose handler answered NDIS_STATUS_PENDING.
class PnpCompletion {
  public:
    /// A handler is about to be called; it may be completed from now on.
    void Begin();
    /// False when nothing is to be completed.
    bool Complete(Scheduler& scheduler, NDIS_STATUS status);
    /// Whether the change has been completed already.
    bool IsCompleted();
    /// The handler returned `answer`. Returns the final status; nothing when none has come in
    /// kPnpLimit. PASSIVE_LEVEL.
    std::optional<NDIS_STATUS> Await(Scheduler& scheduler, NDIS_STATUS answer);

  private:
    HostMutex mutex_;
    WaitQueue completed_;
    bool open_ = false;
    std::optional<NDIS_STATUS> status_;
};

/// Pauses a running module, and checks what it holds then. PASSIVE_LEVEL.
void PauseModule(Machine& machine, FilterModule& module);
/// Restarts a paused module. False when it does not restart, and is to be detached. PASSIVE_LEVEL.
bool RestartModule(Machine& machine, FilterModule& module, const AdapterOptions& adapter);

}  // namespace netsieve::host

// What a filter calls that the driver does not, as published.
extern "C" {
/// Completes a pause whose handler answered NDIS_STATUS_PENDING. IRQL <= DISPATCH_LEVEL.
VOID NTAPI NdisFPauseComplete(NDIS_HANDLE NdisFilterHandle);
/// The same of a restart, with its final status.
VOID NTAPI NdisFRestartComplete(NDIS_HANDLE NdisFilterHandle, NDIS_STATUS Status);
}
