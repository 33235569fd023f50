// A protocol driver bound to an adapter.
#pragma once

#include <functional>
#include <string>

#include "host/ndis/internal_objects.h"
#include "host/ndis/nbl_pools.h"
#include "host/ndis/nbl_queue.h"
#include "host/verifier/nbl_tracker.h"

namespace netsieve::host {

class Stack;

/// A protocol driver's binding to one adapter. It sends what it is told to and returns received
/// NBLs when its queue releases them.
class Protocol {
  public:
    Protocol(Machine& machine, Stack& stack, std::u16string name, std::uint64_t seed);

    /// The NBLs that the protocol received and has not returned.
    NblQueue& queue() { return queue_; }
    Component& component() { return component_; }
    ProtocolObjects& objects() { return objects_; }
    /// The pool of the NBLs that the protocol sends.
    NblPool* pool() { return pool_; }

    /// Sends a chain of the protocol's NBLs; onSendComplete is called with each that is completed.
    /// While the stack is paused they are completed at once with NDIS_STATUS_PAUSED. IRQL <=
    /// DISPATCH_LEVEL.
    void Send(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port = 0, ULONG flags = 0);
    /// Asks the adapter to cancel the sends with this id (NetBufferListCancelId), which it does
    /// with those that it has queued. No effect when the stack is paused. IRQL <= DISPATCH_LEVEL.
    void CancelSend(PVOID cancelId);
    /// Passes a PnP event down the stack; returns the status of the drivers below.
    void DevicePnpEvent(PNET_DEVICE_PNP_EVENT event);
    NDIS_STATUS NetPnpEvent(PNET_PNP_EVENT_NOTIFICATION event);

    // Called with what the protocol receives from below, before it is queued. Set them while no NBL
    // is outstanding.
    std::function<void(PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG count, ULONG flags)> onReceive;
    std::function<void(PNET_BUFFER_LIST, ULONG flags)> onSendComplete;
    std::function<void(PNDIS_STATUS_INDICATION)> onStatus;

    // Called by the stack.
    void SendComplete(PNET_BUFFER_LIST chain, ULONG flags);
    void Receive(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG count, ULONG flags);

  private:
    Stack& stack_;
    ProtocolObjects objects_;
    Component component_;
    NblPool* pool_;
    NblQueue queue_;
};

}  // namespace netsieve::host
