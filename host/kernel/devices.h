// Device objects and the work items that hang on them.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/verifier/verifier.h"

namespace netsieve::host {

class LoadedDriver;
class Machine;

}  // namespace netsieve::host

/// A device as the host keeps it; drivers only hold the pointer.
struct DEVICE_OBJECT {
    std::u16string name;
    netsieve::host::LoadedDriver* driver = nullptr;
};

/// A work item as the host keeps it.
struct IO_WORKITEM {
    PDEVICE_OBJECT device = nullptr;
    netsieve::host::LoadedDriver* driver = nullptr;
    bool queued = false;
    bool freedEarly = false;  ///< while it was queued: it goes when it is dequeued
};

namespace netsieve::host {

/// The devices of the machine and the system's worker queue.
class Devices {
  public:
    explicit Devices(Machine& machine) : machine_(machine) {}
    ~Devices();

    /// STATUS_OBJECT_NAME_COLLISION when the name is taken, STATUS_INSUFFICIENT_RESOURCES on a
    /// fault.
    NTSTATUS Create(PDRIVER_OBJECT driverObject, std::u16string name, PDEVICE_OBJECT* device);
    void Delete(PDEVICE_OBJECT device);
    PIO_WORKITEM AllocateWorkItem(PDEVICE_OBJECT device);
    void FreeWorkItem(PIO_WORKITEM item);
    void Queue(PIO_WORKITEM item, PIO_WORKITEM_ROUTINE routine, PVOID context);

    /// What there is now, of any driver.
    std::size_t Live();
    std::size_t LiveWorkItems();
    /// What is left of a driver's, for the accounting.
    std::size_t DevicesOf(const LoadedDriver* driver);
    std::size_t WorkItemsOf(const LoadedDriver* driver);
    /// Routines of the driver that are queued and have not begun.
    std::size_t RoutinesOf(const LoadedDriver* driver);

  private:
    /// Reports an item whose device is gone: the device has to outlive the item's routine. `mutex_`
    /// is held.
    void RequireDevice(const IO_WORKITEM& item, const char* what);

    Machine& machine_;
    HostMutex mutex_;
    std::vector<std::unique_ptr<DEVICE_OBJECT>> devices_;
    std::set<PIO_WORKITEM> items_;
    std::multiset<const LoadedDriver*> routines_;
};

}  // namespace netsieve::host
