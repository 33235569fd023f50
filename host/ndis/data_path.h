// The way of NBLs and events through a stack.
//
// `from` is the module that hands on, or null for the stack's own end: a protocol above, the
// adapter below. Each routine takes the next module that has the handler, or the other end.
#pragma once

#include "host/ndis/filter_module.h"
#include "host/verifier/nbl_tracker.h"

namespace netsieve::host {

class Stack;

/// Length of a chain.
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
