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
    above.pace().Set(Pace::kForwarded);
    below.pace().Set(Pace::kForwarded);
    above.onSend = [this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG) {
        SendThrough(chain, port);
    };
    below.onSendComplete = [this](PNET_BUFFER_LIST chain, ULONG) { Completed(chain); };
    below.onReceive = [this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG, ULONG flags) {
        IndicateThrough(chain, port, flags);
    };
    above.onReturned = [this](PNET_BUFFER_LIST chain, ULONG) { Returned(chain); };
}

void IntermediateDriver::SendThrough(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port) {
    TakeOver(chain, upper_, lower_, true);
    lower_.protocol().Send(chain, port);
}

void IntermediateDriver::Completed(PNET_BUFFER_LIST chain) {
    HandBack(chain);
    upper_.adapter().pace().GiveBack(chain, AtDispatch());
}

void IntermediateDriver::IndicateThrough(PNET_BUFFER_LIST chain,
                                         NDIS_PORT_NUMBER port,
                                         ULONG flags) {
    const ULONG lent = flags & NDIS_RECEIVE_FLAGS_RESOURCES;
    TakeOver(chain, lower_, upper_, false);
    const bool taken = upper_.adapter().Indicate(chain, port, lent);
    if (lent != 0 || !taken) {
        HandBack(chain);
    }
    if (lent == 0 && !taken) {
        lower_.protocol().pace().GiveBack(chain, AtDispatch());
    }
}

void IntermediateDriver::Returned(PNET_BUFFER_LIST chain) {
    HandBack(chain);
    lower_.protocol().pace().GiveBack(chain, AtDispatch());
}

void IntermediateDriver::TakeOver(PNET_BUFFER_LIST chain, Stack& from, Stack& to, bool send) {
    Party& holder = send ? from.adapter().party() : from.protocol().party();
    Party& owner = send ? to.protocol().party() : to.adapter().party();
    const HostLock lock(mutex_);
    for (PNET_BUFFER_LIST list = chain; list != nullptr; list = list->Next) {
        if (g_verifyMode) {
            from.machine().ndis().lists().tracker().Adopt(list, holder, owner);
        }
        sources_[list] = list->SourceHandle;
        list->SourceHandle = owner.handle;
    }
}

void IntermediateDriver::HandBack(PNET_BUFFER_LIST chain) {
    const HostLock lock(mutex_);
    for (PNET_BUFFER_LIST list = chain; list != nullptr; list = list->Next) {
        const auto source = sources_.find(list);
        list->SourceHandle = source->second;
        sources_.erase(source);
        if (g_verifyMode) {
            upper_.machine().ndis().lists().tracker().Surrender(list);
        }
    }
}

}  // namespace netsieve::host
