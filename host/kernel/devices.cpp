#include "host/kernel/devices.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/machine.h"

namespace netsieve::host {

namespace {
constexpr CSHORT kDeviceObjectType = 3;  // IO_TYPE_DEVICE
}

Devices::~Devices() {
    for (const PIO_WORKITEM item : items_) {
        delete item;
    }
}

Devices::DeviceList::iterator Devices::Find(PDEVICE_OBJECT object) {
    return std::find_if(devices_.begin(), devices_.end(),
                        [&](const Device& device) { return device.object.get() == object; });
}

Devices::Device Devices::Make(const Wanted& wanted) {
    const std::size_t size = sizeof(DEVICE_OBJECT) + wanted.extensionSize;
    auto* const object = static_cast<PDEVICE_OBJECT>(std::calloc(1, size));
    object->Type = kDeviceObjectType;
    object->Size = static_cast<USHORT>(size);
    object->Flags = DO_DEVICE_INITIALIZING;
    object->Characteristics = wanted.characteristics;
    object->DeviceExtension = wanted.extensionSize == 0 ? nullptr : object + 1;
    object->DeviceType = wanted.type;
    object->StackSize = 1;
    Device device;
    device.object.reset(object);
    device.name = wanted.name;
    return device;
}

void Devices::Link(PDRIVER_OBJECT driver, PDEVICE_OBJECT object) {
    object->DriverObject = driver;
    object->NextDevice = driver->DeviceObject;
    driver->DeviceObject = object;
}

void Devices::Unlink(PDEVICE_OBJECT object) {
    PDEVICE_OBJECT* link = &object->DriverObject->DeviceObject;
    while (*link != nullptr && *link != object) {
        link = &(*link)->NextDevice;
    }
    if (*link != nullptr) {
        *link = object->NextDevice;
    }
}

NTSTATUS Devices::Create(PDRIVER_OBJECT driverObject,
                         const Wanted& wanted,
                         PDEVICE_OBJECT* device) {
    if (machine_.faults().Fails(FaultKind::kDevice)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HostLock lock(mutex_);
    if (std::any_of(devices_.begin(), devices_.end(), [&](const Device& other) {
            return !other.deleted && !wanted.name.empty() && other.name == wanted.name;
        })) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    devices_.push_back(Make(wanted));
    devices_.back().driver = machine_.DriverOf(driverObject);
    *device = devices_.back().object.get();
    Link(driverObject, *device);
    return STATUS_SUCCESS;
}

void Devices::Delete(PDEVICE_OBJECT device) {
    HostLock lock(mutex_);
    const auto it = Find(device);
    if (it == devices_.end() || it->deleted) {
        machine_.verifier().Report(Rule::kPoolInvalidPointer,
                                   "IoDeleteDevice of what is no device of this machine");
        return;
    }
    Unlink(device);
    it->deleted = true;
    if (it->queued == 0) {
        devices_.erase(it);
    }
}

PIO_WORKITEM Devices::AllocateWorkItem(PDEVICE_OBJECT device) {
    if (machine_.faults().Fails(FaultKind::kWorkItem)) {
        return nullptr;
    }
    HostLock lock(mutex_);
    const auto it = Find(device);
    if (it == devices_.end()) {
        machine_.verifier().Report(Rule::kPoolInvalidPointer,
                                   "IoAllocateWorkItem for what is no device of this machine");
        return nullptr;
    }
    LoadedDriver* const caller = LoadedDriver::Calling(CurrentContext());
    auto* item =
        new IO_WORKITEM{.device = device, .driver = caller == nullptr ? it->driver : caller};
    items_.insert(item);
    return item;
}

void Devices::FreeWorkItem(PIO_WORKITEM item) {
    HostLock lock(mutex_);
    if (!items_.contains(item)) {
        machine_.verifier().Report(Rule::kPoolDoubleFree,
                                   "IoFreeWorkItem of what is no allocated work item");
        return;
    }
    if (item->queued) {
        machine_.verifier().Report(Rule::kWorkItemQueued, "IoFreeWorkItem while it is queued");
        item->freedEarly = true;
        return;
    }
    items_.erase(item);
    delete item;
}

bool Devices::Hold(const IO_WORKITEM& item) {
    const auto it = Find(item.device);
    if (it == devices_.end() || (it->deleted && it->queued == 0)) {
        machine_.verifier().Report(Rule::kPoolUseAfterFree,
                                   "IoQueueWorkItem against a device that was deleted");
        return false;
    }
    ++it->queued;
    return true;
}

void Devices::LetGo(PDEVICE_OBJECT object) {
    const auto it = Find(object);
    if (--it->queued == 0 && it->deleted) {
        devices_.erase(it);
    }
}

void Devices::Queue(PIO_WORKITEM item, PIO_WORKITEM_ROUTINE routine, PVOID context) {
    {
        HostLock lock(mutex_);
        if (!items_.contains(item)) {
            machine_.verifier().Report(Rule::kPoolUseAfterFree,
                                       "IoQueueWorkItem of what is no allocated work item");
            return;
        }
        if (item->queued) {
            machine_.verifier().Report(Rule::kWorkItemQueued, "IoQueueWorkItem while it is queued");
            return;
        }
        if (!Hold(*item)) {
            return;
        }
        item->queued = true;
        routines_.insert(item->driver);
    }
    machine_.scheduler().Start(
        {.name = "work item", .kind = ContextKind::kWorker, .processor = machine_.AnyProcessor()},
        [this, item, routine, context] { Run(item, routine, context); });
}

void Devices::Run(PIO_WORKITEM item, PIO_WORKITEM_ROUTINE routine, PVOID context) {
    PDEVICE_OBJECT device = nullptr;
    LoadedDriver* driver = nullptr;
    {
        // Dequeued: from here on the routine itself may free the item.
        HostLock lock(mutex_);
        item->queued = false;
        device = item->device;
        driver = item->driver;
        routines_.erase(routines_.find(driver));
        if (item->freedEarly) {
            items_.erase(item);
            delete item;
        }
    }
    {
        const CallbackScope scope("work item routine", driver, nullptr);
        routine(device, context);
    }
    HostLock lock(mutex_);
    LetGo(device);
}

std::size_t Devices::Live() {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        devices_.begin(), devices_.end(), [](const Device& device) { return !device.deleted; }));
}

std::size_t Devices::LiveWorkItems() {
    HostLock lock(mutex_);
    return items_.size();
}

std::size_t Devices::DevicesOf(const LoadedDriver* driver) {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        devices_.begin(), devices_.end(),
        [&](const Device& device) { return device.driver == driver && !device.deleted; }));
}

std::size_t Devices::WorkItemsOf(const LoadedDriver* driver) {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        items_.begin(), items_.end(),
        [&](const PIO_WORKITEM item) { return item->driver == driver && !item->queued; }));
}

std::size_t Devices::RoutinesOf(const LoadedDriver* driver) {
    HostLock lock(mutex_);
    return routines_.count(driver);
}

}  // namespace netsieve::host

using namespace netsieve::host;

extern "C" {

NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject,
                              ULONG DeviceExtensionSize,
                              PUNICODE_STRING DeviceName,
                              DEVICE_TYPE DeviceType,
                              ULONG DeviceCharacteristics,
                              BOOLEAN,
                              PDEVICE_OBJECT* DeviceObject) {
    Machine& machine = Machine::Current();
    machine.verifier().DemandPassive("IoCreateDevice");
    machine.EnterCall("IoCreateDevice");
    Devices::Wanted wanted{.extensionSize = DeviceExtensionSize,
                           .type = DeviceType,
                           .characteristics = DeviceCharacteristics};
    if (DeviceName != nullptr) {
        wanted.name.assign(DeviceName->Buffer, DeviceName->Length / sizeof(WCHAR));
    }
    return machine.devices().Create(DriverObject, wanted, DeviceObject);
}

VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject) {
    Machine& machine = Machine::Current();
    machine.verifier().DemandPassive("IoDeleteDevice");
    machine.EnterCall("IoDeleteDevice");
    machine.devices().Delete(DeviceObject);
}

PIO_WORKITEM NTAPI IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject) {
    Machine::Current().EnterCall("IoAllocateWorkItem");
    return Machine::Current().devices().AllocateWorkItem(DeviceObject);
}

VOID NTAPI IoQueueWorkItem(PIO_WORKITEM IoWorkItem,
                           PIO_WORKITEM_ROUTINE WorkerRoutine,
                           WORK_QUEUE_TYPE,
                           PVOID Context) {
    Machine::Current().EnterCall("IoQueueWorkItem");
    Machine::Current().devices().Queue(IoWorkItem, WorkerRoutine, Context);
}

VOID NTAPI IoFreeWorkItem(PIO_WORKITEM IoWorkItem) {
    Machine::Current().EnterCall("IoFreeWorkItem");
    Machine::Current().devices().FreeWorkItem(IoWorkItem);
}

}  // extern "C"
