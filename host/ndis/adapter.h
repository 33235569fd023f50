// The miniport at the bottom of a driver stack.
#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "host/ndis/internal_objects.h"
#include "host/ndis/nbl_pools.h"
#include "host/ndis/nbl_queue.h"
#include "host/verifier/nbl_tracker.h"

namespace netsieve::host {

class Stack;

constexpr NDIS_STATUS NDIS_STATUS_SEND_ABORTED = MakeStatus(0xC023000C);

/// Whether the adapter and the protocols of a stack set the dispatch flag in the calls that they
/// make at DISPATCH_LEVEL, where it is theirs to set or not.
enum class DispatchFlagUse : std::uint8_t { kBySeed, kAlways, kNever };

struct AdapterOptions {
    std::u16string instanceName = u"Host Ethernet Adapter";
    std::u16string deviceName = u"\\DEVICE\\{6D1F0C53-9A42-4F0E-8B77-3C5A1E20D9F4}";
    std::u16string moduleGuid = u"{6D1F0C53-9A42-4F0E-8B77-3C5A1E20D9F4}-0000";
    MacAddress mac{0x02, 0, 0, 0, 0, 1};
    NDIS_MEDIUM medium = NdisMedium802_3;
    std::uint32_t ifIndex = 1;
    std::uint32_t mtu = 1500;
    bool restartAttributes = true;  ///< whether a restart carries the general attributes
    DispatchFlagUse dispatchFlag = DispatchFlagUse::kBySeed;  ///< without the verifier: always
    /// Whether protocols may leave segmentation to it: it answers each such request then.
    bool largeSends = true;
    /// Bind filters although the medium is not theirs, to see that they refuse.
    bool bindAnyway = false;
};

/// The adapter of a stack. It completes sent NBLs when its queue releases them, some with a failure
/// by choice of the machine's seed, and indicates what it is told to.
class Adapter {
  public:
    Adapter(Machine& machine, Stack& stack, AdapterOptions options);

    const AdapterOptions& options() const { return options_; }
    /// The NBLs that were sent to the adapter and that it has not completed.
    NblQueue& queue() { return queue_; }
    Component& component() { return component_; }
    AdapterObjects& objects() { return objects_; }
    /// The pool of the NBLs that the adapter indicates.
    NblPool* pool() { return pool_; }

    /// Indicates a chain of the adapter's NBLs. False when the adapter is paused, which it is after
    /// every filter module: the NBLs stay the caller's. NBLs indicated with
    /// NDIS_RECEIVE_FLAGS_RESOURCES are the caller's again when this returns, the others when
    /// onReturned has been called with them. IRQL <= DISPATCH_LEVEL.
    bool Indicate(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port = 0, ULONG flags = 0);
    /// The same, with the NumberOfNetBufferLists that the caller wants indicated, right or wrong.
    bool IndicateCounted(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG count, ULONG flags);
    /// Indicates a status to the stack.
    void IndicateStatus(PNDIS_STATUS_INDICATION status);

    // Called with what the adapter receives from above, before it is queued. Set them while no NBL
    // is outstanding.
    std::function<void(PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG flags)> onSend;
    std::function<void(PNET_BUFFER_LIST, ULONG flags)> onReturned;
    std::function<void(PVOID cancelId)> onCancel;  ///< before the sends are completed
    std::function<void(PNET_DEVICE_PNP_EVENT)> onDevicePnpEvent;
    std::function<NDIS_STATUS(PNET_PNP_EVENT_NOTIFICATION)> onNetPnpEvent;

    // Called by the stack.
    void Send(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG flags);
    void Returned(PNET_BUFFER_LIST chain, ULONG flags);
    /// Completes the queued sends with this id as NDIS_STATUS_SEND_ABORTED.
    void Cancel(PVOID cancelId);

  private:
    Machine& machine_;
    Stack& stack_;
    AdapterOptions options_;
    AdapterObjects objects_;
    Component component_;
    NblPool* pool_;
    NblQueue queue_;
    std::atomic<std::uint64_t> sent_ = 0;  ///< NBLs that were sent to the adapter
};

}  // namespace netsieve::host
