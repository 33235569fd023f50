#include "packet/own_list.h"

#include "module/trace_log.h"
#include "packet/nirp_pool.h"

namespace {

// NULL with a trace line, and nothing left behind.
NBL_CONTEXT* AllocateListAndContext(FILTER_MODULE* module,
                                    NIRP* nirp,
                                    const OWN_LIST_SITES* sites,
                                    BOOLEAN atDispatch) {
    // A module whose pool could not be made works on without lists of its own.
    PNET_BUFFER_LIST list = module->NblPool == nullptr
                                ? nullptr
                                : NdisAllocateNetBufferAndNetBufferList(
                                      module->NblPool, 0, 0, nirp->Mdl, 0, nirp->DataLength);
    if (list == nullptr) {
        TraceLog(module, sites->Label, sites->NoList, atDispatch);
        return nullptr;
    }
    NBL_CONTEXT* context = AllocateNblContext(module, list);
    if (context == nullptr) {
        NdisFreeNetBufferList(list);
        TraceLog(module, sites->Label, sites->NoContext, atDispatch);
        return nullptr;
    }
    context->NetBufferList = list;
    return context;
}

}  // namespace

NBL_CONTEXT* NTAPI MakeOwnList(FILTER_MODULE* module,
                               NIRP* nirp,
                               ULONG type,
                               const OWN_LIST_SITES* sites,
                               BOOLEAN atDispatch) {
    RaiseDrainCount(&module->OutstandingLists, atDispatch);
    NBL_CONTEXT* context = AllocateListAndContext(module, nirp, sites, atDispatch);
    if (context == nullptr) {
        ReturnNirp(module, nirp, atDispatch);
        LowerDrainCount(&module->OutstandingLists, atDispatch);
        return nullptr;
    }
    context->Type = type;
    // A filter is the source of what it originates; NDIS brings the list back by it.
    context->NetBufferList->SourceHandle = module->FilterHandle;
    nirp->Context = context;
    AppendContextNirp(context, nirp, atDispatch);
    return context;
}

VOID NTAPI FreeOwnList(FILTER_MODULE* module, NBL_CONTEXT* context, BOOLEAN atDispatch) {
    if (context->WorkItem != nullptr) {
        IoFreeWorkItem(context->WorkItem);
        context->WorkItem = nullptr;
    }
    NIRP* nirp = RemoveFirstContextNirp(context, atDispatch);
    FreeNblAndContext(context, context->NetBufferList);
    ReturnNirp(module, nirp, atDispatch);
    LowerDrainCount(&module->OutstandingLists, atDispatch);
}
