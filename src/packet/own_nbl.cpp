#include "packet/own_nbl.h"

#include "module/trace_log.h"
#include "packet/nirp_pool.h"
#include "platform/list.h"

namespace {

// NULL with a trace line, and nothing left behind.
NBL_CONTEXT* AllocateNblAndContext(FILTER_MODULE* module,
                                   NIRP* nirp,
                                   const OWN_NBL_SITES* sites,
                                   bool atDispatch) {
    // A module whose pool could not be made works without NBLs of its own.
    PNET_BUFFER_LIST nbl = module->NblPool == nullptr
                               ? nullptr
                               : NdisAllocateNetBufferAndNetBufferList(
                                     module->NblPool, 0, 0, nirp->Mdl, 0, nirp->DataLength);
    if (nbl == nullptr) {
        TraceLog(module, sites->Label, sites->NoNbl, atDispatch);
        return nullptr;
    }
    NBL_CONTEXT* context = AllocateNblContext(module, nbl);
    if (context == nullptr) {
        NdisFreeNetBufferList(nbl);
        TraceLog(module, sites->Label, sites->NoContext, atDispatch);
        return nullptr;
    }
    context->NetBufferList = nbl;
    return context;
}

// The NIRP is in the context from before anyone else knows the NBL until the NBL is freed, so
// neither of these needs the context's lock.
void SetNirp(NBL_CONTEXT* context, NIRP* nirp) BEFORE_OR_AFTER_SHARING {
    nirp->Context = context;
    InsertTailList(&context->Nirps, &nirp->ContextLink);
}

NIRP* NirpOf(const NBL_CONTEXT* context) BEFORE_OR_AFTER_SHARING {
    return CONTAINING_RECORD(context->Nirps.Flink, NIRP, ContextLink);
}

}  // namespace

NBL_CONTEXT* FASTABI MakeOwnNbl(FILTER_MODULE* module,
                                NIRP* nirp,
                                ULONG type,
                                const OWN_NBL_SITES* sites,
                                bool atDispatch) {
    RaiseDrainCount(&module->OutstandingNbls);
    NBL_CONTEXT* context = AllocateNblAndContext(module, nirp, sites, atDispatch);
    if (context == nullptr) {
        ReturnNirp(module, nirp, atDispatch);
        LowerDrainCount(&module->OutstandingNbls);
        return nullptr;
    }
    context->Type = type;
    // A filter is the source of what it originates; NDIS brings the NBL back by it.
    context->NetBufferList->SourceHandle = module->FilterHandle;
    SetNirp(context, nirp);
    return context;
}

void FASTABI FreeOwnNbl(FILTER_MODULE* module, NBL_CONTEXT* context, bool atDispatch) {
    if (context->WorkItem != nullptr) {
        IoFreeWorkItem(context->WorkItem);
        context->WorkItem = nullptr;
    }
    NIRP* nirp = NirpOf(context);
    FreeNblAndContext(context, context->NetBufferList);
    ReturnNirp(module, nirp, atDispatch);
    LowerDrainCount(&module->OutstandingNbls);
}
