// The ntoskrnl.exe operations and records that the driver uses, under their published names,
// signatures and 64-bit layouts. The kernel implements them for the image, the host for Linux.
#pragma once

#include "platform/types.h"

using KIRQL = UCHAR;
using PKIRQL = KIRQL*;
constexpr KIRQL PASSIVE_LEVEL = 0;
constexpr KIRQL APC_LEVEL = 1;
constexpr KIRQL DISPATCH_LEVEL = 2;

// One machine word. What the kernel keeps in it is its own affair.
using KSPIN_LOCK = ULONG_PTR;
using PKSPIN_LOCK = KSPIN_LOCK*;

enum EVENT_TYPE : std::int32_t { NotificationEvent = 0, SynchronizationEvent = 1 };
enum KWAIT_REASON : std::int32_t { Executive = 0 };
using KPROCESSOR_MODE = CHAR;
constexpr KPROCESSOR_MODE KernelMode = 0;
using KPRIORITY = LONG;

struct DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Signalling;
    UCHAR Size;
    UCHAR Reserved;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
};

struct KEVENT {
    DISPATCHER_HEADER Header;
};
using PKEVENT = KEVENT*;

struct KDPC {
    ULONG TargetInfoAsUlong;
    PVOID DpcListEntry;
    ULONG_PTR ProcessorHistory;
    PVOID DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    PVOID DpcData;
};

struct KTIMER {
    DISPATCHER_HEADER Header;
    ULONGLONG DueTime;
    LIST_ENTRY TimerListEntry;
    KDPC* Dpc;
    ULONG Processor;
    ULONG Period;
};

// Describes a buffer by its pages. StartVa + ByteOffset is the buffer's address in its own
// process; MappedSystemVa is valid only while a flag of MDL_HAS_SYSTEM_ADDRESS is set.
struct MDL {
    MDL* Next;
    CSHORT Size;
    CSHORT MdlFlags;
    PVOID Process;
    PVOID MappedSystemVa;
    PVOID StartVa;
    ULONG ByteCount;
    ULONG ByteOffset;
};
using PMDL = MDL*;
constexpr CSHORT MDL_MAPPED_TO_SYSTEM_VA = 0x0001;
constexpr CSHORT MDL_PAGES_LOCKED = 0x0002;
constexpr CSHORT MDL_SOURCE_IS_NONPAGED_POOL = 0x0004;
constexpr CSHORT MDL_HAS_SYSTEM_ADDRESS = MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL;

enum MEMORY_CACHING_TYPE : std::int32_t { MmNonCached = 0, MmCached = 1 };
constexpr ULONG NormalPagePriority = 16;
enum MM_SYSTEMSIZE : std::int32_t { MmSmallSystem = 0, MmMediumSystem = 1, MmLargeSystem = 2 };

struct IO_WORKITEM;  // opaque
using PIO_WORKITEM = IO_WORKITEM*;

struct DRIVER_OBJECT;
using PDRIVER_OBJECT = DRIVER_OBJECT*;

// The fields that a driver may use of its own devices; the others are the system's.
struct alignas(16) DEVICE_OBJECT {
    CSHORT Type;
    USHORT Size;
    LONG ReferenceCount;
    PDRIVER_OBJECT DriverObject;
    DEVICE_OBJECT* NextDevice;
    DEVICE_OBJECT* AttachedDevice;
    PVOID CurrentIrp;
    PVOID Timer;
    ULONG Flags;
    ULONG Characteristics;
    PVOID Vpb;
    PVOID DeviceExtension;
    ULONG DeviceType;
    CHAR StackSize;
    UCHAR SystemFields1[75];
    ULONG AlignmentRequirement;
    UCHAR SystemFields2[180];
};
using PDEVICE_OBJECT = DEVICE_OBJECT*;
static_assert(sizeof(DEVICE_OBJECT) == 336);  // some headers leave its alignment out
constexpr ULONG DO_DEVICE_INITIALIZING = 0x80;
using PDRIVER_INITIALIZE = NTSTATUS(NTAPI*)(PDRIVER_OBJECT DriverObject,
                                            PUNICODE_STRING RegistryPath);
using PDRIVER_UNLOAD = VOID(NTAPI*)(PDRIVER_OBJECT DriverObject);

struct DRIVER_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;
    ULONG Flags;
    PVOID DriverStart;
    ULONG DriverSize;
    PVOID DriverSection;
    PVOID DriverExtension;
    UNICODE_STRING DriverName;
    PUNICODE_STRING HardwareDatabase;
    PVOID FastIoDispatch;
    PDRIVER_INITIALIZE DriverInit;
    PVOID DriverStartIo;
    PDRIVER_UNLOAD DriverUnload;
    PVOID MajorFunction[28];
};

using DEVICE_TYPE = ULONG;
constexpr DEVICE_TYPE FILE_DEVICE_UNKNOWN = 0x22;
constexpr ULONG FILE_DEVICE_SECURE_OPEN = 0x100;

enum WORK_QUEUE_TYPE : std::int32_t { CriticalWorkQueue = 0, DelayedWorkQueue = 1 };
using PIO_WORKITEM_ROUTINE = VOID(NTAPI*)(PDEVICE_OBJECT DeviceObject, PVOID Context);

enum POOL_TYPE : std::int32_t { NonPagedPool = 0, PagedPool = 1 };

// Names an object, and says how it is opened.
struct OBJECT_ATTRIBUTES {
    ULONG Length;  // of this record
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
};
using POBJECT_ATTRIBUTES = OBJECT_ATTRIBUTES*;
constexpr ULONG OBJ_CASE_INSENSITIVE = 0x040;
constexpr ULONG OBJ_KERNEL_HANDLE = 0x200;

constexpr ACCESS_MASK KEY_QUERY_VALUE = 0x00001;
constexpr ACCESS_MASK KEY_SET_VALUE = 0x00002;
constexpr ACCESS_MASK KEY_ALL_ACCESS = 0xF003F;

constexpr ULONG REG_DWORD = 4;
constexpr ULONG REG_MULTI_SZ = 7;

enum KEY_VALUE_INFORMATION_CLASS : std::int32_t { KeyValueFullInformation = 1 };

// A registry value. DataOffset counts from the start of the record; the name is not terminated, and
// between it and the data there may be a gap.
struct KEY_VALUE_FULL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataOffset;
    ULONG DataLength;
    ULONG NameLength;
    WCHAR Name[1];
};
using PKEY_VALUE_FULL_INFORMATION = KEY_VALUE_FULL_INFORMATION*;

extern "C" {

// Makes `SpinLock` a free lock. Never on a lock that may be held. The kernel's import libraries do
// not carry it: on x64 it is published as an inline store of 0, which is what the image compiles.
#if defined(NETSIEVE_NATIVE)
VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
#else
inline VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock) {
    *SpinLock = 0;
}
#endif
// Raises to DISPATCH_LEVEL and acquires; returns the IRQL to hand to KeReleaseSpinLock.
// IRQL <= DISPATCH_LEVEL.
NTIMPORT KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
// Releases and lowers to `NewIrql`. By the owner, at DISPATCH_LEVEL.
NTIMPORT VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
// The same pair for a caller that is at DISPATCH_LEVEL already, and only for one.
NTIMPORT VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
NTIMPORT VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);
// Any IRQL.
NTIMPORT KIRQL NTAPI KeGetCurrentIrql(VOID);
// Returns when every DPC that was queued or running on any processor has ended, timer routines
// included. PASSIVE_LEVEL.
NTIMPORT VOID NTAPI KeFlushQueuedDpcs(VOID);
// Waits without giving up the processor, for 50 microseconds at most. Any IRQL. For hook filters.
NTIMPORT VOID NTAPI KeStallExecutionProcessor(ULONG MicroSeconds);

NTIMPORT VOID NTAPI KeInitializeEvent(PKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
// Signals; returns the previous state. IRQL <= DISPATCH_LEVEL when `Wait` is FALSE.
NTIMPORT LONG NTAPI KeSetEvent(PKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
// IRQL <= DISPATCH_LEVEL.
NTIMPORT VOID NTAPI KeClearEvent(PKEVENT Event);
// Waits until `Object` is signalled or `Timeout` (100 ns units; negative is relative; NULL is for
// ever) has passed: STATUS_SUCCESS or STATUS_TIMEOUT. Below DISPATCH_LEVEL unless the timeout is 0.
NTIMPORT NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object,
                                              KWAIT_REASON WaitReason,
                                              KPROCESSOR_MODE WaitMode,
                                              BOOLEAN Alertable,
                                              PLARGE_INTEGER Timeout);

// PASSIVE_LEVEL. The device belongs to the driver object until IoDeleteDevice, and with it
// DeviceExtensionSize zeroed bytes at its DeviceExtension. A work item that is queued keeps it.
NTIMPORT NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject,
                                       ULONG DeviceExtensionSize,
                                       PUNICODE_STRING DeviceName,
                                       DEVICE_TYPE DeviceType,
                                       ULONG DeviceCharacteristics,
                                       BOOLEAN Exclusive,
                                       PDEVICE_OBJECT* DeviceObject);
NTIMPORT VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject);

// NULL when there is no memory. IRQL <= DISPATCH_LEVEL, as the two below.
NTIMPORT PIO_WORKITEM NTAPI IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject);
// Runs `WorkerRoutine` once at PASSIVE_LEVEL in a system worker thread.
NTIMPORT VOID NTAPI IoQueueWorkItem(PIO_WORKITEM IoWorkItem,
                                    PIO_WORKITEM_ROUTINE WorkerRoutine,
                                    WORK_QUEUE_TYPE QueueType,
                                    PVOID Context);
// Never while the item is queued.
NTIMPORT VOID NTAPI IoFreeWorkItem(PIO_WORKITEM IoWorkItem);

// The system address of locked pages, or NULL when there is no mapping to be had and
// `BugCheckOnFailure` is FALSE. IRQL <= DISPATCH_LEVEL for KernelMode.
NTIMPORT PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList,
                                                  KPROCESSOR_MODE AccessMode,
                                                  MEMORY_CACHING_TYPE CacheType,
                                                  PVOID RequestedAddress,
                                                  ULONG BugCheckOnFailure,
                                                  ULONG Priority);
NTIMPORT MM_SYSTEMSIZE NTAPI MmQuerySystemSize(VOID);

// NULL when there is no memory. Paged pool below DISPATCH_LEVEL only, also for freeing it.
NTIMPORT PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
// A tag of 0 frees a block of any tag.
NTIMPORT VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);

// The registry calls run at PASSIVE_LEVEL, with no spin lock held.
//
// Opens an existing key. The handle belongs to the caller until ZwClose.
NTIMPORT NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle,
                                  ACCESS_MASK DesiredAccess,
                                  POBJECT_ATTRIBUTES ObjectAttributes);
NTIMPORT NTSTATUS NTAPI ZwClose(HANDLE Handle);
// Creates the value or replaces its type and data. Needs KEY_SET_VALUE, as deleting does.
NTIMPORT NTSTATUS NTAPI ZwSetValueKey(HANDLE KeyHandle,
                                      PUNICODE_STRING ValueName,
                                      ULONG TitleIndex,
                                      ULONG Type,
                                      PVOID Data,
                                      ULONG DataSize);
// Needs KEY_QUERY_VALUE. `ResultLength` receives the size of the whole record. A buffer that holds
// only a part of it gets that part and STATUS_BUFFER_OVERFLOW, one that does not even hold the
// fixed fields gets nothing and STATUS_BUFFER_TOO_SMALL.
NTIMPORT NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle,
                                        PUNICODE_STRING ValueName,
                                        KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                        PVOID KeyValueInformation,
                                        ULONG Length,
                                        PULONG ResultLength);
NTIMPORT NTSTATUS NTAPI ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName);

// Each argument may be NULL. TRUE on a checked build of the system. PASSIVE_LEVEL.
NTIMPORT BOOLEAN NTAPI PsGetVersion(PULONG MajorVersion,
                                    PULONG MinorVersion,
                                    PULONG BuildNumber,
                                    PUNICODE_STRING CSDVersion);

// Points `DestinationString` at `SourceString`, which must outlive it.
NTIMPORT VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);

// Copies as much of `SourceString` as fits DestinationString's MaximumLength, and sets its Length.
// A NULL source makes it empty. IRQL <= DISPATCH_LEVEL when both buffers are resident.
NTIMPORT VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString,
                                         PCUNICODE_STRING SourceString);

// To the kernel debugger; any IRQL for formats without wide strings.
NTIMPORT ULONG NTAPI DbgPrint(PCSTR Format, ...);

}  // extern "C"

#define LAYOUT_SIZE(record, bytes) static_assert(sizeof(record) == (bytes));
#define LAYOUT_FIELD(record, field, offset) static_assert(offsetof(record, field) == (offset));
#include "platform/kernel_layout.inc"
#undef LAYOUT_SIZE
#undef LAYOUT_FIELD
