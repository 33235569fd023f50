// What the driver reads out of NDIS's own objects, which it reaches through the SourceHandle of an
// NBL. No published interface describes them: the layouts here are known for the NDIS versions in
// the table of the source file and for no other.
//
// A sent NBL's handle is an open object, which leads to the protocol and to the adapter; a
// received NBL's handle is the adapter object itself. Everything here may be called at any IRQL
// while the NBL that the handle came with is held.
#pragma once

#include "platform/ndis.h"

// The type of an object is its first byte.
constexpr UCHAR NDIS_OBJECT_PROTOCOL = 3;
constexpr UCHAR SOURCE_KIND_FILTER = 5;
constexpr UCHAR SOURCE_KIND_ADAPTER = 17;
constexpr UCHAR SOURCE_KIND_OTHER = 18;

// The offsets that differ between versions.
struct NDIS_OBJECT_LAYOUT {
    USHORT ProtocolBytes;  // in the protocol object
    USHORT ProtocolName;   // in the protocol object: a UNICODE_STRING
    USHORT MacAddress;     // in the object that holds the address; 0 when it is not known
};

// The layout of the running NDIS version.
NDIS_OBJECT_LAYOUT CurrentNdisLayout();

// SOURCE_KIND_FILTER, SOURCE_KIND_ADAPTER or SOURCE_KIND_OTHER when the handle is an object of that
// type, else 0. An NBL whose source is a filter or an adapter was sent by no protocol.
UCHAR FASTABI GetSourceHandleKind(NDIS_HANDLE sourceHandle);

// Whether the NBL that the handle came with was sent through an open object. The objects of
// filters and adapters have other fields where an open object has its pointers.
bool FASTABI IsOpenObject(NDIS_HANDLE sourceHandle);

// The object that an open object leads to, or NULL.
PVOID FASTABI ProtocolOfOpen(NDIS_HANDLE open);
PVOID FASTABI AdapterOfOpen(NDIS_HANDLE open);

bool IsProtocolObject(PVOID object);
bool IsAdapterObject(PVOID object);

// The name of a protocol object. The characters are NDIS's.
PCUNICODE_STRING NameOfProtocol(PVOID protocol);

// The object at the end of an adapter's chain, which holds the adapter's values.
PVOID LastAdapterOf(PVOID adapter);

// The object that holds the address of the adapter at the end of a chain.
PVOID AddressObjectOf(PVOID lastAdapter);

// The field at `offset` of an object, whatever its alignment.
template <typename Field>
inline Field ReadNdisField(PVOID object, SIZE_T offset) {
    Field field;
    __builtin_memcpy(&field, static_cast<const UCHAR*>(object) + offset, sizeof(field));
    return field;
}
