#include "hook/protocol_table.h"

#include "hook/source_handle.h"
#include "platform/atomics.h"
#include "platform/runtime.h"

namespace {

// Looks through the first `count` entries, which never change.
PROTOCOL_ENTRY* FindProtocol(FILTER_MODULE* module, const void* protocol, ULONG count) {
    for (ULONG i = 0; i < count; ++i) {
        if (module->ProtocolHandles[i] == protocol) {
            return &module->ProtocolNames[i];
        }
    }
    return nullptr;
}

// Makes an 8-bit copy of the name: no code page, the low byte of each unit.
NTSTATUS UnicodeToAnsiAlloc(PROTOCOL_ENTRY* entry, PCUNICODE_STRING name) {
    auto length = static_cast<USHORT>(name->Length / sizeof(WCHAR));
    // As a 16-bit number: the size of a name that fills its buffer's 65535 bytes wraps to 0.
    auto size = static_cast<USHORT>(name->MaximumLength + 1);
    if (length >= size) {
        return STATUS_NAME_TOO_LONG;
    }
    PVOID memory = nullptr;
    if (NdisAllocateMemoryWithTag(&memory, size, PROTOCOL_NAME_TAG) != NDIS_STATUS_SUCCESS) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(memory, size);
    auto* characters = static_cast<PCHAR>(memory);
    for (USHORT i = 0; i < length; ++i) {
        characters[i] = static_cast<CHAR>(name->Buffer[i] & 0xFF);
    }
    entry->Length = length;
    entry->MaximumLength = size;
    entry->Buffer = characters;
    return STATUS_SUCCESS;
}

// Another processor may have put the protocol in since the caller looked.
__attribute__((noinline)) PROTOCOL_ENTRY* FASTABI AddProtocol(FILTER_MODULE* module,
                                                              PVOID protocol) {
    if (!IsProtocolObject(protocol)) {
        return nullptr;
    }
    SpinLockGuard guard(&module->ProtocolLock);
    ULONG count = ReadAcquire(&module->ProtocolCount);
    if (PROTOCOL_ENTRY* entry = FindProtocol(module, protocol, count)) {
        return entry;
    }
    if (count == MAX_MODULE_PROTOCOLS) {
        return nullptr;
    }
    PROTOCOL_ENTRY* entry = &module->ProtocolNames[count];
    if (UnicodeToAnsiAlloc(entry, NameOfProtocol(protocol)) != STATUS_SUCCESS) {
        return nullptr;
    }
    module->ProtocolHandles[count] = protocol;
    // The raised count is what shows the entry to those who look without the lock.
    WriteRelease(&module->ProtocolCount, count + 1);
    return entry;
}

}  // namespace

void InitializeProtocolTable(FILTER_MODULE* module) {
    InitializeDriverSpinLock(&module->ProtocolLock);
}

PROTOCOL_ENTRY* FASTABI LookupProtocolEntry(FILTER_MODULE* module, NDIS_HANDLE sourceHandle) {
    if (module == nullptr || sourceHandle == nullptr) {
        return nullptr;
    }
    PVOID protocol = ProtocolOfOpen(sourceHandle);
    if (protocol == nullptr) {
        return nullptr;
    }
    ULONG count = ReadAcquire(&module->ProtocolCount);
    PROTOCOL_ENTRY* entry = FindProtocol(module, protocol, count);
    if (entry != nullptr || count == MAX_MODULE_PROTOCOLS) {
        return entry;
    }
    return AddProtocol(module, protocol);
}

void FreeProtocolTable(FILTER_MODULE* module) {
    ULONG count = ReadAcquire(&module->ProtocolCount);
    for (ULONG i = 0; i < count; ++i) {
        NdisFreeMemory(module->ProtocolNames[i].Buffer, 0, 0);
    }
}
