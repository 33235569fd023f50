// Device objects and the work items that hang on them.
#pragma once

#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/verifier/verifier.h"
#include "platform/kernel.h"

namespace netsieve::host {

class LoadedDriver;
class Machine;

}  // namespace netsieve::host

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

    /// What a driver says of a device that it wants.
    struct Wanted {
        std::u16string name{};  ///< may be empty
        ULONG extensionSize = 0;
        DEVICE_TYPE type = 0;
        ULONG characteristics = 0;
    };
    /// STATUS_OBJECT_NAME_COLLISION when the name is taken, STATUS_INSUFFICIENT_RESOURCES on a
    /// fault.
    NTSTATUS Create(PDRIVER_OBJECT driverObject, const Wanted& wanted, PDEVICE_OBJECT* device);
    /// A device that work items are queued against goes with the last of their routines.
    void Delete(PDEVICE_OBJECT device);
    PIO_WORKITEM AllocateWorkItem(PDEVICE_OBJECT device);
    void FreeWorkItem(PIO_WORKITEM item);
    void Queue(PIO_WORKITEM item, PIO_WORKITEM_ROUTINE routine, PVOID context);

    /// What there is now, of any driver.
    std::size_t Live();
    std::size_t LiveWorkItems();
    /// What is left of a driver's, for the accounting.
    std::size_t DevicesOf(const LoadedDriver* driver);
    std::size_t WorkItemsOf(const LoadedDriver* driver);  ///< that are not queued
    /// Routines of the driver that are queued and have not begun.
    std::size_t RoutinesOf(const LoadedDriver* driver);

  private:
    /// A device and its extension, which lie in one stretch of memory as the system lays them out.
    struct Device {
        struct Free {
            void operator()(PDEVICE_OBJECT memory) const { std::free(memory); }
        };
        std::unique_ptr<DEVICE_OBJECT, Free> object;
        std::u16string name;
        LoadedDriver* driver = nullptr;
        unsigned queued = 0;  ///< work items against it whose routine has not returned
        bool deleted = false;
    };
    using DeviceList = std::vector<Device>;

    // All with `mutex_` held.
    DeviceList::iterator Find(PDEVICE_OBJECT object);
    static Device Make(const Wanted& wanted);
    static void Link(PDRIVER_OBJECT driver, PDEVICE_OBJECT object);
    static void Unlink(PDEVICE_OBJECT object);
    /// The item's routine will run, or has returned; false when its device is gone.
    bool Hold(const IO_WORKITEM& item);
    void LetGo(PDEVICE_OBJECT object);

    /// The life of a queued item: in a worker.
    void Run(PIO_WORKITEM item, PIO_WORKITEM_ROUTINE routine, PVOID context);

    Machine& machine_;
    HostMutex mutex_;
    DeviceList devices_;
    std::set<PIO_WORKITEM> items_;
    std::multiset<const LoadedDriver*> routines_;
};

}  // namespace netsieve::host
