// Passes NBLs and events from one driver of a stack to the next.
//
// `from` is the calling filter module, or null for the protocol or the adapter. Each routine calls
// the next module that has the handler, or the protocol or adapter behind the last module.
#pragma once

#include "host/ndis/filter_module.h"
#include "host/verifier/nbl_tracker.h"

namespace netsieve::host {

class Stack;

/// Number of NBLs in a chain.
inline ULONG CountNbls(const NET_BUFFER_LIST* chain) {
    ULONG count = 0;
    for (; chain != nullptr; chain = chain->Next) {
        ++count;
    }
    return count;
}

void NTAPI SendDown(Stack& stack,
                    FilterModule* from,
                    Component& component,
                    PNET_BUFFER_LIST chain,
                    NDIS_PORT_NUMBER port,
                    ULONG flags);
void NTAPI CompleteUp(Stack& stack, FilterModule* from, PNET_BUFFER_LIST chain, ULONG flags);
void NTAPI IndicateUp(Stack& stack,
                      FilterModule* from,
                      PNET_BUFFER_LIST chain,
                      NDIS_PORT_NUMBER port,
                      ULONG count,
                      ULONG flags);
void NTAPI ReturnDown(Stack& stack,
                      FilterModule* from,
                      Component& component,
                      PNET_BUFFER_LIST chain,
                      ULONG flags);

void CancelDown(Stack& stack, FilterModule* from, PVOID cancelId);
void DevicePnpDown(Stack& stack, FilterModule* from, PNET_DEVICE_PNP_EVENT event);
NDIS_STATUS NetPnpDown(Stack& stack, FilterModule* from, PNET_PNP_EVENT_NOTIFICATION event);
void StatusUp(Stack& stack, FilterModule* from, PNDIS_STATUS_INDICATION status);

}  // namespace netsieve::host
