#include "packet/interception.h"

#include "hook/hook_dispatch.h"
#include "packet/copy_net_buffer.h"
#include "packet/net_buffer_chain.h"
#include "packet/nirp_life.h"
#include "packet/nirp_pool.h"
#include "packet/own_nbl.h"
#include "packet/pending.h"
#include "platform/atomics.h"

namespace {

constexpr ULONG ETHERNET_ADDRESS_SIZE = 6;

// The 6 bytes of an Ethernet address, as a number.
ULONGLONG EthernetAddress(const UCHAR* bytes) {
    ULONG low = 0;
    USHORT high = 0;
    __builtin_memcpy(&low, bytes, sizeof(low));
    __builtin_memcpy(&high, bytes + sizeof(low), sizeof(high));
    return low | static_cast<ULONGLONG>(high) << 32;
}

constexpr ULONGLONG BROADCAST_ADDRESS = 0xFFFF'FFFF'FFFF;

// Of received frames only those that are for this adapter, or for all, are offered.
bool IsAddressedToAdapter(const FILTER_MODULE* module, const NIRP* nirp, ULONG copied) {
    if (copied < ETHERNET_ADDRESS_SIZE) {
        return false;  // no destination address to go by
    }
    ULONGLONG destination = EthernetAddress(nirp->Buffer);
    return destination == BROADCAST_ADDRESS || destination == EthernetAddress(module->MacAddress);
}

NIRP* FASTABI TakeNirpOfSize(INTERCEPTION* interception, ULONG size) {
    NIRP* spare = interception->Spare;
    if (spare != nullptr && IsNirpForSize(interception->Module, spare, size)) {
        interception->Spare = nullptr;
        return spare;
    }
    // It may be the last NIRP: in the pool it can be given another buffer, or become a clone.
    EndInterception(interception);
    return GetNirp(interception->Module, size, interception->AtDispatch);
}

// The copy that the hooks are to be shown, or NULL when they are not to be shown the NET_BUFFER.
NIRP* FASTABI CopyForHooks(INTERCEPTION* interception, const NET_BUFFER* netBuffer) {
    NIRP* nirp = TakeNirpOfSize(interception, netBuffer->DataLength);
    if (nirp == nullptr) {
        return nullptr;
    }
    ULONG copied = CopyNetBufferToNirp(netBuffer, nirp);
    bool shown = copied != 0 && (interception->Direction == NIRP_DIRECTION_SEND ||
                                 IsAddressedToAdapter(interception->Module, nirp, copied));
    if (!shown) {
        interception->Spare = nirp;
        return nullptr;
    }
    return nirp;
}

ULONG OfferedState(const INTERCEPTION* interception) {
    return interception->Direction == NIRP_DIRECTION_SEND ? NIRP_STATE_SEND : NIRP_STATE_RECEIVE;
}

// A late mark or completion, of an earlier frame, may read Direction and CompletionRoutine at this
// moment: both are written atomically.
void DescribeOffer(const INTERCEPTION* interception, NIRP* nirp, PNET_BUFFER netBuffer) {
    NDIS_HANDLE source = interception->Context->NetBufferList->SourceHandle;
    if (interception->Direction == NIRP_DIRECTION_SEND) {
        nirp->Protocol = interception->Protocol;
        nirp->SendSourceHandle = source;
        WriteRelease<NIRP_COMPLETION_ROUTINE>(&nirp->CompletionRoutine, NSVFSendPendingComplete);
    } else {
        nirp->ReceiveSourceHandle = source;
        WriteRelease<NIRP_COMPLETION_ROUTINE>(&nirp->CompletionRoutine, NSVFReceivePendingComplete);
    }
    nirp->NetBuffer = netBuffer;
    nirp->Context = interception->Context;
    WriteRelease(&nirp->Direction, interception->Direction);
    OfferNirp(nirp, OfferedState(interception));
}

// True when the NET_BUFFER may stay in its NBL. One that a hook has marked may not, whatever the
// verdict and even if its request is finished by now: its clone goes instead.
bool OfferToHooks(INTERCEPTION* interception, NIRP* nirp) {
    LONG verdict = CallHookHandlers(interception->Module, nirp, interception->Direction);
    if (verdict != HOOK_VERDICT_PASS) {
        return false;
    }
    PASS_RESULT result = PassNirp(nirp, OfferedState(interception), interception->AtDispatch);
    if (result == PASS_OWNED) {
        interception->Spare = nirp;
    }
    return result != PASS_MARKED;
}

void Withhold(INTERCEPTION* interception,
              NIRP* nirp,
              PNET_BUFFER netBuffer,
              PNET_BUFFER successor) {
    if (interception->TailCursor == netBuffer) {
        interception->Context->NetBufferList->FirstNetBuffer = nullptr;
        interception->TailCursor = successor;
        nirp->PrevNetBuffer = nullptr;
    } else {
        nirp->PrevNetBuffer = interception->TailCursor;
    }
    WithholdNirp(nirp, interception->AtDispatch);
    AppendContextNirp(interception->Context, nirp, interception->AtDispatch);
}

void OfferNetBuffers(INTERCEPTION* interception) {
    NBL_CONTEXT* context = interception->Context;
    PNET_BUFFER_LIST nbl = context->NetBufferList;
    interception->TailCursor = nbl->FirstNetBuffer;

    PNET_BUFFER successor = nullptr;
    for (PNET_BUFFER netBuffer = nbl->FirstNetBuffer; netBuffer != nullptr; netBuffer = successor) {
        successor = netBuffer->Next;
        netBuffer->Next = nullptr;
        NIRP* nirp = CopyForHooks(interception, netBuffer);
        if (nirp == nullptr) {
            context->Type = NBL_TYPE_UNINSPECTED;
            AppendNetBuffer(nbl, &interception->TailCursor, netBuffer);
            continue;
        }
        DescribeOffer(interception, nirp, netBuffer);
        if (OfferToHooks(interception, nirp)) {
            AppendNetBuffer(nbl, &interception->TailCursor, netBuffer);
        } else {
            Withhold(interception, nirp, netBuffer, successor);
        }
    }
}

// True when the NBL is not the driver's own: it goes on to its owner.
bool SettleNbl(FILTER_MODULE* module, PNET_BUFFER_LIST nbl, ULONG direction, bool atDispatch) {
    NBL_CONTEXT* context = FindNblContext(module, nbl);
    if (context == nullptr) {
        return true;
    }
    bool sent = direction == NIRP_DIRECTION_SEND;
    ULONG type = context->Type;
    if (type == NBL_TYPE_UNINSPECTED || type == (sent ? NBL_TYPE_SEND : NBL_TYPE_RECEIVE)) {
        RestoreNetBuffers(module, context, atDispatch);
        FreeNblContext(context, nbl);
        return true;
    }
    bool own = sent ? type == NBL_TYPE_INJECTED || type == NBL_TYPE_SEND_CLONE
                    : type == NBL_TYPE_RECEIVE_CLONE;
    if (own) {
        FreeOwnNbl(module, context, atDispatch);
    }
    return !own;
}

}  // namespace

bool FASTABI InterceptNbl(INTERCEPTION* interception,
                          PNET_BUFFER_LIST nbl,
                          PROTOCOL_ENTRY* protocol) {
    NBL_CONTEXT* context = AllocateNblContext(interception->Module, nbl);
    if (context == nullptr) {
        return false;
    }
    context->Type =
        interception->Direction == NIRP_DIRECTION_SEND ? NBL_TYPE_SEND : NBL_TYPE_RECEIVE;
    context->NetBufferList = nbl;
    context->PortNumber = interception->PortNumber;
    interception->Context = context;
    interception->Protocol = protocol;
    OfferNetBuffers(interception);
    return true;
}

void FASTABI EndInterception(INTERCEPTION* interception) {
    NIRP* spare = interception->Spare;
    if (spare != nullptr) {
        interception->Spare = nullptr;
        ReturnNirp(interception->Module, spare, interception->AtDispatch);
    }
}

PNET_BUFFER_LIST FASTABI SettleNbls(FILTER_MODULE* module,
                                    PNET_BUFFER_LIST nbls,
                                    ULONG direction,
                                    bool atDispatch) {
    PNET_BUFFER_LIST head = nullptr;
    PNET_BUFFER_LIST previous = nullptr;
    PNET_BUFFER_LIST successor = nullptr;
    for (PNET_BUFFER_LIST nbl = nbls; nbl != nullptr; nbl = successor) {
        successor = nbl->Next;
        if (SettleNbl(module, nbl, direction, atDispatch)) {
            if (head == nullptr) {
                head = nbl;
            }
            previous = nbl;
        } else if (previous != nullptr) {
            previous->Next = successor;
        }
    }
    return head;
}
