#include "packet/interception.h"

#include "hook/hook_dispatch.h"
#include "packet/copy_net_buffer.h"
#include "packet/net_buffer_chain.h"
#include "packet/nirp_life.h"
#include "packet/nirp_pool.h"
#include "packet/own_list.h"
#include "packet/pending.h"
#include "platform/atomics.h"

namespace {

constexpr ULONG ETHERNET_ADDRESS_SIZE = 6;

// On the way up only what is for this machine alone, or for all of them, is shown. The 6 bytes of
// an address, as a number.
ULONGLONG EthernetAddress(const UCHAR* bytes) {
    ULONG low = 0;
    USHORT high = 0;
    __builtin_memcpy(&low, bytes, sizeof(low));
    __builtin_memcpy(&high, bytes + sizeof(low), sizeof(high));
    return low | static_cast<ULONGLONG>(high) << 32;
}

constexpr ULONGLONG BROADCAST_ADDRESS = 0xFFFF'FFFF'FFFF;

bool IsAddressedToAdapter(const FILTER_MODULE* module, const NIRP* nirp, ULONG copied) {
    if (copied < ETHERNET_ADDRESS_SIZE) {
        return false;  // no destination address to go by
    }
    ULONGLONG destination = EthernetAddress(nirp->Buffer);
    return destination == BROADCAST_ADDRESS || destination == EthernetAddress(module->MacAddress);
}

NIRP* NTAPI TakeRecord(INTERCEPTION* interception, ULONG size) {
    NIRP* spare = interception->Spare;
    if (spare != nullptr && IsNirpForSize(interception->Module, spare, size)) {
        interception->Spare = nullptr;
        return spare;
    }
    // It may be the last one: in the pool it can be given another buffer, or be a hook's copy.
    EndInterception(interception);
    return GetNirp(interception->Module, size, interception->AtDispatch);
}

// The copy of the buffer that the hooks are to see, or NULL when they are not to see it.
NIRP* NTAPI CopyForHooks(INTERCEPTION* interception, const NET_BUFFER* buffer) {
    NIRP* nirp = TakeRecord(interception, buffer->DataLength);
    if (nirp == nullptr) {
        return nullptr;
    }
    ULONG copied = CopyNetBufferToNirp(buffer, nirp);
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

// A hook that remembers the NIRP from an earlier frame may be reading these fields without a claim:
// they are exchanged whole.
void DescribeOffer(const INTERCEPTION* interception, NIRP* nirp, PNET_BUFFER buffer) {
    NDIS_HANDLE source = interception->Context->NetBufferList->SourceHandle;
    if (interception->Direction == NIRP_DIRECTION_SEND) {
        nirp->Protocol = interception->Protocol;
        nirp->SendSourceHandle = source;
        WriteRelease<NIRP_COMPLETION_ROUTINE>(&nirp->CompletionRoutine, NSVFSendPendingComplete);
    } else {
        nirp->ReceiveSourceHandle = source;
        WriteRelease<NIRP_COMPLETION_ROUTINE>(&nirp->CompletionRoutine, NSVFReceivePendingComplete);
    }
    nirp->NetBuffer = buffer;
    nirp->Context = interception->Context;
    WriteRelease(&nirp->Direction, interception->Direction);
    OfferNirp(nirp, OfferedState(interception));
}

// True when the NET_BUFFER may stay in its NBL. One that a hook took over, whether its request is
// finished by now or not, may not, whatever the verdict: the frame must not go both ways.
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

void Withhold(INTERCEPTION* interception, NIRP* nirp, PNET_BUFFER buffer, PNET_BUFFER successor) {
    if (interception->TailCursor == buffer) {
        interception->Context->NetBufferList->FirstNetBuffer = nullptr;
        interception->TailCursor = successor;
        nirp->PrevNetBuffer = nullptr;
    } else {
        nirp->PrevNetBuffer = interception->TailCursor;
    }
    WithholdNirp(nirp, interception->AtDispatch);
    AppendContextNirp(interception->Context, nirp, interception->AtDispatch);
}

// True when the list belongs to someone else and goes on to them.
bool SettleList(FILTER_MODULE* module, PNET_BUFFER_LIST list, ULONG direction, BOOLEAN atDispatch) {
    NBL_CONTEXT* context = FindNblContext(module, list);
    if (context == nullptr) {
        return true;
    }
    bool sent = direction == NIRP_DIRECTION_SEND;
    ULONG type = context->Type;
    if (type == NBL_TYPE_UNINSPECTED || type == (sent ? NBL_TYPE_SEND : NBL_TYPE_RECEIVE)) {
        RestoreNetBuffers(module, context, atDispatch);
        FreeNblContext(context, list);
        return true;
    }
    bool own = sent ? type == NBL_TYPE_INJECTED || type == NBL_TYPE_SEND_CLONE
                    : type == NBL_TYPE_RECEIVE_CLONE;
    if (own) {
        FreeOwnList(module, context, atDispatch);
    }
    return !own;
}

}  // namespace

VOID NTAPI OfferNetBuffers(INTERCEPTION* interception,
                           NBL_CONTEXT* context,
                           PROTOCOL_ENTRY* protocol) {
    PNET_BUFFER_LIST list = context->NetBufferList;
    interception->Context = context;
    interception->Protocol = protocol;
    interception->TailCursor = list->FirstNetBuffer;

    PNET_BUFFER successor = nullptr;
    for (PNET_BUFFER buffer = list->FirstNetBuffer; buffer != nullptr; buffer = successor) {
        successor = buffer->Next;
        buffer->Next = nullptr;
        NIRP* nirp = CopyForHooks(interception, buffer);
        if (nirp == nullptr) {
            context->Type = NBL_TYPE_UNINSPECTED;
            AppendNetBuffer(list, &interception->TailCursor, buffer);
            continue;
        }
        DescribeOffer(interception, nirp, buffer);
        if (OfferToHooks(interception, nirp)) {
            AppendNetBuffer(list, &interception->TailCursor, buffer);
        } else {
            Withhold(interception, nirp, buffer, successor);
        }
    }
}

VOID NTAPI EndInterception(INTERCEPTION* interception) {
    NIRP* spare = interception->Spare;
    if (spare != nullptr) {
        interception->Spare = nullptr;
        ReturnNirp(interception->Module, spare, interception->AtDispatch);
    }
}

PNET_BUFFER_LIST NTAPI SettleLists(FILTER_MODULE* module,
                                   PNET_BUFFER_LIST lists,
                                   ULONG direction,
                                   BOOLEAN atDispatch) {
    PNET_BUFFER_LIST head = nullptr;
    PNET_BUFFER_LIST previous = nullptr;
    PNET_BUFFER_LIST successor = nullptr;
    for (PNET_BUFFER_LIST list = lists; list != nullptr; list = successor) {
        successor = list->Next;
        if (SettleList(module, list, direction, atDispatch)) {
            if (head == nullptr) {
                head = list;
            }
            previous = list;
        } else if (previous != nullptr) {
            previous->Next = successor;
        }
    }
    return head;
}
