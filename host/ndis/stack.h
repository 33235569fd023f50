// What is bound to one adapter: protocols above, filter modules between, the adapter below.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "host/ndis/adapter.h"
#include "host/ndis/filter_module.h"
#include "host/ndis/protocol.h"

namespace netsieve::host {

class Machine;

/// The stack of one adapter. Attach, pause, restart and detach run at PASSIVE_LEVEL and one at a
/// time; NBLs cross it meanwhile from any context.
class Stack {
  public:
    Stack(Machine& machine, AdapterOptions options);
    ~Stack();

    Adapter& adapter() { return *adapter_; }
    /// Binds one more protocol. While the stack is quiet. Received NBLs go to the first one unless
    /// `chooseReceiver` says otherwise.
    Protocol& AddProtocol(std::u16string name);
    Protocol& protocol(std::size_t index = 0) { return *protocols_[index]; }
    std::size_t protocolCount() const { return protocols_.size(); }
    /// Index of the protocol that gets a received NBL.
    std::function<std::size_t(PNET_BUFFER_LIST)> chooseReceiver;

    /// Pauses everything, top down: no NBL enters any more, the filters are paused, and everything
    /// under way comes home. PASSIVE_LEVEL.
    void Pause();
    /// Restarts everything, bottom up.
    void Restart();
    bool running() const { return open_.load(); }

    /// Attaches a module of the driver, with the stack paused for the time. Its status; a module
    /// that was refused is gone.
    NDIS_STATUS Attach(FilterRegistration& registration);
    /// Takes a module out: pause, detach, restart of the rest.
    void Detach(FilterModule& module);
    /// Takes out every module of a driver that is deregistering.
    void DetachDriver(const LoadedDriver* driver);
    /// Detaches a module while NBLs are still inside it and the stack goes on taking new ones.
    /// Real NDIS waits for the NBLs first; this is for seeing what a driver does when calls
    /// overlap its detach. The caller sees to it that a call stays inside until the handler has
    /// begun to wait.
    void DetachUnderCalls(FilterModule& module);
    /// The driver's module on this stack, or null.
    FilterModule* FindModule(const LoadedDriver* driver);
    /// The modules, top first.
    const std::vector<FilterModule*>& modules() const { return modules_; }

    // The data path's side.
    /// Counts NBLs that enter at an end; false when the stack takes none now.
    bool Enter(ULONG nbls);
    /// They are home.
    void Leave(ULONG nbls);
    FilterModule* top() const { return top_.load(std::memory_order_acquire); }
    FilterModule* bottom() const { return bottom_.load(std::memory_order_acquire); }
    Machine& machine() { return machine_; }

  private:
    class PnpTurn;
    void PauseStack();
    void RestartStack();
    void PauseModule(FilterModule& module);
    void RestartModule(FilterModule& module);
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
    std::vector<std::unique_ptr<FilterModule>> allModules_;  ///< those that are gone, too
    std::atomic<FilterModule*> top_ = nullptr;
    std::atomic<FilterModule*> bottom_ = nullptr;
    std::atomic<bool> open_ = false;
    std::atomic<std::int64_t> outstanding_ = 0;  ///< NBLs that entered and are not home
    HostMutex mutex_;
    WaitQueue drained_;
    WaitQueue pnpFree_;
    bool pnpBusy_ = false;
};

}  // namespace netsieve::host
