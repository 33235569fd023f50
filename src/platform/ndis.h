// The NDIS.SYS operations and records that the driver uses, under their published names,
// signatures and 64-bit layouts (NDIS 6.0 lightweight filter interface).
//
// IRQL: registration, attributes and the PnP calls run at PASSIVE_LEVEL; everything else may be
// called up to DISPATCH_LEVEL.
#pragma once

#include "platform/kernel.h"

using NDIS_STATUS = NTSTATUS;
using NDIS_HANDLE = PVOID;
using PNDIS_HANDLE = NDIS_HANDLE*;
using NDIS_PORT_NUMBER = ULONG;
using NET_IFINDEX = ULONG;
using NDIS_OID = ULONG;

constexpr NDIS_STATUS NDIS_STATUS_SUCCESS = STATUS_SUCCESS;
constexpr NDIS_STATUS NDIS_STATUS_RESOURCES = STATUS_INSUFFICIENT_RESOURCES;
constexpr NDIS_STATUS NDIS_STATUS_FAILURE = STATUS_UNSUCCESSFUL;
constexpr NDIS_STATUS NDIS_STATUS_INVALID_PARAMETER = STATUS_INVALID_PARAMETER;
constexpr NDIS_STATUS NDIS_STATUS_NOT_SUPPORTED = STATUS_NOT_SUPPORTED;
constexpr NDIS_STATUS NDIS_STATUS_BAD_VERSION = MakeStatus(0xC0010004);
constexpr NDIS_STATUS NDIS_STATUS_BAD_CHARACTERISTICS = MakeStatus(0xC0010005);
constexpr NDIS_STATUS NDIS_STATUS_CLOSING = MakeStatus(0xC0230002);
constexpr NDIS_STATUS NDIS_STATUS_PAUSED = MakeStatus(0xC023002A);

enum NDIS_MEDIUM : std::int32_t { NdisMedium802_3 = 0, NdisMediumWan = 3, NdisMediumLoopback = 17 };

constexpr UCHAR NDIS_OBJECT_TYPE_DEFAULT = 0x80;
constexpr UCHAR NDIS_OBJECT_TYPE_FILTER_DRIVER_CHARACTERISTICS = 0x8B;
constexpr UCHAR NDIS_OBJECT_TYPE_FILTER_ATTRIBUTES = 0x8D;
constexpr UCHAR NDIS_OBJECT_TYPE_FILTER_ATTACH_PARAMETERS = 0x99;
constexpr UCHAR NDIS_OBJECT_TYPE_FILTER_PAUSE_PARAMETERS = 0x9A;
constexpr UCHAR NDIS_OBJECT_TYPE_FILTER_RESTART_PARAMETERS = 0x9B;

struct NDIS_OBJECT_HEADER {
    UCHAR Type;
    UCHAR Revision;
    USHORT Size;
};

// ---- Buffers and lists ------------------------------------------------------------------------

// One frame. Its bytes start CurrentMdlOffset bytes into CurrentMdl and go on for DataLength.
struct NET_BUFFER {
    NET_BUFFER* Next;
    PMDL CurrentMdl;
    ULONG CurrentMdlOffset;
    union {
        ULONG DataLength;
        SIZE_T stDataLength;
    };
    PMDL MdlChain;
    ULONG DataOffset;
    alignas(8) USHORT ChecksumBias;
    USHORT Reserved;
    NDIS_HANDLE NdisPoolHandle;
    alignas(16) PVOID NdisReserved[2];
    alignas(16) PVOID ProtocolReserved[6];
    alignas(16) PVOID MiniportReserved[4];
    ULONGLONG DataPhysicalAddress;
};
using PNET_BUFFER = NET_BUFFER*;

// The head of a block of context space. The current area starts Offset bytes into the space
// behind the head; each owner takes its area below the one before and gives it back in turn.
struct NET_BUFFER_LIST_CONTEXT {
    NET_BUFFER_LIST_CONTEXT* Next;
    USHORT Size;
    USHORT Offset;
    ULONG Reserved;
    // Size bytes of context space follow at offset 16.
};

struct NET_BUFFER_LIST {
    NET_BUFFER_LIST* Next;
    PNET_BUFFER FirstNetBuffer;
    NET_BUFFER_LIST_CONTEXT* Context;
    NET_BUFFER_LIST* ParentNetBufferList;
    NDIS_HANDLE NdisPoolHandle;
    alignas(16) PVOID NdisReserved[2];
    PVOID ProtocolReserved[4];
    PVOID MiniportReserved[2];
    PVOID Scratch;
    NDIS_HANDLE SourceHandle;
    ULONG NblFlags;
    LONG ChildRefCount;
    ULONG Flags;
    NDIS_STATUS Status;
    PVOID NetBufferListInfo[1];  // as many as the NDIS version has: see NET_BUFFER_LIST_INFO
};
using PNET_BUFFER_LIST = NET_BUFFER_LIST*;

// Which of an NBL's out-of-band values is meant. Published order and aliases (ndis/nblinfo.h).
enum NDIS_NET_BUFFER_LIST_INFO {
    TcpIpChecksumNetBufferListInfo,
    TcpOffloadBytesTransferred = TcpIpChecksumNetBufferListInfo,
    IPsecOffloadV1NetBufferListInfo,
    IPsecOffloadV2NetBufferListInfo = IPsecOffloadV1NetBufferListInfo,
    TcpLargeSendNetBufferListInfo,
    TcpReceiveNoPush = TcpLargeSendNetBufferListInfo,
    ClassificationHandleNetBufferListInfo,
    Ieee8021QNetBufferListInfo,
    NetBufferListCancelId,
    MediaSpecificInformation,
    NetBufferListFrameType,
    NetBufferListProtocolId = NetBufferListFrameType,
    NetBufferListHashValue,
    NetBufferListHashInfo,
    WfpNetBufferListInfo,
    IPsecOffloadV2TunnelNetBufferListInfo,
    IPsecOffloadV2HeaderNetBufferListInfo,
    NetBufferListCorrelationId,
    NetBufferListFilteringInfo,
};
#define NET_BUFFER_LIST_INFO(_NBL, _Id) ((_NBL)->NetBufferListInfo[(_Id)])

constexpr ULONG NDIS_TCP_LARGE_SEND_OFFLOAD_V1_TYPE = 0;
constexpr ULONG NDIS_TCP_LARGE_SEND_OFFLOAD_V2_TYPE = 1;

// The value of TcpLargeSendNetBufferListInfo: what the sender asks for, and what whoever completes
// the NBL answers. Type says which version it is, in both.
union NDIS_TCP_LARGE_SEND_OFFLOAD_NET_BUFFER_LIST_INFO {
    struct {
        ULONG Unused : 30;
        ULONG Type : 1;
        ULONG Reserved2 : 1;
    } Transmit;
    struct {
        ULONG MSS : 20;
        ULONG TcpHeaderOffset : 10;
        ULONG Type : 1;
        ULONG Reserved2 : 1;
    } LsoV1Transmit;
    struct {
        ULONG TcpPayload : 30;  // bytes that were sent
        ULONG Type : 1;
        ULONG Reserved2 : 1;
    } LsoV1TransmitComplete;
    struct {
        ULONG MSS : 20;
        ULONG TcpHeaderOffset : 10;
        ULONG Type : 1;
        ULONG IPVersion : 1;
    } LsoV2Transmit;
    struct {
        ULONG Reserved : 30;
        ULONG Type : 1;
        ULONG Reserved2 : 1;
    } LsoV2TransmitComplete;
    PVOID Value;
};
static_assert(sizeof(NDIS_TCP_LARGE_SEND_OFFLOAD_NET_BUFFER_LIST_INFO) == sizeof(PVOID));

struct NET_BUFFER_LIST_POOL_PARAMETERS {
    NDIS_OBJECT_HEADER Header;
    UCHAR ProtocolId;
    BOOLEAN fAllocateNetBuffer;
    USHORT ContextSize;
    ULONG PoolTag;
    ULONG DataSize;
};
using PNET_BUFFER_LIST_POOL_PARAMETERS = NET_BUFFER_LIST_POOL_PARAMETERS*;

// Bit 0 of every flags argument of the data path: the caller is at DISPATCH_LEVEL.
constexpr ULONG NDIS_SEND_FLAGS_DISPATCH_LEVEL = 0x1;
constexpr ULONG NDIS_SEND_COMPLETE_FLAGS_DISPATCH_LEVEL = 0x1;
constexpr ULONG NDIS_RECEIVE_FLAGS_DISPATCH_LEVEL = 0x1;
constexpr ULONG NDIS_RETURN_FLAGS_DISPATCH_LEVEL = 0x1;
// The adapter lends the lists only until the indication returns.
constexpr ULONG NDIS_RECEIVE_FLAGS_RESOURCES = 0x2;

// ---- Filter registration and module life cycle ------------------------------------------------

struct NDIS_FILTER_ATTACH_PARAMETERS {
    NDIS_OBJECT_HEADER Header;
    NET_IFINDEX IfIndex;
    ULONGLONG NetLuid;
    PUNICODE_STRING FilterModuleGuidName;
    NET_IFINDEX BaseMiniportIfIndex;
    PUNICODE_STRING BaseMiniportInstanceName;
    PUNICODE_STRING BaseMiniportName;
    ULONG MediaConnectState;
    ULONG MediaDuplexState;
    ULONGLONG XmitLinkSpeed;
    ULONGLONG RcvLinkSpeed;
    NDIS_MEDIUM MiniportMediaType;
    ULONG MiniportPhysicalMediaType;
    PVOID MiniportMediaSpecificAttributes;
    PVOID DefaultOffloadConfiguration;
    USHORT MacAddressLength;
    UCHAR CurrentMacAddress[32];
    ULONGLONG BaseMiniportNetLuid;
    NET_IFINDEX LowerIfIndex;
    ULONGLONG LowerIfNetLuid;
    ULONG Flags;
};
using PNDIS_FILTER_ATTACH_PARAMETERS = NDIS_FILTER_ATTACH_PARAMETERS*;

struct NDIS_FILTER_ATTRIBUTES {
    NDIS_OBJECT_HEADER Header;
    ULONG Flags;
};
using PNDIS_FILTER_ATTRIBUTES = NDIS_FILTER_ATTRIBUTES*;

struct NDIS_FILTER_PAUSE_PARAMETERS;  // not read by the driver
using PNDIS_FILTER_PAUSE_PARAMETERS = NDIS_FILTER_PAUSE_PARAMETERS*;

struct NDIS_RESTART_ATTRIBUTES {
    NDIS_RESTART_ATTRIBUTES* Next;
    NDIS_OID Oid;
    ULONG DataLength;
    alignas(16) UCHAR Data[1];
};
using PNDIS_RESTART_ATTRIBUTES = NDIS_RESTART_ATTRIBUTES*;

// The head of the published record; the driver touches nothing behind LookaheadSize.
struct NDIS_RESTART_GENERAL_ATTRIBUTES {
    NDIS_OBJECT_HEADER Header;
    ULONG MtuSize;
    ULONGLONG MaxXmitLinkSpeed;
    ULONGLONG MaxRcvLinkSpeed;
    ULONG LookaheadSize;
};
using PNDIS_RESTART_GENERAL_ATTRIBUTES = NDIS_RESTART_GENERAL_ATTRIBUTES*;

struct NDIS_FILTER_RESTART_PARAMETERS {
    NDIS_OBJECT_HEADER Header;
    NDIS_MEDIUM MiniportMediaType;
    ULONG MiniportPhysicalMediaType;
    PNDIS_RESTART_ATTRIBUTES RestartAttributes;
    NET_IFINDEX LowerIfIndex;
    ULONGLONG LowerIfNetLuid;
    ULONG Flags;
};
using PNDIS_FILTER_RESTART_PARAMETERS = NDIS_FILTER_RESTART_PARAMETERS*;

struct NET_DEVICE_PNP_EVENT;  // the three events pass through unread
struct NET_PNP_EVENT_NOTIFICATION;
struct NDIS_STATUS_INDICATION;
using PNET_DEVICE_PNP_EVENT = NET_DEVICE_PNP_EVENT*;
using PNET_PNP_EVENT_NOTIFICATION = NET_PNP_EVENT_NOTIFICATION*;
using PNDIS_STATUS_INDICATION = NDIS_STATUS_INDICATION*;

using FILTER_ATTACH_HANDLER = NDIS_STATUS(NTAPI*)(NDIS_HANDLE NdisFilterHandle,
                                                  NDIS_HANDLE FilterDriverContext,
                                                  PNDIS_FILTER_ATTACH_PARAMETERS AttachParameters);
using FILTER_DETACH_HANDLER = VOID(NTAPI*)(NDIS_HANDLE FilterModuleContext);
using FILTER_RESTART_HANDLER = NDIS_STATUS(NTAPI*)(NDIS_HANDLE FilterModuleContext,
                                                   PNDIS_FILTER_RESTART_PARAMETERS Parameters);
using FILTER_PAUSE_HANDLER = NDIS_STATUS(NTAPI*)(NDIS_HANDLE FilterModuleContext,
                                                 PNDIS_FILTER_PAUSE_PARAMETERS Parameters);
using FILTER_SEND_NET_BUFFER_LISTS_HANDLER = VOID(NTAPI*)(NDIS_HANDLE FilterModuleContext,
                                                          PNET_BUFFER_LIST NetBufferLists,
                                                          NDIS_PORT_NUMBER PortNumber,
                                                          ULONG SendFlags);
using FILTER_SEND_NET_BUFFER_LISTS_COMPLETE_HANDLER = VOID(NTAPI*)(NDIS_HANDLE FilterModuleContext,
                                                                   PNET_BUFFER_LIST NetBufferLists,
                                                                   ULONG SendCompleteFlags);
using FILTER_CANCEL_SEND_HANDLER = VOID(NTAPI*)(NDIS_HANDLE FilterModuleContext, PVOID CancelId);
using FILTER_RECEIVE_NET_BUFFER_LISTS_HANDLER = VOID(NTAPI*)(NDIS_HANDLE FilterModuleContext,
                                                             PNET_BUFFER_LIST NetBufferLists,
                                                             NDIS_PORT_NUMBER PortNumber,
                                                             ULONG NumberOfNetBufferLists,
                                                             ULONG ReceiveFlags);
using FILTER_RETURN_NET_BUFFER_LISTS_HANDLER = VOID(NTAPI*)(NDIS_HANDLE FilterModuleContext,
                                                            PNET_BUFFER_LIST NetBufferLists,
                                                            ULONG ReturnFlags);
using FILTER_DEVICE_PNP_EVENT_NOTIFY_HANDLER =
    VOID(NTAPI*)(NDIS_HANDLE FilterModuleContext, PNET_DEVICE_PNP_EVENT NetDevicePnPEvent);
using FILTER_NET_PNP_EVENT_HANDLER = NDIS_STATUS(NTAPI*)(NDIS_HANDLE FilterModuleContext,
                                                         PNET_PNP_EVENT_NOTIFICATION Event);
using FILTER_STATUS_HANDLER = VOID(NTAPI*)(NDIS_HANDLE FilterModuleContext,
                                           PNDIS_STATUS_INDICATION StatusIndication);

struct NDIS_FILTER_DRIVER_CHARACTERISTICS {
    NDIS_OBJECT_HEADER Header;
    UCHAR MajorNdisVersion;
    UCHAR MinorNdisVersion;
    UCHAR MajorDriverVersion;
    UCHAR MinorDriverVersion;
    ULONG Flags;
    UNICODE_STRING FriendlyName;
    UNICODE_STRING UniqueName;
    UNICODE_STRING ServiceName;
    PVOID SetOptionsHandler;
    PVOID SetFilterModuleOptionsHandler;
    FILTER_ATTACH_HANDLER AttachHandler;
    FILTER_DETACH_HANDLER DetachHandler;
    FILTER_RESTART_HANDLER RestartHandler;
    FILTER_PAUSE_HANDLER PauseHandler;
    FILTER_SEND_NET_BUFFER_LISTS_HANDLER SendNetBufferListsHandler;
    FILTER_SEND_NET_BUFFER_LISTS_COMPLETE_HANDLER SendNetBufferListsCompleteHandler;
    FILTER_CANCEL_SEND_HANDLER CancelSendNetBufferListsHandler;
    FILTER_RECEIVE_NET_BUFFER_LISTS_HANDLER ReceiveNetBufferListsHandler;
    FILTER_RETURN_NET_BUFFER_LISTS_HANDLER ReturnNetBufferListsHandler;
    PVOID OidRequestHandler;
    PVOID OidRequestCompleteHandler;
    PVOID CancelOidRequestHandler;
    FILTER_DEVICE_PNP_EVENT_NOTIFY_HANDLER DevicePnPEventNotifyHandler;
    FILTER_NET_PNP_EVENT_HANDLER NetPnPEventHandler;
    FILTER_STATUS_HANDLER StatusHandler;
};
using PNDIS_FILTER_DRIVER_CHARACTERISTICS = NDIS_FILTER_DRIVER_CHARACTERISTICS*;

// ---- Timers and events ------------------------------------------------------------------------

using PNDIS_TIMER_FUNCTION = VOID(NTAPI*)(PVOID SystemSpecific1,
                                          PVOID FunctionContext,
                                          PVOID SystemSpecific2,
                                          PVOID SystemSpecific3);
struct NDIS_TIMER {
    KTIMER Timer;
    KDPC Dpc;
};
using PNDIS_TIMER = NDIS_TIMER*;

struct NDIS_EVENT {
    KEVENT Event;
};
using PNDIS_EVENT = NDIS_EVENT*;

extern "C" {

// Attach may be called for every adapter before this returns; the handle is stored before that.
NTIMPORT NDIS_STATUS NTAPI NdisFRegisterFilterDriver(
    PDRIVER_OBJECT DriverObject,
    NDIS_HANDLE FilterDriverContext,
    PNDIS_FILTER_DRIVER_CHARACTERISTICS FilterCharacteristics,
    PNDIS_HANDLE NdisFilterDriverHandle);
// Pauses and detaches every module of the driver before it returns.
NTIMPORT VOID NTAPI NdisFDeregisterFilterDriver(NDIS_HANDLE NdisFilterDriverHandle);
// From the attach handler only. There is no inverse.
NTIMPORT NDIS_STATUS NTAPI NdisFSetAttributes(NDIS_HANDLE NdisFilterHandle,
                                              NDIS_HANDLE FilterModuleContext,
                                              PNDIS_FILTER_ATTRIBUTES FilterAttributes);

// Gives the chain away until it comes back through the send-complete handler.
NTIMPORT VOID NTAPI NdisFSendNetBufferLists(NDIS_HANDLE NdisFilterHandle,
                                            PNET_BUFFER_LIST NetBufferLists,
                                            NDIS_PORT_NUMBER PortNumber,
                                            ULONG SendFlags);
NTIMPORT VOID NTAPI NdisFSendNetBufferListsComplete(NDIS_HANDLE NdisFilterHandle,
                                                    PNET_BUFFER_LIST NetBufferLists,
                                                    ULONG SendCompleteFlags);
// Gives the chain away until its return, or, with NDIS_RECEIVE_FLAGS_RESOURCES, for the call.
NTIMPORT VOID NTAPI NdisFIndicateReceiveNetBufferLists(NDIS_HANDLE NdisFilterHandle,
                                                       PNET_BUFFER_LIST NetBufferLists,
                                                       NDIS_PORT_NUMBER PortNumber,
                                                       ULONG NumberOfNetBufferLists,
                                                       ULONG ReceiveFlags);
NTIMPORT VOID NTAPI NdisFReturnNetBufferLists(NDIS_HANDLE NdisFilterHandle,
                                              PNET_BUFFER_LIST NetBufferLists,
                                              ULONG ReturnFlags);
NTIMPORT VOID NTAPI NdisFCancelSendNetBufferLists(NDIS_HANDLE NdisFilterHandle, PVOID CancelId);
NTIMPORT VOID NTAPI NdisFDevicePnPEventNotify(NDIS_HANDLE NdisFilterHandle,
                                              PNET_DEVICE_PNP_EVENT NetDevicePnPEvent);
NTIMPORT NDIS_STATUS NTAPI NdisFNetPnPEvent(NDIS_HANDLE NdisFilterHandle,
                                            PNET_PNP_EVENT_NOTIFICATION NetPnPEventNotification);
NTIMPORT VOID NTAPI NdisFIndicateStatus(NDIS_HANDLE NdisFilterHandle,
                                        PNDIS_STATUS_INDICATION StatusIndication);

// Non-paged, not zeroed. `*VirtualAddress` is unspecified on failure.
NTIMPORT NDIS_STATUS NTAPI NdisAllocateMemoryWithTag(PVOID* VirtualAddress, UINT Length, ULONG Tag);
NTIMPORT VOID NTAPI NdisFreeMemory(PVOID VirtualAddress, UINT Length, UINT MemoryFlags);

// NULL on failure, as every allocation below that returns a pointer or a handle.
NTIMPORT NDIS_HANDLE NTAPI NdisAllocateNetBufferListPool(
    NDIS_HANDLE NdisHandle,
    PNET_BUFFER_LIST_POOL_PARAMETERS Parameters);
// Only when every list of the pool is back.
NTIMPORT VOID NTAPI NdisFreeNetBufferListPool(NDIS_HANDLE PoolHandle);
NTIMPORT PNET_BUFFER_LIST NTAPI NdisAllocateNetBufferAndNetBufferList(NDIS_HANDLE PoolHandle,
                                                                      USHORT ContextSize,
                                                                      USHORT ContextBackFill,
                                                                      PMDL MdlChain,
                                                                      ULONG DataOffset,
                                                                      SIZE_T DataLength);
NTIMPORT VOID NTAPI NdisFreeNetBufferList(PNET_BUFFER_LIST NetBufferList);
// `ContextSize` must be a multiple of MEMORY_ALLOCATION_ALIGNMENT (16).
NTIMPORT NDIS_STATUS NTAPI NdisAllocateNetBufferListContext(PNET_BUFFER_LIST NetBufferList,
                                                            USHORT ContextSize,
                                                            USHORT ContextBackFill,
                                                            ULONG PoolTag);
// Gives back the area on top, with the size it was allocated with.
NTIMPORT VOID NTAPI NdisFreeNetBufferListContext(PNET_BUFFER_LIST NetBufferList,
                                                 USHORT ContextSize);

// Each copies the out-of-band values that an NBL made for someone else's frame has to carry on.
// IRQL <= DISPATCH_LEVEL.
NTIMPORT VOID NTAPI NdisCopySendNetBufferListInfo(PNET_BUFFER_LIST DestNetBufferList,
                                                  PNET_BUFFER_LIST SrcNetBufferList);
NTIMPORT VOID NTAPI NdisCopyReceiveNetBufferListInfo(PNET_BUFFER_LIST DestNetBufferList,
                                                     PNET_BUFFER_LIST SrcNetBufferList);
NTIMPORT PMDL NTAPI NdisAllocateMdl(NDIS_HANDLE NdisHandle, PVOID VirtualAddress, UINT Length);
NTIMPORT VOID NTAPI NdisFreeMdl(PMDL Mdl);

// One-shot; the routine runs at DISPATCH_LEVEL. Cancelling does not wait for a running routine.
NTIMPORT VOID NTAPI NdisInitializeTimer(PNDIS_TIMER Timer,
                                        PNDIS_TIMER_FUNCTION TimerFunction,
                                        PVOID FunctionContext);
NTIMPORT VOID NTAPI NdisSetTimer(PNDIS_TIMER Timer, UINT MillisecondsToDelay);
NTIMPORT VOID NTAPI NdisCancelTimer(PNDIS_TIMER Timer, PBOOLEAN TimerCancelled);

NTIMPORT VOID NTAPI NdisInitializeEvent(PNDIS_EVENT Event);
NTIMPORT VOID NTAPI NdisSetEvent(PNDIS_EVENT Event);
NTIMPORT VOID NTAPI NdisResetEvent(PNDIS_EVENT Event);
// TRUE when the event was signalled within `MsToWait` (0: no limit). PASSIVE_LEVEL.
NTIMPORT BOOLEAN NTAPI NdisWaitEvent(PNDIS_EVENT Event, UINT MsToWait);

// The running version: major in the high 16 bits, minor in the low.
NTIMPORT UINT NTAPI NdisGetVersion(VOID);

}  // extern "C"

// Published offsets (64-bit).
static_assert(offsetof(NET_BUFFER, Next) == 0 && offsetof(NET_BUFFER, CurrentMdl) == 8 &&
              offsetof(NET_BUFFER, CurrentMdlOffset) == 16 &&
              offsetof(NET_BUFFER, DataLength) == 24 && offsetof(NET_BUFFER, MdlChain) == 32 &&
              offsetof(NET_BUFFER, DataOffset) == 40 && offsetof(NET_BUFFER, ChecksumBias) == 48 &&
              offsetof(NET_BUFFER, NdisPoolHandle) == 56 &&
              offsetof(NET_BUFFER, NdisReserved) == 64 &&
              offsetof(NET_BUFFER, ProtocolReserved) == 80 &&
              offsetof(NET_BUFFER, MiniportReserved) == 128 &&
              offsetof(NET_BUFFER, DataPhysicalAddress) == 160);
static_assert(offsetof(NET_BUFFER_LIST, FirstNetBuffer) == 8 &&
              offsetof(NET_BUFFER_LIST, Context) == 16 &&
              offsetof(NET_BUFFER_LIST, ParentNetBufferList) == 24 &&
              offsetof(NET_BUFFER_LIST, NdisPoolHandle) == 32 &&
              offsetof(NET_BUFFER_LIST, NdisReserved) == 48 &&
              offsetof(NET_BUFFER_LIST, ProtocolReserved) == 64 &&
              offsetof(NET_BUFFER_LIST, MiniportReserved) == 96 &&
              offsetof(NET_BUFFER_LIST, Scratch) == 112 &&
              offsetof(NET_BUFFER_LIST, SourceHandle) == 120 &&
              offsetof(NET_BUFFER_LIST, NblFlags) == 128 &&
              offsetof(NET_BUFFER_LIST, ChildRefCount) == 132 &&
              offsetof(NET_BUFFER_LIST, Flags) == 136 && offsetof(NET_BUFFER_LIST, Status) == 140 &&
              offsetof(NET_BUFFER_LIST, NetBufferListInfo) == 144);
static_assert(sizeof(NET_BUFFER_LIST_CONTEXT) == 16 &&
              offsetof(NET_BUFFER_LIST_CONTEXT, Size) == 8 &&
              offsetof(NET_BUFFER_LIST_CONTEXT, Offset) == 10);
static_assert(sizeof(NET_BUFFER_LIST_POOL_PARAMETERS) == 16 &&
              offsetof(NET_BUFFER_LIST_POOL_PARAMETERS, PoolTag) == 8);
static_assert(sizeof(NDIS_FILTER_DRIVER_CHARACTERISTICS) == 200 &&
              offsetof(NDIS_FILTER_DRIVER_CHARACTERISTICS, Flags) == 8 &&
              offsetof(NDIS_FILTER_DRIVER_CHARACTERISTICS, FriendlyName) == 16 &&
              offsetof(NDIS_FILTER_DRIVER_CHARACTERISTICS, ServiceName) == 48 &&
              offsetof(NDIS_FILTER_DRIVER_CHARACTERISTICS, SetOptionsHandler) == 64 &&
              offsetof(NDIS_FILTER_DRIVER_CHARACTERISTICS, StatusHandler) == 192);
static_assert(offsetof(NDIS_FILTER_ATTACH_PARAMETERS, FilterModuleGuidName) == 16 &&
              offsetof(NDIS_FILTER_ATTACH_PARAMETERS, BaseMiniportIfIndex) == 24 &&
              offsetof(NDIS_FILTER_ATTACH_PARAMETERS, BaseMiniportName) == 40 &&
              offsetof(NDIS_FILTER_ATTACH_PARAMETERS, XmitLinkSpeed) == 56 &&
              offsetof(NDIS_FILTER_ATTACH_PARAMETERS, MiniportMediaType) == 72 &&
              offsetof(NDIS_FILTER_ATTACH_PARAMETERS, MacAddressLength) == 96 &&
              offsetof(NDIS_FILTER_ATTACH_PARAMETERS, CurrentMacAddress) == 98 &&
              offsetof(NDIS_FILTER_ATTACH_PARAMETERS, BaseMiniportNetLuid) == 136 &&
              offsetof(NDIS_FILTER_ATTACH_PARAMETERS, LowerIfNetLuid) == 152 &&
              offsetof(NDIS_FILTER_ATTACH_PARAMETERS, Flags) == 160);
static_assert(sizeof(NDIS_FILTER_ATTRIBUTES) == 8);
static_assert(offsetof(NDIS_FILTER_RESTART_PARAMETERS, RestartAttributes) == 16 &&
              offsetof(NDIS_FILTER_RESTART_PARAMETERS, LowerIfIndex) == 24 &&
              offsetof(NDIS_FILTER_RESTART_PARAMETERS, LowerIfNetLuid) == 32 &&
              offsetof(NDIS_FILTER_RESTART_PARAMETERS, Flags) == 40);
static_assert(offsetof(NDIS_RESTART_ATTRIBUTES, Oid) == 8 &&
              offsetof(NDIS_RESTART_ATTRIBUTES, DataLength) == 12 &&
              offsetof(NDIS_RESTART_ATTRIBUTES, Data) == 16);
static_assert(offsetof(NDIS_RESTART_GENERAL_ATTRIBUTES, MtuSize) == 4 &&
              offsetof(NDIS_RESTART_GENERAL_ATTRIBUTES, MaxXmitLinkSpeed) == 8 &&
              offsetof(NDIS_RESTART_GENERAL_ATTRIBUTES, LookaheadSize) == 24);
static_assert(sizeof(NDIS_TIMER) == 128 && sizeof(NDIS_EVENT) == 24);
