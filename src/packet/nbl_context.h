// The driver's context of an NBL, in the NBL's own context space: what kind of NBL it is, which
// module handles it, and the NIRPs of its withheld NET_BUFFERs.
#pragma once

#include "module/filter_module.h"

constexpr ULONG NBL_CONTEXT_TAG = 0x636F696E;  // "nioc"; also the magic
constexpr USHORT NBL_CONTEXT_SIZE = 80;

constexpr ULONG NBL_TYPE_SEND = 0x1000;           // an NBL that is being sent
constexpr ULONG NBL_TYPE_INJECTED = 0x1001;       // the driver's own: a frame that a hook injected
constexpr ULONG NBL_TYPE_SEND_CLONE = 0x1002;     // the driver's own: the clone of a sent frame
constexpr ULONG NBL_TYPE_RECEIVE = 0x1003;        // an NBL that is being indicated
constexpr ULONG NBL_TYPE_RECEIVE_CLONE = 0x1004;  // the driver's own: the clone of a received frame
// Replaces NBL_TYPE_SEND and NBL_TYPE_RECEIVE once a NET_BUFFER passed without being shown to the
// hooks.
constexpr ULONG NBL_TYPE_UNINSPECTED = 0x1005;

// The first two words tell the driver's area from the areas of others.
struct NBL_CONTEXT {
    ULONG Magic;
    ULONG Size;
    ULONG Type;
    DRIVER_SPIN_LOCK Lock;  // guards Nirps; a leaf
    PNET_BUFFER_LIST NetBufferList;
    FILTER_MODULE* Module;
    // Through their ContextLink: the NIRPs of the withheld NET_BUFFERs, in the order of these, or
    // the one NIRP whose bytes an NBL of the driver's own carries.
    LIST_ENTRY Nirps GUARDED_BY(Lock);
    NDIS_PORT_NUMBER PortNumber;  // of the call that brought the NBL; 0 for the driver's own
    PIO_WORKITEM WorkItem;        // from which an injected NBL is sent; NULL without one
};
static_assert(sizeof(NBL_CONTEXT) == NBL_CONTEXT_SIZE && NBL_CONTEXT_SIZE % 16 == 0 &&
              alignof(NBL_CONTEXT) == 8 && offsetof(NBL_CONTEXT, Magic) == 0 &&
              offsetof(NBL_CONTEXT, Size) == 4);

// Puts a context on the NBL and returns it, or NULL when NDIS has no space for one. The caller sets
// Type and NetBufferList before the NBL leaves it. IRQL <= DISPATCH_LEVEL.
NBL_CONTEXT* FASTABI AllocateNblContext(FILTER_MODULE* module, PNET_BUFFER_LIST nbl);

// The context that this module put on the NBL, if it is the one on top; else NULL. An NBL that
// crosses two adapters carries one of each module, and neither touches the other's. Any IRQL.
NBL_CONTEXT* FASTABI FindNblContext(const FILTER_MODULE* module, PNET_BUFFER_LIST nbl);

// Takes the driver's context off the NBL again. It must be on top, and hold no NIRP.
// IRQL <= DISPATCH_LEVEL.
void FASTABI FreeNblContext(NBL_CONTEXT* context, PNET_BUFFER_LIST nbl);

// The same for an NBL of the module's own pool, which is freed with it.
void FASTABI FreeNblAndContext(NBL_CONTEXT* context, PNET_BUFFER_LIST nbl);

// Adds a NIRP behind the others of the context. `atDispatch` says that the caller runs at
// DISPATCH_LEVEL. IRQL <= DISPATCH_LEVEL.
void FASTABI AppendContextNirp(NBL_CONTEXT* context, NIRP* nirp, bool atDispatch);

// Moves the NIRPs of the context to the list `nirps`, in their order. Same terms.
void FASTABI RemoveContextNirps(NBL_CONTEXT* context, PLIST_ENTRY nirps, bool atDispatch);
