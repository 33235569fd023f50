#include "hook/source_handle.h"

namespace {

// In an open object, and in an adapter object the way to the next of its chain.
constexpr SIZE_T OPEN_ADAPTER = 16;
constexpr SIZE_T OPEN_PROTOCOL = 24;
constexpr SIZE_T ADAPTER_NEXT = 16;
constexpr SIZE_T ADAPTER_ADDRESS_OBJECT = 400;

struct VERSION_LAYOUT {
    UINT First;
    UINT Last;
    NDIS_OBJECT_LAYOUT Layout;
};

// The first row that fits a version counts. In the last two, for versions of which only the
// protocol side is known, the place of the address is not.
constexpr VERSION_LAYOUT LAYOUTS[] = {
    {0, 0x60001, {.ProtocolBytes = 48, .ProtocolName = 64, .MacAddress = 1376}},
    {0x60014, 0x60014, {.ProtocolBytes = 48, .ProtocolName = 64, .MacAddress = 344}},
    {0x6001E, 0x6001E, {.ProtocolBytes = 56, .ProtocolName = 72, .MacAddress = 336}},
    {0x60028, 0x60028, {.ProtocolBytes = 56, .ProtocolName = 72, .MacAddress = 336}},
    {0, 0x6001D, {.ProtocolBytes = 48, .ProtocolName = 64, .MacAddress = 0}},
    {0x6001E, 0xFFFFFFFF, {.ProtocolBytes = 56, .ProtocolName = 72, .MacAddress = 0}},
};

UCHAR TypeOf(PVOID object) {
    return ReadNdisField<UCHAR>(object, 0);
}

}  // namespace

NDIS_OBJECT_LAYOUT CurrentNdisLayout() {
    UINT version = NdisGetVersion();
    const VERSION_LAYOUT* row = LAYOUTS;
    while (version < row->First || version > row->Last) {
        ++row;
    }
    return row->Layout;
}

UCHAR FASTABI GetSourceHandleKind(NDIS_HANDLE sourceHandle) {
    if (sourceHandle == nullptr) {
        return 0;
    }
    UCHAR type = TypeOf(sourceHandle);
    bool known =
        type == SOURCE_KIND_FILTER || type == SOURCE_KIND_ADAPTER || type == SOURCE_KIND_OTHER;
    return known ? type : 0;
}

bool FASTABI IsOpenObject(NDIS_HANDLE sourceHandle) {
    UCHAR kind = GetSourceHandleKind(sourceHandle);
    return kind != SOURCE_KIND_FILTER && kind != SOURCE_KIND_ADAPTER;
}

PVOID FASTABI ProtocolOfOpen(NDIS_HANDLE open) {
    return ReadNdisField<PVOID>(open, OPEN_PROTOCOL);
}

PVOID FASTABI AdapterOfOpen(NDIS_HANDLE open) {
    return ReadNdisField<PVOID>(open, OPEN_ADAPTER);
}

bool IsProtocolObject(PVOID object) {
    return object != nullptr && TypeOf(object) == NDIS_OBJECT_PROTOCOL;
}

bool IsAdapterObject(PVOID object) {
    return object != nullptr && TypeOf(object) == SOURCE_KIND_ADAPTER;
}

PCUNICODE_STRING NameOfProtocol(PVOID protocol) {
    return reinterpret_cast<PCUNICODE_STRING>(static_cast<const UCHAR*>(protocol) +
                                              CurrentNdisLayout().ProtocolName);
}

PVOID LastAdapterOf(PVOID adapter) {
    PVOID at = adapter;
    PVOID next = ReadNdisField<PVOID>(at, ADAPTER_NEXT);
    while (next != nullptr && next != at) {
        at = next;
        next = ReadNdisField<PVOID>(at, ADAPTER_NEXT);
    }
    return at;
}

PVOID AddressObjectOf(PVOID lastAdapter) {
    return ReadNdisField<PVOID>(lastAdapter, ADAPTER_ADDRESS_OBJECT);
}
