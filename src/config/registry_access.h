// The registry, as the driver uses it: keys named by a predefined root and a path, values by name.
//
// Every Reg routine tests its arguments first, then the IRQL: STATUS_INVALID_PARAMETER for what is
// missing, STATUS_INVALID_LEVEL above PASSIVE_LEVEL. Otherwise the status is the kernel's, unless
// said otherwise.
#pragma once

#include "platform/kernel.h"

// The predefined roots that a key can be named by.
constexpr ULONG ROOT_CLASSES_ROOT = 0x80000000;
constexpr ULONG ROOT_LOCAL_MACHINE = 0x80000002;
constexpr ULONG ROOT_USERS = 0x80000003;
constexpr ULONG ROOT_CURRENT_CONFIG = 0x80000005;

constexpr ULONG REGISTRY_TAG = 0x206B6444;  // "Ddk "

// The object path of a key, to be freed with ExFreePoolWithTag, or NULL when `root` is none of the
// above or there is no memory. Below DISPATCH_LEVEL.
PWSTR BuildRegistryPath(ULONG root, PCWSTR subkey);

// TRUE on a system of major version 4, which knows no kernel handles. PASSIVE_LEVEL.
BOOLEAN IsNt4();

// Opens an existing key for all access. `subkey` has no leading backslash. *key becomes the handle,
// for the caller to close, or NULL when the kernel refuses. A root that is none, and a path there
// is no memory for, give STATUS_INVALID_PARAMETER and leave *key alone.
NTSTATUS RegOpenKey(ULONG root, PCWSTR subkey, PHANDLE key);

NTSTATUS RegCloseKey(HANDLE key);

// Writes `size` bytes, at least one.
NTSTATUS RegSetValue(HANDLE key, PCWSTR valueName, ULONG type, const void* data, ULONG size);

// Reads a value of at most *size bytes; *size becomes its size. A longer one leaves `data` and
// *size alone and gives STATUS_BUFFER_TOO_SMALL or, when it is longer by more than a few bytes,
// STATUS_BUFFER_OVERFLOW; only with the former is *type stored. STATUS_NO_MEMORY when there is no
// buffer to be had.
NTSTATUS RegQueryValue(HANDLE key, PCWSTR valueName, PULONG type, PVOID data, PULONG size);

NTSTATUS RegDeleteValue(HANDLE key, PCWSTR valueName);
