// The driver's mark on a NET_BUFFER_LIST, kept in the list's own context space: what kind of list
// it is, which module handles it, and the records of its withheld buffers.
#pragma once

#include "module/filter_module.h"

constexpr ULONG NBL_CONTEXT_TAG = 0x636F696E;  // "nioc"; also the magic
constexpr USHORT NBL_CONTEXT_SIZE = 80;

constexpr ULONG NBL_TYPE_SEND = 0x1000;           // someone's list on its way down
constexpr ULONG NBL_TYPE_INJECTED = 0x1001;       // the driver's own: a frame that a hook made
constexpr ULONG NBL_TYPE_SEND_CLONE = 0x1002;     // the driver's own: the copy of a sent frame
constexpr ULONG NBL_TYPE_RECEIVE = 0x1003;        // the adapter's list on its way up
constexpr ULONG NBL_TYPE_RECEIVE_CLONE = 0x1004;  // the driver's own: the copy of a received frame
// Replaces NBL_TYPE_SEND and NBL_TYPE_RECEIVE once a buffer of the list passed without being shown
// to the hooks.
constexpr ULONG NBL_TYPE_UNINSPECTED = 0x1005;

// The first two words tell the driver's area from the areas of others.
struct NBL_CONTEXT {
    ULONG Magic;
    ULONG Size;
    ULONG Type;
    DRIVER_SPIN_LOCK Lock;  // guards Nirps; a leaf
    PNET_BUFFER_LIST NetBufferList;
    FILTER_MODULE* Module;
    // Through their ContextLink: the records of withheld buffers in the order of the buffers, or
    // the one record that a list of the driver's own carries its frame in.
    LIST_ENTRY Nirps;
    NDIS_PORT_NUMBER PortNumber;  // of the call that brought the list; 0 for the driver's own
    PIO_WORKITEM WorkItem;        // what an injected list is sent from; NULL when it needs none
};
static_assert(sizeof(NBL_CONTEXT) == NBL_CONTEXT_SIZE && NBL_CONTEXT_SIZE % 16 == 0 &&
              alignof(NBL_CONTEXT) == 8 && offsetof(NBL_CONTEXT, Magic) == 0 &&
              offsetof(NBL_CONTEXT, Size) == 4);

// Puts a context on the list and returns it, or NULL when NDIS has no space for one. The caller
// sets Type and NetBufferList before the list goes anywhere. IRQL <= DISPATCH_LEVEL.
NBL_CONTEXT* NTAPI AllocateNblContext(FILTER_MODULE* module, PNET_BUFFER_LIST list);

// The context that this module put on the list, if it is the one on top; else NULL. A list that
// crosses two adapters carries one of each module, and neither touches the other's. Any IRQL.
NBL_CONTEXT* NTAPI FindNblContext(const FILTER_MODULE* module, PNET_BUFFER_LIST list);

// Takes the driver's context off the list again. It must be on top, and hold no record.
// IRQL <= DISPATCH_LEVEL.
VOID NTAPI FreeNblContext(NBL_CONTEXT* context, PNET_BUFFER_LIST list);

// The same for a list of the module's own pool, which is freed with it.
VOID NTAPI FreeNblAndContext(NBL_CONTEXT* context, PNET_BUFFER_LIST list);

// Hangs a record behind the others of the list. `atDispatch` says that the caller runs at
// DISPATCH_LEVEL. IRQL <= DISPATCH_LEVEL.
VOID NTAPI AppendContextNirp(NBL_CONTEXT* context, NIRP* nirp, BOOLEAN atDispatch);

// Takes off and returns the record whose buffer came first, or the one that came last; NULL when
// there is none. Same terms.
NIRP* NTAPI RemoveFirstContextNirp(NBL_CONTEXT* context, BOOLEAN atDispatch);
NIRP* NTAPI RemoveLastContextNirp(NBL_CONTEXT* context, BOOLEAN atDispatch);
