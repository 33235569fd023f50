#include "config/registry_access.h"

#include "module/driver_globals.h"
#include "platform/atomics.h"
#include "platform/runtime.h"

namespace {

struct REGISTRY_ROOT {
    ULONG Code;
    PCWSTR Prefix;
};

constexpr REGISTRY_ROOT REGISTRY_ROOTS[] = {
    {ROOT_CLASSES_ROOT, u"\\Registry\\Machine\\SOFTWARE\\classes\\"},
    {ROOT_LOCAL_MACHINE, u"\\Registry\\Machine\\"},
    {ROOT_USERS, u"\\Registry\\User\\"},
    {ROOT_CURRENT_CONFIG,
     u"\\Registry\\Machine\\SYSTEM\\CurrentControlSet\\Hardware Profiles\\Current\\"},
};

// Room for the fixed fields of the kernel's answer and for the gap it may leave before the data.
constexpr SIZE_T QUERY_OVERHEAD = 26;

PCWSTR RootPrefix(ULONG root) {
    for (const REGISTRY_ROOT& candidate : REGISTRY_ROOTS) {
        if (candidate.Code == root) {
            return candidate.Prefix;
        }
    }
    return nullptr;
}

void DescribeKey(POBJECT_ATTRIBUTES attributes, PUNICODE_STRING path) {
    RtlZeroMemory(attributes, sizeof(*attributes));
    attributes->Length = sizeof(*attributes);
    attributes->ObjectName = path;
    attributes->Attributes =
        IsNt4() ? OBJ_CASE_INSENSITIVE : OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE;
}

// Hands the value over if it fits. The type is told either way.
NTSTATUS CopyValue(const KEY_VALUE_FULL_INFORMATION* value, PULONG type, PVOID data, PULONG size) {
    *type = value->Type;
    if (value->DataLength > *size) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    memcpy(data, reinterpret_cast<const UCHAR*>(value) + value->DataOffset, value->DataLength);
    *size = value->DataLength;
    return STATUS_SUCCESS;
}

}  // namespace

PWSTR BuildRegistryPath(ULONG root, PCWSTR subkey) {
    PCWSTR prefix = RootPrefix(root);
    if (prefix == nullptr) {
        return nullptr;
    }
    SIZE_T prefixSize = WideStringLength(prefix) * sizeof(WCHAR);
    SIZE_T subkeySize = WideStringLength(subkey) * sizeof(WCHAR);
    SIZE_T size = prefixSize + subkeySize + sizeof(WCHAR);
    auto* path = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, size, REGISTRY_TAG));
    if (path == nullptr) {
        return nullptr;
    }
    RtlZeroMemory(path, size);
    memcpy(path, prefix, prefixSize);
    memcpy(path + prefixSize / sizeof(WCHAR), subkey, subkeySize);
    return path;
}

BOOLEAN IsNt4() {
    ULONG version = ReadAcquire(&g_DriverGlobals.OsMajorVersion);
    if (version == 0) {
        PsGetVersion(&version, nullptr, nullptr, nullptr);
        WriteRelease(&g_DriverGlobals.OsMajorVersion, version);
    }
    return version == 4;
}

NTSTATUS RegOpenKey(ULONG root, PCWSTR subkey, PHANDLE key) {
    if (root == 0 || subkey == nullptr || key == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        return STATUS_INVALID_LEVEL;
    }
    PWSTR path = BuildRegistryPath(root, subkey);
    if (path == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, path);
    OBJECT_ATTRIBUTES attributes;
    DescribeKey(&attributes, &name);

    HANDLE opened = nullptr;
    NTSTATUS status = ZwOpenKey(&opened, KEY_ALL_ACCESS, &attributes);
    ExFreePoolWithTag(path, 0);
    *key = NT_SUCCESS(status) ? opened : nullptr;
    return status;
}

NTSTATUS RegCloseKey(HANDLE key) {
    if (key == nullptr || key == reinterpret_cast<HANDLE>(-1)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        return STATUS_INVALID_LEVEL;
    }
    return ZwClose(key);
}

NTSTATUS RegSetValue(HANDLE key, PCWSTR valueName, ULONG type, const void* data, ULONG size) {
    if (valueName == nullptr || key == nullptr || data == nullptr || size == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        return STATUS_INVALID_LEVEL;
    }
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, valueName);
    return ZwSetValueKey(key, &name, 0, type, const_cast<PVOID>(data), size);
}

NTSTATUS RegQueryValue(HANDLE key, PCWSTR valueName, PULONG type, PVOID data, PULONG size) {
    if (valueName == nullptr || key == nullptr || type == nullptr || data == nullptr ||
        size == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        return STATUS_INVALID_LEVEL;
    }
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, valueName);
    SIZE_T bufferSize = SIZE_T{name.MaximumLength} + *size + QUERY_OVERHEAD;
    PVOID buffer = ExAllocatePoolWithTag(PagedPool, bufferSize, REGISTRY_TAG);
    if (buffer == nullptr) {
        return STATUS_NO_MEMORY;
    }
    RtlZeroMemory(buffer, bufferSize);

    ULONG needed = 0;
    NTSTATUS status = ZwQueryValueKey(key, &name, KeyValueFullInformation, buffer,
                                      static_cast<ULONG>(bufferSize), &needed);
    if (NT_SUCCESS(status)) {
        status = CopyValue(static_cast<PKEY_VALUE_FULL_INFORMATION>(buffer), type, data, size);
    }
    ExFreePoolWithTag(buffer, 0);
    return status;
}

NTSTATUS RegDeleteValue(HANDLE key, PCWSTR valueName) {
    if (valueName == nullptr || key == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        return STATUS_INVALID_LEVEL;
    }
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, valueName);
    return ZwDeleteValueKey(key, &name);
}
