#include "packet/nbl_context.h"

#include "packet/nirp.h"
#include "platform/list.h"

namespace {

NBL_CONTEXT* CurrentArea(NET_BUFFER_LIST_CONTEXT* block) {
    return reinterpret_cast<NBL_CONTEXT*>(reinterpret_cast<PUCHAR>(block + 1) + block->Offset);
}

}  // namespace

NBL_CONTEXT* FASTABI AllocateNblContext(FILTER_MODULE* module, PNET_BUFFER_LIST nbl) {
    if (NdisAllocateNetBufferListContext(nbl, NBL_CONTEXT_SIZE, 0, NBL_CONTEXT_TAG) !=
        NDIS_STATUS_SUCCESS) {
        return nullptr;
    }
    NBL_CONTEXT* context = CurrentArea(nbl->Context);
    *context = {};
    context->Magic = NBL_CONTEXT_TAG;
    context->Size = NBL_CONTEXT_SIZE;
    context->Module = module;
    InitializeListHead(&context->Nirps);
    InitializeDriverSpinLock(&context->Lock);
    return context;
}

NBL_CONTEXT* FASTABI FindNblContext(const FILTER_MODULE* module, PNET_BUFFER_LIST nbl) {
    NET_BUFFER_LIST_CONTEXT* block = nbl->Context;
    if (block == nullptr || block->Offset + NBL_CONTEXT_SIZE > block->Size) {
        return nullptr;
    }
    NBL_CONTEXT* context = CurrentArea(block);
    bool ours = context->Magic == NBL_CONTEXT_TAG && context->Size == NBL_CONTEXT_SIZE &&
                context->Module == module;
    return ours ? context : nullptr;
}

void FASTABI FreeNblContext(NBL_CONTEXT* context, PNET_BUFFER_LIST nbl) {
    // NDIS keeps the bytes; another filter's area over them must not be taken for ours.
    context->Magic = 0;
    NdisFreeNetBufferListContext(nbl, NBL_CONTEXT_SIZE);
}

void FASTABI FreeNblAndContext(NBL_CONTEXT* context, PNET_BUFFER_LIST nbl) {
    FreeNblContext(context, nbl);
    NdisFreeNetBufferList(nbl);
}

void FASTABI AppendContextNirp(NBL_CONTEXT* context, NIRP* nirp, bool atDispatch) {
    SpinLockGuard guard(&context->Lock, atDispatch);
    InsertTailList(&context->Nirps, &nirp->ContextLink);
}

void FASTABI RemoveContextNirps(NBL_CONTEXT* context, PLIST_ENTRY nirps, bool atDispatch) {
    InitializeListHead(nirps);
    SpinLockGuard guard(&context->Lock, atDispatch);
    while (!IsListEmpty(&context->Nirps)) {
        InsertTailList(nirps, RemoveHeadList(&context->Nirps));
    }
}
