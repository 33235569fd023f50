// The upper end of a stack: a protocol bound to the adapter.
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
/// NBLs as its pace says.
class Protocol {
  public:
    Protocol(Machine& machine, Stack& stack, std::u16string name, std::uint64_t seed);

    /// When received NBLs are returned.
    NblQueue& queue() { return queue_; }
    Component& component() { return component_; }
    ProtocolObjects& objects() { return objects_; }
    /// NBLs made from it are the protocol's own, to be sent.
    NblPool* pool() { return pool_; }

    /// Sends a chain of the protocol's NBLs; onSendComplete is called with each when it is back.
    /// While the stack does not take NBLs they come back at once, with NDIS_STATUS_PAUSED. Adds
    /// the dispatch flag when the caller is at DISPATCH_LEVEL. IRQL <= DISPATCH_LEVEL.
    void Send(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port = 0, ULONG flags = 0);
    /// Asks the adapter to give up on the sends with this id.
    void CancelSend(PVOID cancelId);
    /// Tells the stack below of a PnP event; the status is what came back.
    void DevicePnpEvent(PNET_DEVICE_PNP_EVENT event);
    NDIS_STATUS NetPnpEvent(PNET_PNP_EVENT_NOTIFICATION event);

    // What came up, before anything is done with it. Set them while the stack is quiet.
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
