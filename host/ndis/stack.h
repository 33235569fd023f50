// The driver stack of one adapter: protocols, filter modules, and the adapter at the bottom.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "host/modes.h"
#include "host/ndis/adapter.h"
#include "host/ndis/filter_module.h"
#include "host/ndis/protocol.h"

namespace netsieve::host {

class Machine;

/// The stack of one adapter. Attach, pause, restart and detach run at PASSIVE_LEVEL and one at a
/// time, while NBLs pass through the stack from any context.
class Stack {
  public:
    Stack(Machine& machine, AdapterOptions options);
    ~Stack();

    Adapter& adapter() { return *adapter_; }
    /// Binds one more protocol, while no NBL is outstanding. Received NBLs go to the first protocol
    /// unless `chooseReceiver` says otherwise.
    Protocol& AddProtocol(std::u16string name);
    Protocol& protocol(std::size_t index = 0) { return *protocols_[index]; }
    std::size_t protocolCount() const { return protocols_.size(); }
    /// Index of the protocol that gets a received NBL.
    std::function<std::size_t(PNET_BUFFER_LIST)> chooseReceiver;

    /// Pauses the stack, top down, as published: the protocols send nothing more, the filter
    /// modules are paused, and the adapter, which may indicate until then, is paused last, when no
    /// NBL is outstanding. PASSIVE_LEVEL.
    void Pause();
    /// Restarts the stack, bottom up: the adapter, which may indicate from then on, the modules,
    /// the protocols. A module that does not restart is detached, as NDIS does.
    void Restart();
    bool running() const { return gate_.load() == Gate::kOpen; }

    /// Attaches a module of the driver, with the stack paused meanwhile. Returns the status of its
    /// attach handler; a module that failed to attach is gone.
    NDIS_STATUS Attach(FilterRegistration& registration);
    /// Pauses the stack, detaches the module and restarts the others.
    void Detach(FilterModule& module);
    /// Detaches every module of a driver that is deregistering.
    void DetachDriver(const LoadedDriver* driver);
    /// Detaches a module that has NBLs outstanding, in a stack that is not paused. Real NDIS waits
    /// for the NBLs first; this tests a driver whose calls overlap its detach. The caller makes
    /// sure that a call stays inside the module until the detach handler waits.
    void DetachUnderCalls(FilterModule& module);
    /// The driver's module on this stack, or null.
    FilterModule* FindModule(const LoadedDriver* driver);
    /// The modules, top first.
    const std::vector<FilterModule*>& modules() const { return modules_; }

    // Used by the data path.
    /// Counts NBLs that a protocol sends; false from the moment the stack is being paused.
    bool EnterSend(ULONG nbls) { return Enter(nbls, Gate::kOpen); }
    /// Counts NBLs that the adapter indicates, or a call that is to find the stack's modules there;
    /// false when all filter modules are paused.
    bool EnterReceive(ULONG nbls) { return Enter(nbls, Gate::kNoSends); }
    /// Counts NBLs that are completed, returned or refused.
    void Leave(ULONG nbls);
    FilterModule* top() const { return top_.load(std::memory_order_acquire); }
    FilterModule* bottom() const { return bottom_.load(std::memory_order_acquire); }
    Machine& machine() { return machine_; }

    /// The dispatch flag of a call that an end of the stack makes, `known` to be at DISPATCH_LEVEL:
    /// what the adapter's options say.
    ULONG DispatchFlag(bool known) {
        const DispatchFlagUse use = adapter_->options().dispatchFlag;
        return known && use != DispatchFlagUse::kNever && !Withholds(use) ? 1 : 0;
    }

  private:
    /// How far the pause is.
    enum class Gate : std::uint8_t { kClosed, kNoSends, kOpen };
    class PnpTurn;
    bool Enter(ULONG nbls, Gate least);
    /// By choice of the seed, while the verifier looks at what a driver makes of it.
    bool Withholds(DispatchFlagUse use) {
        return g_verifyMode && use == DispatchFlagUse::kBySeed && DrawsNoFlag();
    }
    bool DrawsNoFlag();
    void PauseStack();
    void RestartStack();
    void OpenGate(Gate how);
    NDIS_STATUS CallAttach(FilterModule& module);
    void CallDetach(FilterModule& module);
    void CheckAttachLeftNothing(FilterModule& module);
    void Insert(FilterModule& module);
    void Remove(FilterModule& module);
    void Relink();
    void WaitUntilDrained();

    Machine& machine_;
    std::unique_ptr<Adapter> adapter_;
    std::vector<std::unique_ptr<Protocol>> protocols_;
    std::vector<FilterModule*> modules_;
    std::vector<std::unique_ptr<FilterModule>> allModules_;  ///< detached ones too
    std::atomic<FilterModule*> top_ = nullptr;
    std::atomic<FilterModule*> bottom_ = nullptr;
    std::atomic<Gate> gate_ = Gate::kClosed;
    std::atomic<std::uint64_t> dispatchCalls_ = 0;
    std::atomic<std::int64_t> outstanding_ = 0;  ///< NBLs not completed or returned yet
    HostMutex mutex_;
    WaitQueue drained_;
    WaitQueue pnpFree_;
    bool pnpBusy_ = false;
};

}  // namespace netsieve::host
