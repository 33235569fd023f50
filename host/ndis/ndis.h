// NDIS: the filter drivers that are registered and the adapters they are bound to.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "host/ndis/filter_module.h"
#include "host/ndis/nbl_pools.h"
#include "host/ndis/stack.h"

namespace netsieve::host {

class Machine;

/// When the modules of a newly registered filter driver are attached.
enum class AttachTiming : std::uint8_t {
    kConcurrent,  ///< by a thread of their own, while registration and DriverEntry go on
    kInline,      ///< before NdisFRegisterFilterDriver returns
};

class Ndis {
  public:
    explicit Ndis(Machine& machine);
    ~Ndis();

    /// A new adapter with one protocol ("TCPIP") bound; every registered filter is attached and the
    /// stack restarted. Inside Machine::Run, at PASSIVE_LEVEL.
    Stack& AddAdapter(AdapterOptions options = {});
    /// Removes the adapter: pauses the stack and detaches every module. The stack object stays
    /// until the machine ends.
    void RemoveAdapter(Stack& stack);
    std::vector<Stack*> Stacks();

    void SetAttachTiming(AttachTiming timing) { attachTiming_ = timing; }
    NblPools& nblPools() { return nblPools_; }

    NDIS_STATUS RegisterFilter(PDRIVER_OBJECT driverObject,
                               NDIS_HANDLE context,
                               const NDIS_FILTER_DRIVER_CHARACTERISTICS& characteristics,
                               PNDIS_HANDLE handle);
    void DeregisterFilter(NDIS_HANDLE handle);
    /// Waits until the attaches that a registration of this driver started are done.
    void WaitForAttaches(LoadedDriver* driver);
    bool IsRegistered(const LoadedDriver* driver);
    std::size_t Registrations();

    /// The module with this handle, or null.
    FilterModule* ModuleOf(NDIS_HANDLE handle);
    void AddHandle(FilterModule& module);
    void RemoveHandle(FilterModule& module);
    /// Memory is about to be freed: reports a module context in it that a call is still inside of.
    void ForgetRange(const void* start, std::size_t size);

    /// Reports every NBL that is still outstanding. At the end of a run.
    void ReportLostNbls();

  private:
    void AttachToAll(FilterRegistration& registration);
    FilterRegistration* Find(NDIS_HANDLE handle);

    Machine& machine_;
    NblPools nblPools_;
    AttachTiming attachTiming_ = AttachTiming::kConcurrent;
    HostMutex mutex_;
    std::vector<std::unique_ptr<Stack>> stacks_;
    std::vector<Stack*> present_;  ///< those whose adapter is not removed
    std::vector<std::unique_ptr<FilterRegistration>> registrations_;
    std::map<NDIS_HANDLE, FilterModule*> handles_;
};

}  // namespace netsieve::host
