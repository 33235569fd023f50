#include "host/image/platform_imports.h"

#include <cstring>

#include "platform/ndis.h"

extern "C" int NTAPI NetsieveRuntime_sprintf(char* buffer, const char* format, ...);
extern "C" PWSTR NTAPI NetsieveRuntime_wcsstr(PCWSTR text, PCWSTR part);
extern "C" int NTAPI NetsieveRuntime__wcsicmp(PCWSTR left, PCWSTR right);
extern "C" VOID NTAPI NetsieveRuntime_qsort(void* elements,
                                            SIZE_T count,
                                            SIZE_T size,
                                            int(NTAPI* compare)(const void*, const void*));

namespace netsieve::host {

namespace {

// The compiler's own calls, in the platform's calling convention.
void* NTAPI PlatformMemcpy(void* destination, const void* source, SIZE_T size) {
    return std::memcpy(destination, source, size);
}
void* NTAPI PlatformMemmove(void* destination, const void* source, SIZE_T size) {
    return std::memmove(destination, source, size);
}
void* NTAPI PlatformMemset(void* destination, int value, SIZE_T size) {
    return std::memset(destination, value, size);
}
int NTAPI PlatformMemcmp(const void* left, const void* right, SIZE_T size) {
    return std::memcmp(left, right, size);
}

template <typename Function>
void* AddressOf(Function* function) {
    return reinterpret_cast<void*>(function);
}

ImportTable MakeTable() {
    ImportTable table;
    const auto kernel = [&](const char* name, void* address) {
        table.Add("ntoskrnl.exe", name, address);
    };
    const auto ndis = [&](const char* name, void* address) {
        table.Add("NDIS.SYS", name, address);
    };
#define KERNEL(name) kernel(#name, AddressOf(&(name)))
#define NDIS(name) ndis(#name, AddressOf(&(name)))
    kernel("memcpy", AddressOf(&PlatformMemcpy));
    kernel("memmove", AddressOf(&PlatformMemmove));
    kernel("memset", AddressOf(&PlatformMemset));
    kernel("memcmp", AddressOf(&PlatformMemcmp));
    kernel("sprintf", AddressOf(&NetsieveRuntime_sprintf));
    kernel("qsort", AddressOf(&NetsieveRuntime_qsort));
    kernel("wcsstr", AddressOf(&NetsieveRuntime_wcsstr));
    kernel("_wcsicmp", AddressOf(&NetsieveRuntime__wcsicmp));
    KERNEL(DbgPrint);
    KERNEL(ExAllocatePoolWithTag);
    KERNEL(ExFreePoolWithTag);
    KERNEL(IoAllocateWorkItem);
    KERNEL(IoCreateDevice);
    KERNEL(IoDeleteDevice);
    KERNEL(IoFreeWorkItem);
    KERNEL(IoQueueWorkItem);
    KERNEL(KeAcquireSpinLockAtDpcLevel);
    KERNEL(KeAcquireSpinLockRaiseToDpc);
    KERNEL(KeClearEvent);
    KERNEL(KeFlushQueuedDpcs);
    KERNEL(KeGetCurrentIrql);
    KERNEL(KeInitializeEvent);
    KERNEL(KeReleaseSpinLock);
    KERNEL(KeReleaseSpinLockFromDpcLevel);
    KERNEL(KeSetEvent);
    table.Add("HAL.dll", "KeStallExecutionProcessor", AddressOf(&KeStallExecutionProcessor));
    KERNEL(KeWaitForSingleObject);
    KERNEL(MmMapLockedPagesSpecifyCache);
    KERNEL(MmQuerySystemSize);
    KERNEL(PsGetVersion);
    KERNEL(RtlCopyUnicodeString);
    KERNEL(RtlInitUnicodeString);
    KERNEL(ZwClose);
    KERNEL(ZwDeleteValueKey);
    KERNEL(ZwOpenKey);
    KERNEL(ZwQueryValueKey);
    KERNEL(ZwSetValueKey);
    NDIS(NdisAllocateMdl);
    NDIS(NdisAllocateMemoryWithTag);
    NDIS(NdisAllocateNetBufferAndNetBufferList);
    NDIS(NdisAllocateNetBufferListContext);
    NDIS(NdisAllocateNetBufferListPool);
    NDIS(NdisCancelTimer);
    NDIS(NdisCopyReceiveNetBufferListInfo);
    NDIS(NdisCopySendNetBufferListInfo);
    NDIS(NdisFCancelSendNetBufferLists);
    NDIS(NdisFDeregisterFilterDriver);
    NDIS(NdisFDevicePnPEventNotify);
    NDIS(NdisFIndicateReceiveNetBufferLists);
    NDIS(NdisFIndicateStatus);
    NDIS(NdisFNetPnPEvent);
    NDIS(NdisFRegisterFilterDriver);
    NDIS(NdisFReturnNetBufferLists);
    NDIS(NdisFSendNetBufferLists);
    NDIS(NdisFSendNetBufferListsComplete);
    NDIS(NdisFSetAttributes);
    NDIS(NdisFreeMdl);
    NDIS(NdisFreeMemory);
    NDIS(NdisFreeNetBufferList);
    NDIS(NdisFreeNetBufferListContext);
    NDIS(NdisFreeNetBufferListPool);
    NDIS(NdisGetVersion);
    NDIS(NdisInitializeEvent);
    NDIS(NdisInitializeTimer);
    NDIS(NdisResetEvent);
    NDIS(NdisSetEvent);
    NDIS(NdisSetTimer);
    NDIS(NdisWaitEvent);
#undef KERNEL
#undef NDIS
    return table;
}

}  // namespace

const ImportTable& PlatformImports() {
    static const ImportTable table = MakeTable();
    return table;
}

}  // namespace netsieve::host
