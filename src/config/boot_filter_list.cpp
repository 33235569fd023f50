#include "config/boot_filter_list.h"

#include "config/registry_access.h"
#include "platform/runtime.h"

namespace {

// Signalled while no operation is under way. The holder alone uses the two buffers, and between its
// reading and its writing of the stored list nobody else writes it. An event because registry calls
// cannot be made under a spin lock.
KEVENT g_ListFree;

// Two kilobytes: too much for a kernel stack on which a client's call may already have come far.
WCHAR g_StoredList[BOOT_LIST_BUFFER_CHARS];
WCHAR g_KeptList[BOOT_LIST_BUFFER_CHARS];

class BootFilterListGuard {
  public:
    BootFilterListGuard() {
        KeWaitForSingleObject(&g_ListFree, Executive, KernelMode, FALSE, nullptr);
    }
    ~BootFilterListGuard() { KeSetEvent(&g_ListFree, 0, FALSE); }

    BootFilterListGuard(const BootFilterListGuard&) = delete;
    BootFilterListGuard& operator=(const BootFilterListGuard&) = delete;
};

using LIST_CHANGE = NTSTATUS (*)(HANDLE key, PCWSTR name);

// The IRQL comes before the name is looked at: it may lie in pageable memory.
NTSTATUS ChangeBootFilterList(PCWSTR name, LIST_CHANGE change) {
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        return STATUS_INVALID_LEVEL;
    }
    if (*name == u'\0') {
        return STATUS_INVALID_PARAMETER;
    }
    BootFilterListGuard guard;
    HANDLE key = nullptr;
    NTSTATUS status = RegOpenKey(ROOT_LOCAL_MACHINE, BOOT_LIST_KEY, &key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = change(key, name);
    RegCloseKey(key);
    return status;
}

// Behind what was read the buffer holds zeros, also when nothing was.
NTSTATUS ReadStoredList(HANDLE key, PULONG type, PULONG size) {
    RtlZeroMemory(g_StoredList, sizeof(g_StoredList));
    *type = REG_MULTI_SZ;
    *size = BOOT_LIST_READ_LIMIT;
    return RegQueryValue(key, BOOT_LIST_VALUE, type, g_StoredList, size);
}

NTSTATUS WriteBootFlag(HANDLE key, ULONG flag) {
    return RegSetValue(key, BOOT_FLAG_VALUE, REG_DWORD, &flag, sizeof(flag));
}

// Characters in the strings before the first empty one, their NULs included.
SIZE_T ListLength(PCWSTR list) {
    SIZE_T length = 0;
    while (list[length] != u'\0') {
        length += WideStringLength(list + length) + 1;
    }
    return length;
}

NTSTATUS AddToStoredList(HANDLE key, PCWSTR name) {
    ULONG type = 0;
    ULONG size = 0;
    NTSTATUS status = ReadStoredList(key, &type, &size);
    if (!NT_SUCCESS(status) && status != STATUS_OBJECT_NAME_NOT_FOUND) {
        return status;
    }
    if (NT_SUCCESS(status) && IsNameInMultiSz(g_StoredList, size, name)) {
        return STATUS_SUCCESS;
    }

    SIZE_T stored = ListLength(g_StoredList);
    SIZE_T nameLength = WideStringLength(name);
    if (nameLength > BOOT_LIST_BUFFER_CHARS - 2 - stored) {
        return STATUS_NAME_TOO_LONG;
    }
    status = WriteBootFlag(key, BOOT_FLAG_LIST_PRESENT);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    memcpy(g_StoredList + stored, name, (nameLength + 1) * sizeof(WCHAR));
    g_StoredList[stored + nameLength + 1] = u'\0';
    return RegSetValue(key, BOOT_LIST_VALUE, type, g_StoredList,
                       static_cast<ULONG>((stored + nameLength + 2) * sizeof(WCHAR)));
}

NTSTATUS RemoveFromStoredList(HANDLE key, PCWSTR name) {
    ULONG type = 0;
    ULONG size = 0;
    NTSTATUS status = ReadStoredList(key, &type, &size);
    if (!NT_SUCCESS(status) || !IsNameInMultiSz(g_StoredList, size, name)) {
        return status;
    }

    ULONG keptSize = 0;
    SplitMultiSz(name, g_StoredList, g_KeptList, &keptSize);
    if (keptSize > sizeof(WCHAR)) {
        return RegSetValue(key, BOOT_LIST_VALUE, type, g_KeptList, keptSize);
    }
    // The list is what counts; a flag that could not be written does not keep it.
    WriteBootFlag(key, BOOT_FLAG_LIST_EMPTY);
    return RegDeleteValue(key, BOOT_LIST_VALUE);
}

}  // namespace

void InitializeBootFilterList() {
    KeInitializeEvent(&g_ListFree, SynchronizationEvent, TRUE);
}

NTSTATUS AddBootFilterName(PCWSTR name) {
    return ChangeBootFilterList(name, AddToStoredList);
}

NTSTATUS RemoveBootFilterName(PCWSTR name) {
    return ChangeBootFilterList(name, RemoveFromStoredList);
}

BOOLEAN IsNameInMultiSz(PCWSTR list, ULONG size, PCWSTR name) {
    if (size < sizeof(WCHAR)) {
        return FALSE;
    }
    // The last character closes the list: nothing starts there.
    SIZE_T end = size / sizeof(WCHAR) - 1;
    SIZE_T position = 0;
    while (position < end) {
        if (_wcsicmp(list + position, name) == 0) {
            return TRUE;
        }
        position += WideStringLength(list + position) + 1;
    }
    return FALSE;
}

BOOLEAN SplitMultiSz(PCWSTR name, PCWSTR list, PWSTR kept, PULONG keptSize) {
    if (name == nullptr || list == nullptr || kept == nullptr || keptSize == nullptr) {
        return FALSE;
    }
    SIZE_T keptLength = 0;
    while (*list != u'\0') {
        SIZE_T length = WideStringLength(list) + 1;
        if (wcsstr(list, name) == nullptr) {
            memcpy(kept + keptLength, list, length * sizeof(WCHAR));
            keptLength += length;
        }
        list += length;
    }
    kept[keptLength] = u'\0';
    *keptSize = static_cast<ULONG>((keptLength + 1) * sizeof(WCHAR));
    return TRUE;
}
