#include "packet/net_buffer_chain.h"

#include "module/trace_log.h"
#include "packet/nirp_life.h"
#include "platform/atomics.h"

namespace {

// Links the record's buffer in behind its predecessor. False when that is no longer in the list.
bool InsertBehindPredecessor(PNET_BUFFER_LIST list, const NIRP* nirp) {
    if (nirp->PrevNetBuffer == nullptr) {
        nirp->NetBuffer->Next = list->FirstNetBuffer;
        list->FirstNetBuffer = nirp->NetBuffer;
        return true;
    }
    PNET_BUFFER at = list->FirstNetBuffer;
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

void AppendNetBuffers(PNET_BUFFER_LIST list, PNET_BUFFER chain) {
    PNET_BUFFER* link = &list->FirstNetBuffer;
    while (*link != nullptr) {
        link = &(*link)->Next;
    }
    *link = chain;
}

}  // namespace

VOID NTAPI JoinNetBufferListChains(PNET_BUFFER_LIST first,
                                   PNET_BUFFER_LIST retained,
                                   PNET_BUFFER_LIST completed) {
    PNET_BUFFER_LIST last = first;
    while (last->Next != nullptr) {
        last = last->Next;
    }
    last->Next = first == retained ? completed : retained;
}

// From the last record to the first: buffers that were withheld in a row have one predecessor, and
// each goes directly behind it, in front of those that are back already.
VOID NTAPI RestoreNetBuffers(FILTER_MODULE* module, NBL_CONTEXT* context, BOOLEAN atDispatch) {
    // Nobody but the list's holder, and that is the caller, adds a record, so an empty list stays
    // empty: most lists need no lock here.
    if (ReadAcquire(&context->Nirps.Flink) == &context->Nirps) {
        return;
    }
    // Buffers without their predecessor are collected from the last to the first too.
    PNET_BUFFER strays = nullptr;
    while (NIRP* nirp = RemoveLastContextNirp(context, atDispatch)) {
        if (!InsertBehindPredecessor(context->NetBufferList, nirp)) {
            nirp->NetBuffer->Next = strays;
            strays = nirp->NetBuffer;
            TraceLog(module, "RestoreNetBuffers", 298, atDispatch);
        }
        EndNblHold(nirp, atDispatch);
    }
    AppendNetBuffers(context->NetBufferList, strays);
}
