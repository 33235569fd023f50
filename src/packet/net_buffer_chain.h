// Taking NET_BUFFERs out of NBLs, putting them back, and building chains of NBLs. Apart from
// RestoreNetBuffers nothing here takes a lock: the caller has the NBLs to itself.
#pragma once

#include "packet/nbl_context.h"

// A chain of NBLs that is being built.
struct NBL_CHAIN {
    PNET_BUFFER_LIST Head = nullptr;
    PNET_BUFFER_LIST Tail = nullptr;
    ULONG Count = 0;
};

// Appends an NBL, whose Next is NULL, to the chain.
inline void AppendNetBufferList(NBL_CHAIN* chain, PNET_BUFFER_LIST nbl) {
    if (chain->Head == nullptr) {
        chain->Head = nbl;
    } else {
        chain->Tail->Next = nbl;
    }
    chain->Tail = nbl;
    ++chain->Count;
}

// Puts a NET_BUFFER whose Next is NULL back into the NBL that is being walked. `*tail` is the one
// that was put back last; while none was, it is the one that is to become the first, which
// FirstNetBuffer names already unless one before it was taken out.
inline void AppendNetBuffer(PNET_BUFFER_LIST nbl, PNET_BUFFER* tail, PNET_BUFFER netBuffer) {
    if (nbl->FirstNetBuffer == nullptr) {
        nbl->FirstNetBuffer = netBuffer;
    } else if (*tail != netBuffer) {
        (*tail)->Next = netBuffer;
    }
    *tail = netBuffer;
}

// Joins the two chains that an indicated chain was split into to one, which starts with `first`,
// the head of one of them. The other may be empty.
void FASTABI JoinNetBufferListChains(PNET_BUFFER_LIST first,
                                     PNET_BUFFER_LIST retained,
                                     PNET_BUFFER_LIST completed);

// Puts every withheld NET_BUFFER back to where it was in the context's NBL, and its NIRP into the
// pool unless something else still holds it. A NET_BUFFER whose predecessor is no longer in the NBL
// goes to the end, with a trace line; several keep their order. The caller has the NBL; neither the
// context's lock nor a NIRP's may be held. `atDispatch` says that the caller runs at
// DISPATCH_LEVEL. IRQL <= DISPATCH_LEVEL.
void FASTABI RestoreNetBuffers(FILTER_MODULE* module, NBL_CONTEXT* context, bool atDispatch);
