#include "host/ndis/intermediate_driver.h"

#include "host/machine.h"
#include "host/ndis/ndis.h"
#include "host/ndis/stack.h"

namespace netsieve::host {

namespace {

bool AtDispatch() {
    return CurrentContext().irql == DISPATCH_LEVEL;
}

}  // namespace

IntermediateDriver::IntermediateDriver(Stack& upper, Stack& lower) : upper_(upper), lower_(lower) {
    Adapter& above = upper.adapter();
    Protocol& below = lower.protocol();
    above.queue().SetMode(ReleaseMode::kForwarded);
    below.queue().SetMode(ReleaseMode::kForwarded);
    above.onSend = [this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG) {
        SendThrough(chain, port);
    };
    above.onCancel = [this](PVOID cancelId) { lower_.protocol().CancelSend(cancelId); };
    below.onSendComplete = [this](PNET_BUFFER_LIST chain, ULONG) { Completed(chain); };
    below.onReceive = [this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG, ULONG flags) {
        IndicateThrough(chain, port, flags);
    };
    above.onReturned = [this](PNET_BUFFER_LIST chain, ULONG) { Returned(chain); };
}

void IntermediateDriver::SendThrough(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port) {
    TakeOwnership(chain, upper_, lower_, true);
    lower_.protocol().Send(chain, port);
}

void IntermediateDriver::Completed(PNET_BUFFER_LIST chain) {
    RestoreOwnership(chain);
    upper_.adapter().queue().Release(chain, AtDispatch());
}

void IntermediateDriver::IndicateThrough(PNET_BUFFER_LIST chain,
                                         NDIS_PORT_NUMBER port,
                                         ULONG flags) {
    const ULONG resources = flags & NDIS_RECEIVE_FLAGS_RESOURCES;
    TakeOwnership(chain, lower_, upper_, false);
    const bool taken = upper_.adapter().Indicate(chain, port, resources);
    if (resources != 0 || !taken) {
        RestoreOwnership(chain);
    }
    if (resources == 0 && !taken) {
        lower_.protocol().queue().Release(chain, AtDispatch());
    }
}

void IntermediateDriver::Returned(PNET_BUFFER_LIST chain) {
    RestoreOwnership(chain);
    lower_.protocol().queue().Release(chain, AtDispatch());
}

void IntermediateDriver::TakeOwnership(PNET_BUFFER_LIST chain, Stack& from, Stack& to, bool send) {
    Component& holder = send ? from.adapter().component() : from.protocol().component();
    Component& owner = send ? to.protocol().component() : to.adapter().component();
    const HostLock lock(mutex_);
    for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr; nbl = nbl->Next) {
        if (g_verifyMode) {
            from.machine().ndis().nblPools().tracker().TakeOwnership(nbl, holder, owner);
        }
        sources_[nbl] = nbl->SourceHandle;
        nbl->SourceHandle = owner.handle;
    }
}

void IntermediateDriver::RestoreOwnership(PNET_BUFFER_LIST chain) {
    const HostLock lock(mutex_);
    for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr; nbl = nbl->Next) {
        const auto source = sources_.find(nbl);
        nbl->SourceHandle = source->second;
        sources_.erase(source);
        if (g_verifyMode) {
            upper_.machine().ndis().nblPools().tracker().RestoreOwnership(nbl);
        }
    }
}

}  // namespace netsieve::host
