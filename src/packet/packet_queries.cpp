// The exports with which a handler asks about the frame it is shown. They take no lock and allocate
// nothing.
#include "hook/source_handle.h"
#include "packet/nirp.h"
#include "platform/runtime.h"

namespace {

// In the adapter object at the end of its chain.
constexpr SIZE_T ADAPTER_VALUE_56 = 56;
constexpr SIZE_T ADAPTER_VALUE_120 = 120;
constexpr SIZE_T ADAPTER_VALUE_124 = 124;
constexpr SIZE_T ADAPTER_VALUE_464 = 464;
constexpr SIZE_T ADAPTER_VALUE_476 = 476;
constexpr SIZE_T PROTOCOL_VALUE = 24;

// The adapter object that the frame crosses; its type is not looked at yet.
NTSTATUS FindAdapter(const NIRP* nirp, PVOID* adapter) {
    switch (nirp->Direction) {
        case NIRP_DIRECTION_RECEIVE:
            if (nirp->ReceiveSourceHandle == nullptr) {
                return STATUS_INVALID_PARAMETER;
            }
            *adapter = nirp->ReceiveSourceHandle;
            return STATUS_SUCCESS;
        case NIRP_DIRECTION_SEND:
            if (nirp->SendSourceHandle == nullptr) {
                return STATUS_INVALID_PARAMETER;
            }
            if (!IsOpenObject(nirp->SendSourceHandle)) {
                return STATUS_UNSUCCESSFUL;
            }
            *adapter = AdapterOfOpen(nirp->SendSourceHandle);
            return STATUS_SUCCESS;
        default:
            return STATUS_UNSUCCESSFUL;
    }
}

}  // namespace

extern "C" {

UCHAR* NTAPI ITarnHKGetBuffer(NIRP* nirp) {
    return nirp == nullptr ? nullptr : nirp->Buffer;
}

ULONG NTAPI ITarnHKGetBufferLength(NIRP* nirp) {
    return nirp == nullptr ? 0 : nirp->DataLength;
}

NTSTATUS NTAPI ITarnHKGetProtocolName(NIRP* nirp, PROTOCOL_ENTRY** entry) {
    if (nirp == nullptr || entry == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *entry = nirp->Direction == NIRP_DIRECTION_SEND ? nirp->Protocol : nullptr;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ITarnHKQueryProtocolName(PVOID, PVOID) {
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ITarnHKGetProtocolInfo(NIRP* nirp, HOOK_PROTOCOL_INFO* info) {
    if (nirp == nullptr || info == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (nirp->Direction != NIRP_DIRECTION_SEND) {
        return STATUS_UNSUCCESSFUL;
    }
    if (nirp->SendSourceHandle == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!IsOpenObject(nirp->SendSourceHandle)) {
        return STATUS_UNSUCCESSFUL;
    }
    PVOID protocol = ProtocolOfOpen(nirp->SendSourceHandle);
    if (!IsProtocolObject(protocol)) {
        return STATUS_UNSUCCESSFUL;
    }
    SIZE_T bytes = CurrentNdisLayout().ProtocolBytes;
    info->ProtocolHandle = protocol;
    info->ProtocolValue = ReadNdisField<ULONGLONG>(protocol, PROTOCOL_VALUE);
    info->ProtocolBytes[0] = ReadNdisField<UCHAR>(protocol, bytes);
    info->ProtocolBytes[1] = ReadNdisField<UCHAR>(protocol, bytes + 1);
    RtlCopyUnicodeString(&info->ProtocolName, NameOfProtocol(protocol));
    return STATUS_SUCCESS;
}

// Fills field by field: a client's record may end behind the address.
NTSTATUS NTAPI ITarnHKGetAdapterInfo(NIRP* nirp, HOOK_ADAPTER_INFO* info) {
    if (nirp == nullptr || info == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    PVOID adapter = nullptr;
    NTSTATUS status = FindAdapter(nirp, &adapter);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    if (!IsAdapterObject(adapter)) {
        return STATUS_UNSUCCESSFUL;
    }
    PVOID last = LastAdapterOf(adapter);
    info->Value56 = ReadNdisField<ULONGLONG>(last, ADAPTER_VALUE_56);
    info->Value120 = ReadNdisField<ULONG>(last, ADAPTER_VALUE_120);
    info->Value124 = ReadNdisField<ULONG>(last, ADAPTER_VALUE_124);
    info->Value464 = ReadNdisField<ULONG>(last, ADAPTER_VALUE_464);
    info->Value476 = ReadNdisField<ULONG>(last, ADAPTER_VALUE_476);

    SIZE_T macAddress = CurrentNdisLayout().MacAddress;
    if (macAddress == 0) {
        return STATUS_UNSUCCESSFUL;
    }
    const auto* address = static_cast<const UCHAR*>(AddressObjectOf(last)) + macAddress;
    __builtin_memcpy(info->MacAddress, address, sizeof(info->MacAddress));
    return STATUS_SUCCESS;
}

}  // extern "C"
