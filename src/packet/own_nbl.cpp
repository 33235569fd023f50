#include "packet/own_nbl.h"

#include "module/trace_log.h"
#include "packet/nirp_pool.h"

namespace {

// NULL with a trace line, and nothing left behind.
NBL_CONTEXT* AllocateNblAndContext(FILTER_MODULE* module,
                                   NIRP* nirp,
                                   const OWN_NBL_SITES* sites,
                                   BOOLEAN atDispatch) {
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

}  // namespace

NBL_CONTEXT* FASTABI MakeOwnNbl(FILTER_MODULE* module,
                                NIRP* nirp,
                                ULONG type,
                                const OWN_NBL_SITES* sites,
                                BOOLEAN atDispatch) {
    RaiseDrainCount(&module->OutstandingNbls, atDispatch);
    NBL_CONTEXT* context = AllocateNblAndContext(module, nirp, sites, atDispatch);
    if (context == nullptr) {
        ReturnNirp(module, nirp, atDispatch);
        LowerDrainCount(&module->OutstandingNbls, atDispatch);
        return nullptr;
    }
    context->Type = type;
    // A filter is the source of what it originates; NDIS brings the NBL back by it.
    context->NetBufferList->SourceHandle = module->FilterHandle;
    nirp->Context = context;
    AppendContextNirp(context, nirp, atDispatch);
    return context;
}

void FASTABI FreeOwnNbl(FILTER_MODULE* module, NBL_CONTEXT* context, BOOLEAN atDispatch) {
    if (context->WorkItem != nullptr) {
        IoFreeWorkItem(context->WorkItem);
        context->WorkItem = nullptr;
    }
    NIRP* nirp = RemoveFirstContextNirp(context, atDispatch);
    FreeNblAndContext(context, context->NetBufferList);
    ReturnNirp(module, nirp, atDispatch);
    LowerDrainCount(&module->OutstandingNbls, atDispatch);
}
