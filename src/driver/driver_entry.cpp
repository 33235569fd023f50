#include "driver/driver_entry.h"

#include "config/boot_filter_list.h"
#include "driver/data_path.h"
#include "driver/event_handlers.h"
#include "driver/module_lifecycle.h"
#include "hook/hook_notify.h"
#include "hook/hook_registry.h"
#include "module/driver_globals.h"
#include "platform/list.h"
#include "platform/runtime.h"

namespace {

void DescribeDriver(PNDIS_FILTER_DRIVER_CHARACTERISTICS characteristics) {
    RtlZeroMemory(characteristics, sizeof(*characteristics));
    characteristics->Header.Type = NDIS_OBJECT_TYPE_FILTER_DRIVER_CHARACTERISTICS;
    characteristics->Header.Revision = 1;
    characteristics->Header.Size = sizeof(*characteristics);
    characteristics->MajorNdisVersion = 6;
    characteristics->MinorNdisVersion = 0;
    characteristics->MajorDriverVersion = 1;
    characteristics->MinorDriverVersion = 0;
    RtlInitUnicodeString(&characteristics->FriendlyName, u"Veldan Light Weight Filter");
    RtlInitUnicodeString(&characteristics->UniqueName, u"{7C1E5B39-2D84-4a6f-B0E2-9F31C6A8D547}");
    RtlInitUnicodeString(&characteristics->ServiceName, u"NETSIEVE");

    characteristics->AttachHandler = NSVFilterAttach;
    characteristics->DetachHandler = NSVFilterDetach;
    characteristics->RestartHandler = NSVFilterRestart;
    characteristics->PauseHandler = NSVFilterPause;
    characteristics->SendNetBufferListsHandler = NSVFilterSendNetBufferLists;
    characteristics->SendNetBufferListsCompleteHandler = NSVFilterSendNetBufferListsComplete;
    characteristics->CancelSendNetBufferListsHandler = NSVFilterCancelSendNetBufferLists;
    characteristics->ReceiveNetBufferListsHandler = NSVFilterReceiveNetBufferLists;
    characteristics->ReturnNetBufferListsHandler = NSVFilterReturnNetBufferLists;
    characteristics->DevicePnPEventNotifyHandler = NSVFilterDevicePnPEventNotify;
    characteristics->NetPnPEventHandler = NSVFilterNetPnPEvent;
    characteristics->StatusHandler = NSVFilterStatus;
}

void InitializeGlobals(PDRIVER_OBJECT driverObject) {
    RtlZeroMemory(&g_DriverGlobals, sizeof(g_DriverGlobals));
    g_DriverGlobals.DriverObject = driverObject;
    InitializeDriverSpinLock(&g_DriverGlobals.ModuleListLock);
    InitializeListHead(&g_DriverGlobals.ModuleList);
    InitializeListHead(&g_DriverGlobals.DetachingList);
    InitializeDrainCount(&g_DriverGlobals.WorkItems);
    InitializeHookRegistry();
    InitializeBootFilterList();
}

// Modules may be attached and running by now, so the pointer is published under the lock.
NTSTATUS CreateDeviceObject() {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"\\Device\\NETSIEVE");
    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status = IoCreateDevice(g_DriverGlobals.DriverObject, 0, &name, FILE_DEVICE_UNKNOWN,
                                     FILE_DEVICE_SECURE_OPEN, FALSE, &device);
    if (status == STATUS_SUCCESS) {
        SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
        g_DriverGlobals.DeviceObject = device;
    }
    return status;
}

// The pointer goes first: whoever finds it under the lock may allocate a work item against it, and
// nothing but the wait keeps the device until that is queued and done.
void DeleteDeviceObject() {
    PDEVICE_OBJECT device = nullptr;
    {
        SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
        device = g_DriverGlobals.DeviceObject;
        g_DriverGlobals.DeviceObject = nullptr;
    }
    if (device != nullptr) {
        WaitForDrain(&g_DriverGlobals.WorkItems);
        IoDeleteDevice(device);
    }
}

}  // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING) {
    NDIS_FILTER_DRIVER_CHARACTERISTICS characteristics;
    DescribeDriver(&characteristics);
    InitializeGlobals(DriverObject);
    DriverObject->DriverUnload = FilterDriverUnload;

    NTSTATUS status = NdisFRegisterFilterDriver(DriverObject, &g_DriverGlobals, &characteristics,
                                                &g_DriverGlobals.FilterDriverHandle);
    if (status != NDIS_STATUS_SUCCESS) {
        // NDIS promises nothing about the handle of a registration that failed.
        g_DriverGlobals.FilterDriverHandle = nullptr;
        FilterDriverUnload(DriverObject);
        return status;
    }

    status = CreateDeviceObject();
    if (status != STATUS_SUCCESS) {
        FilterDriverUnload(DriverObject);
    }
    return status;
}

VOID NTAPI FilterDriverUnload(PDRIVER_OBJECT) {
    NotifyHooksUnload();
    LockedListFlush(&g_DriverGlobals.HookList, nullptr, nullptr);
    DeleteDeviceObject();
    if (g_DriverGlobals.FilterDriverHandle != nullptr) {
        NdisFDeregisterFilterDriver(g_DriverGlobals.FilterDriverHandle);
        g_DriverGlobals.FilterDriverHandle = nullptr;
    }
    // Last: a handler that outlived its hook's deregistration ends at the latest with the module
    // that it was called for.
    WaitForLeavingHooks();
}
