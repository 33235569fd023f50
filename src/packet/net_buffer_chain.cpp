#include "packet/net_buffer_chain.h"

#include "module/trace_log.h"
#include "packet/nirp_life.h"
#include "platform/atomics.h"
#include "platform/list.h"

namespace {

// False when the NET_BUFFER's predecessor is no longer in the NBL.
bool InsertBehindPredecessor(PNET_BUFFER_LIST nbl, const NIRP* nirp) {
    if (nirp->PrevNetBuffer == nullptr) {
        nirp->NetBuffer->Next = nbl->FirstNetBuffer;
        nbl->FirstNetBuffer = nirp->NetBuffer;
        return true;
    }
    PNET_BUFFER at = nbl->FirstNetBuffer;
    while (at != nullptr && at != nirp->PrevNetBuffer) {
        at = at->Next;
    }
    if (at == nullptr) {
        return false;
    }
    nirp->NetBuffer->Next = at->Next;
    at->Next = nirp->NetBuffer;
    return true;
}

void AppendNetBuffers(PNET_BUFFER_LIST nbl, PNET_BUFFER chain) {
    PNET_BUFFER* link = &nbl->FirstNetBuffer;
    while (*link != nullptr) {
        link = &(*link)->Next;
    }
    *link = chain;
}

}  // namespace

void FASTABI JoinNetBufferListChains(PNET_BUFFER_LIST first,
                                     PNET_BUFFER_LIST retained,
                                     PNET_BUFFER_LIST completed) {
    PNET_BUFFER_LIST last = first;
    while (last->Next != nullptr) {
        last = last->Next;
    }
    last->Next = first == retained ? completed : retained;
}

// From the last NIRP to the first: NET_BUFFERs that were withheld in a row have one predecessor,
// and each goes directly behind it, in front of those that are back already.
void FASTABI RestoreNetBuffers(FILTER_MODULE* module, NBL_CONTEXT* context, bool atDispatch) {
    // Only who has the NBL adds a NIRP, and that is the caller: no lock is needed to see that there
    // is none, as in most NBLs.
    if (ReadAcquire(&context->Nirps.Flink) == &context->Nirps) {
        return;
    }
    LIST_ENTRY nirps;
    RemoveContextNirps(context, &nirps, atDispatch);
    // Those without their predecessor, collected from the last to the first too.
    PNET_BUFFER strays = nullptr;
    while (!IsListEmpty(&nirps)) {
        NIRP* nirp = CONTAINING_RECORD(RemoveTailList(&nirps), NIRP, ContextLink);
        if (!InsertBehindPredecessor(context->NetBufferList, nirp)) {
            nirp->NetBuffer->Next = strays;
            strays = nirp->NetBuffer;
            TraceLog(module, "RestoreNetBuffers", 298, atDispatch);
        }
        EndNblHold(nirp, atDispatch);
    }
    AppendNetBuffers(context->NetBufferList, strays);
}
