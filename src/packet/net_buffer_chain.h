// Taking buffers out of lists, putting them back, and building chains of lists. Apart from
// RestoreNetBuffers nothing here takes a lock: the caller has the lists alone.
#pragma once

#include "packet/nbl_context.h"

// A chain of lists that is being built.
struct NBL_CHAIN {
    PNET_BUFFER_LIST Head = nullptr;
    PNET_BUFFER_LIST Tail = nullptr;
    ULONG Count = 0;
};

// Puts `list`, whose Next is NULL, at the end of the chain.
inline void AppendNetBufferList(NBL_CHAIN* chain, PNET_BUFFER_LIST list) {
    if (chain->Head == nullptr) {
        chain->Head = list;
    } else {
        chain->Tail->Next = list;
    }
    chain->Tail = list;
    ++chain->Count;
}

// Puts a buffer whose Next is NULL back into the list that is being walked. `*tail` is the buffer
// that was put back last; while none was, it is the one that is to become the list's head, which
// FirstNetBuffer names already unless a buffer before it was taken out.
inline void AppendNetBuffer(PNET_BUFFER_LIST list, PNET_BUFFER* tail, PNET_BUFFER buffer) {
    if (list->FirstNetBuffer == nullptr) {
        list->FirstNetBuffer = buffer;
    } else if (*tail != buffer) {
        (*tail)->Next = buffer;
    }
    *tail = buffer;
}

// Makes one chain again of the two that a lent chain was split into, and starts it with `first`,
// the head of one of them. The other may be empty.
VOID NTAPI JoinNetBufferListChains(PNET_BUFFER_LIST first,
                                   PNET_BUFFER_LIST retained,
                                   PNET_BUFFER_LIST completed);

// Puts every withheld buffer of the context's list back to where it was, and its record into the
// pool unless something else still holds it. Buffers whose predecessor is no longer in the list
// go to its end in the order in which they came, each with a trace line. The caller has the list;
// nothing may hold the context's lock or a record's. `atDispatch` says that the caller runs at
// DISPATCH_LEVEL. IRQL <= DISPATCH_LEVEL.
VOID NTAPI RestoreNetBuffers(FILTER_MODULE* module, NBL_CONTEXT* context, BOOLEAN atDispatch);
