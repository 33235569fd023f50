#include "host/kernel/devices.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/machine.h"

namespace netsieve::host {

Devices::~Devices() {
    for (const PIO_WORKITEM item : items_) {
        delete item;
    }
}

NTSTATUS Devices::Create(PDRIVER_OBJECT driverObject, std::u16string name, PDEVICE_OBJECT* device) {
    if (machine_.faults().Fails(FaultKind::kDevice)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HostLock lock(mutex_);
    if (std::any_of(devices_.begin(), devices_.end(),
                    [&](const auto& other) { return !name.empty() && other->name == name; })) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    devices_.push_back(std::make_unique<DEVICE_OBJECT>());
    devices_.back()->name = std::move(name);
    devices_.back()->driver = machine_.DriverOf(driverObject);
    driverObject->DeviceObject = devices_.back().get();
    *device = devices_.back().get();
    return STATUS_SUCCESS;
}

void Devices::Delete(PDEVICE_OBJECT device) {
    HostLock lock(mutex_);
    const auto it = std::find_if(devices_.begin(), devices_.end(),
                                 [&](const auto& other) { return other.get() == device; });
    if (it == devices_.end()) {
        machine_.verifier().Report(Rule::kPoolInvalidPointer,
                                   "IoDeleteDevice of what is no device of this machine");
        return;
    }
    if (LoadedDriver* const driver = device->driver;
        driver != nullptr && driver->object().DeviceObject == device) {
        driver->object().DeviceObject = nullptr;
    }
    devices_.erase(it);
}

PIO_WORKITEM Devices::AllocateWorkItem(PDEVICE_OBJECT device) {
    if (machine_.faults().Fails(FaultKind::kWorkItem)) {
        return nullptr;
    }
    HostLock lock(mutex_);
    auto* item = new IO_WORKITEM{.device = device, .driver = device->driver};
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

void Devices::RequireDevice(const IO_WORKITEM& item, const char* what) {
    if (std::none_of(devices_.begin(), devices_.end(),
                     [&](const auto& device) { return device.get() == item.device; })) {
        machine_.verifier().Report(Rule::kPoolUseAfterFree,
                                   fmt::format("{} against a device that was deleted", what));
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
        RequireDevice(*item, "IoQueueWorkItem");
        item->queued = true;
        routines_.insert(item->driver);
    }
    const unsigned processor = CurrentContext().processor;
    machine_.scheduler().Start(
        {.name = "work item", .kind = ContextKind::kWorker, .processor = processor},
        [this, item, routine, context] {
            PDEVICE_OBJECT device = nullptr;
            LoadedDriver* driver = nullptr;
            {
                // Dequeued: from here on the routine itself may free the item.
                HostLock lock(mutex_);
                RequireDevice(*item, "a work item routine");
                item->queued = false;
                device = item->device;
                driver = item->driver;
                routines_.erase(routines_.find(driver));
                if (item->freedEarly) {
                    items_.erase(item);
                    delete item;
                }
            }
            const CallbackScope scope("work item routine", driver, nullptr);
            routine(device, context);
        });
}

std::size_t Devices::Live() {
    HostLock lock(mutex_);
    return devices_.size();
}

std::size_t Devices::LiveWorkItems() {
    HostLock lock(mutex_);
    return items_.size();
}

std::size_t Devices::DevicesOf(const LoadedDriver* driver) {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(devices_.begin(), devices_.end(),
                      [&](const auto& device) { return device->driver == driver; }));
}

std::size_t Devices::WorkItemsOf(const LoadedDriver* driver) {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(items_.begin(), items_.end(),
                      [&](const PIO_WORKITEM item) { return item->driver == driver; }));
}

std::size_t Devices::RoutinesOf(const LoadedDriver* driver) {
    HostLock lock(mutex_);
    return routines_.count(driver);
}

}  // namespace netsieve::host

using namespace netsieve::host;

extern "C" {

NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject,
                              ULONG,
                              PUNICODE_STRING DeviceName,
                              DEVICE_TYPE,
                              ULONG,
                              BOOLEAN,
                              PDEVICE_OBJECT* DeviceObject) {
    Machine& machine = Machine::Current();
    machine.verifier().DemandPassive("IoCreateDevice");
    machine.EnterCall("IoCreateDevice");
    std::u16string name;
    if (DeviceName != nullptr) {
        name.assign(DeviceName->Buffer, DeviceName->Length / sizeof(WCHAR));
    }
    return machine.devices().Create(DriverObject, std::move(name), DeviceObject);
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
