#include "host/ndis/data_path.h"

#include <fmt/format.h>

#include <vector>

#include "host/kernel/callback.h"
#include "host/machine.h"
#include "host/ndis/ndis.h"
#include "host/ndis/stack.h"
#include "host/sched/happens_before.h"

namespace netsieve::host {

namespace {

using Handlers = NDIS_FILTER_DRIVER_CHARACTERISTICS;

template <auto kHandler>
FilterModule* NextLower(Stack& stack, FilterModule* from) {
    FilterModule* next =
        from == nullptr ? stack.top() : from->lower.load(std::memory_order_acquire);
    while (next != nullptr && next->handlers.*kHandler == nullptr) {
        next = next->lower.load(std::memory_order_acquire);
    }
    return next;
}

template <auto kHandler>
FilterModule* NextUpper(Stack& stack, FilterModule* from) {
    FilterModule* next =
        from == nullptr ? stack.bottom() : from->upper.load(std::memory_order_acquire);
    while (next != nullptr && next->handlers.*kHandler == nullptr) {
        next = next->upper.load(std::memory_order_acquire);
    }
    return next;
}

/// Counts a call of a handler of the data path, from before its NBLs are the module's until it has
/// returned.
class InsideModule {
  public:
    explicit InsideModule(FilterModule* module) : module_(module) {
        if (module_ != nullptr) {
            ++module_->component.callsInside;
        }
    }
    ~InsideModule() {
        if (module_ != nullptr) {
            --module_->component.callsInside;
        }
    }
    InsideModule(const InsideModule&) = delete;
    InsideModule& operator=(const InsideModule&) = delete;

  private:
    FilterModule* module_;
};

/// Calls a module's handler and checks the call.
template <typename Handler, typename... Arguments>
void CallDataPath(const char* routine,
                  FilterModule& module,
                  Handler handler,
                  Arguments... arguments) {
    CallbackScope scope(routine, module.registration.driver, &module);
    scope.frame().dataPath = true;
    handler(module.context, arguments...);
}

void CheckDispatchFlag(Machine& machine,
                       const Component& component,
                       ULONG flags,
                       const char* call,
                       CheckSite site = CheckSite::Here()) {
    if ((flags & 1) != 0 && CurrentContext().irql != DISPATCH_LEVEL) {
        machine.verifier().Report(Rule::kDispatchFlag,
                                  fmt::format("{} by {} with the flag set at IRQL {}", call,
                                              component.name, CurrentContext().irql),
                                  site);
    }
}

/// The tracker does this for each NBL that it lets pass.
void NotePassed(PNET_BUFFER_LIST chain) {
    const bool noted = kThreadSanitizer && !g_verifyMode;
    for (PNET_BUFFER_LIST nbl = chain; noted && nbl != nullptr; nbl = nbl->Next) {
        NotePassedOn(nbl);
    }
}

NblTracker& Tracker(Stack& stack) {
    return stack.machine().ndis().nblPools().tracker();
}

/// Splits a chain by a key, keeping the order within each part.
template <typename Key>
std::vector<PNET_BUFFER_LIST> Split(PNET_BUFFER_LIST chain, std::size_t parts, Key key) {
    std::vector<PNET_BUFFER_LIST> heads(parts);
    std::vector<PNET_BUFFER_LIST*> tails(parts);
    for (std::size_t i = 0; i < parts; ++i) {
        tails[i] = &heads[i];
    }
    while (chain != nullptr) {
        PNET_BUFFER_LIST const nbl = chain;
        chain = nbl->Next;
        const std::size_t part = key(nbl);
        *tails[part] = nbl;
        tails[part] = &nbl->Next;
    }
    for (PNET_BUFFER_LIST* tail : tails) {
        *tail = nullptr;
    }
    return heads;
}

/// The protocol whose NBL it is; protocolCount() for an NBL that no protocol of the stack sent.
std::size_t SenderOf(Stack& stack, PNET_BUFFER_LIST nbl) {
    const Component* const owner = g_verifyMode ? Tracker(stack).OwnerOf(nbl) : nullptr;
    std::size_t index = 0;
    for (; index < stack.protocolCount(); ++index) {
        const Component& component = stack.protocol(index).component();
        if (g_verifyMode ? owner == &component : nbl->SourceHandle == component.handle) {
            break;
        }
    }
    return index;
}

void CompleteToProtocols(Stack& stack, Component& from, PNET_BUFFER_LIST chain, ULONG flags) {
    if (!g_verifyMode && stack.protocolCount() == 1) {
        stack.protocol().SendComplete(chain, flags);
        return;
    }
    const std::size_t count = stack.protocolCount();
    const auto parts =
        Split(chain, count + 1, [&](PNET_BUFFER_LIST nbl) { return SenderOf(stack, nbl); });
    for (std::size_t i = 0; i < count; ++i) {
        PNET_BUFFER_LIST part = parts[i];
        if (g_verifyMode && part != nullptr) {
            part = Tracker(stack).Transfer(part, from, stack.protocol(i).component(),
                                           NblTransfer::kSendComplete);
        }
        if (part != nullptr) {
            stack.protocol(i).SendComplete(part, flags);
        }
    }
    if (g_verifyMode && parts[count] != nullptr) {
        // No protocol sent these: the tracker reports what is wrong with each.
        Tracker(stack).Transfer(parts[count], from, stack.protocol().component(),
                                NblTransfer::kSendComplete);
    }
}

struct Indication {
    NDIS_PORT_NUMBER port;
    ULONG count;
    ULONG flags;
    bool HasResourcesFlag() const { return (flags & NDIS_RECEIVE_FLAGS_RESOURCES) != 0; }
};

std::vector<PNET_BUFFER_LIST> NblsOf(PNET_BUFFER_LIST chain) {
    std::vector<PNET_BUFFER_LIST> nbls;
    for (; chain != nullptr; chain = chain->Next) {
        nbls.push_back(chain);
    }
    return nbls;
}

void DeliverToProtocol(Stack& stack,
                       Protocol& protocol,
                       Component& from,
                       PNET_BUFFER_LIST chain,
                       const Indication& indication) {
    if (!g_verifyMode) {
        protocol.Receive(chain, indication.port, indication.count, indication.flags);
        return;
    }
    chain = Tracker(stack).Transfer(chain, from, protocol.component(), NblTransfer::kIndicate,
                                    indication.HasResourcesFlag());
    if (chain == nullptr) {
        return;
    }
    const std::vector<PNET_BUFFER_LIST> nbls = NblsOf(chain);
    protocol.Receive(chain, indication.port, indication.count, indication.flags);
    if (indication.HasResourcesFlag()) {
        Tracker(stack).ResourcesCallEnded(nbls, from, protocol.component());
    }
}

void IndicateToProtocols(Stack& stack,
                         Component& from,
                         PNET_BUFFER_LIST chain,
                         const Indication& indication) {
    if (!stack.chooseReceiver) {
        DeliverToProtocol(stack, stack.protocol(), from, chain, indication);
        return;
    }
    const std::vector<PNET_BUFFER_LIST> nbls =
        indication.HasResourcesFlag() ? NblsOf(chain) : std::vector<PNET_BUFFER_LIST>();
    const auto parts = Split(chain, stack.protocolCount(), stack.chooseReceiver);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (parts[i] != nullptr) {
            DeliverToProtocol(stack, stack.protocol(i), from, parts[i],
                              {indication.port, CountNbls(parts[i]), indication.flags});
        }
    }
    for (std::size_t i = 0; i < nbls.size(); ++i) {
        nbls[i]->Next = i + 1 < nbls.size() ? nbls[i + 1] : nullptr;
    }
}

void CheckCount(Stack& stack, const Component& from, PNET_BUFFER_LIST chain, ULONG count) {
    const ULONG nbls = Tracker(stack).Count(chain);
    const CallFrame* const frame = CurrentContext().frame;
    if (count != nbls && (frame == nullptr || !frame->countWasWrong)) {
        stack.machine().verifier().Report(
            Rule::kNblCount,
            fmt::format("{} indicated {} NBL(s) and said {}", from.name, nbls, count));
    }
}

/// Of the module, or of the adapter at the end of the stack.
Component& ComponentOrAdapter(Stack& stack, FilterModule* module) {
    return module != nullptr ? module->component : stack.adapter().component();
}

void SendDownChecked(Stack& stack,
                     FilterModule* next,
                     Component& component,
                     PNET_BUFFER_LIST chain,
                     NDIS_PORT_NUMBER port,
                     ULONG flags) {
    const InsideModule inside(next);
    CheckDispatchFlag(stack.machine(), component, flags, "send");
    chain = Tracker(stack).Transfer(chain, component, ComponentOrAdapter(stack, next),
                                    NblTransfer::kSend);
    if (chain == nullptr) {
        return;
    }
    if (next == nullptr) {
        stack.adapter().Send(chain, port, flags);
        return;
    }
    CallDataPath("FilterSendNetBufferLists", *next, next->handlers.SendNetBufferListsHandler, chain,
                 port, flags);
}

void CompleteUpChecked(Stack& stack,
                       FilterModule* next,
                       Component& component,
                       PNET_BUFFER_LIST chain,
                       ULONG flags) {
    const InsideModule inside(next);
    CheckDispatchFlag(stack.machine(), component, flags, "send completion");
    if (next == nullptr) {
        CompleteToProtocols(stack, component, chain, flags);
        return;
    }
    chain = Tracker(stack).Transfer(chain, component, next->component, NblTransfer::kSendComplete);
    if (chain != nullptr) {
        CallDataPath("FilterSendNetBufferListsComplete", *next,
                     next->handlers.SendNetBufferListsCompleteHandler, chain, flags);
    }
}

void IndicateUpChecked(Stack& stack,
                       FilterModule* next,
                       Component& component,
                       PNET_BUFFER_LIST chain,
                       Indication indication) {
    const InsideModule inside(next);
    CheckDispatchFlag(stack.machine(), component, indication.flags, "indication");
    CheckCount(stack, component, chain, indication.count);
    if (!indication.HasResourcesFlag() && Tracker(stack).DropsResourcesFlag(chain, component)) {
        indication.flags |= NDIS_RECEIVE_FLAGS_RESOURCES;
    }
    if (next == nullptr) {
        IndicateToProtocols(stack, component, chain, indication);
        return;
    }
    chain = Tracker(stack).Transfer(chain, component, next->component, NblTransfer::kIndicate,
                                    indication.HasResourcesFlag());
    if (chain == nullptr) {
        return;
    }
    const std::vector<PNET_BUFFER_LIST> nbls = NblsOf(chain);
    {
        CallbackScope scope("FilterReceiveNetBufferLists", next->registration.driver, next);
        scope.frame().dataPath = true;
        scope.frame().countWasWrong = indication.count != nbls.size();
        next->handlers.ReceiveNetBufferListsHandler(next->context, chain, indication.port,
                                                    indication.count, indication.flags);
    }
    if (indication.HasResourcesFlag()) {
        Tracker(stack).ResourcesCallEnded(nbls, component, next->component);
    }
}

void ReturnDownChecked(Stack& stack,
                       FilterModule* next,
                       Component& component,
                       PNET_BUFFER_LIST chain,
                       ULONG flags) {
    const InsideModule inside(next);
    CheckDispatchFlag(stack.machine(), component, flags, "return");
    chain = Tracker(stack).Transfer(chain, component, ComponentOrAdapter(stack, next),
                                    NblTransfer::kReturn);
    if (chain == nullptr) {
        return;
    }
    if (next == nullptr) {
        stack.adapter().Returned(chain, flags);
        return;
    }
    CallDataPath("FilterReturnNetBufferLists", *next, next->handlers.ReturnNetBufferListsHandler,
                 chain, flags);
}

}  // namespace

// Without the verifier a call goes straight to the next module, or to the end of the stack.

void NTAPI SendDown(Stack& stack,
                    FilterModule* from,
                    Component& component,
                    PNET_BUFFER_LIST chain,
                    NDIS_PORT_NUMBER port,
                    ULONG flags) {
    NotePassed(chain);
    FilterModule* const next = NextLower<&Handlers::SendNetBufferListsHandler>(stack, from);
    if (g_verifyMode) {
        SendDownChecked(stack, next, component, chain, port, flags);
    } else if (next == nullptr) {
        stack.adapter().Send(chain, port, flags);
    } else {
        next->handlers.SendNetBufferListsHandler(next->context, chain, port, flags);
    }
}

void NTAPI CompleteUp(Stack& stack, FilterModule* from, PNET_BUFFER_LIST chain, ULONG flags) {
    Component& component = from == nullptr ? stack.adapter().component() : from->component;
    NotePassed(chain);
    FilterModule* const next = NextUpper<&Handlers::SendNetBufferListsCompleteHandler>(stack, from);
    if (g_verifyMode) {
        CompleteUpChecked(stack, next, component, chain, flags);
    } else if (next == nullptr) {
        CompleteToProtocols(stack, component, chain, flags);
    } else {
        next->handlers.SendNetBufferListsCompleteHandler(next->context, chain, flags);
    }
}

void NTAPI IndicateUp(Stack& stack,
                      FilterModule* from,
                      PNET_BUFFER_LIST chain,
                      NDIS_PORT_NUMBER port,
                      ULONG count,
                      ULONG flags) {
    Component& component = from == nullptr ? stack.adapter().component() : from->component;
    NotePassed(chain);
    FilterModule* const next = NextUpper<&Handlers::ReceiveNetBufferListsHandler>(stack, from);
    if (g_verifyMode) {
        IndicateUpChecked(stack, next, component, chain, {port, count, flags});
    } else if (next == nullptr) {
        IndicateToProtocols(stack, component, chain, {port, count, flags});
    } else {
        next->handlers.ReceiveNetBufferListsHandler(next->context, chain, port, count, flags);
    }
}

void NTAPI ReturnDown(Stack& stack,
                      FilterModule* from,
                      Component& component,
                      PNET_BUFFER_LIST chain,
                      ULONG flags) {
    NotePassed(chain);
    FilterModule* const next = NextLower<&Handlers::ReturnNetBufferListsHandler>(stack, from);
    if (g_verifyMode) {
        ReturnDownChecked(stack, next, component, chain, flags);
    } else if (next == nullptr) {
        stack.adapter().Returned(chain, flags);
    } else {
        next->handlers.ReturnNetBufferListsHandler(next->context, chain, flags);
    }
}

void CancelDown(Stack& stack, FilterModule* from, PVOID cancelId) {
    FilterModule* const next = NextLower<&Handlers::CancelSendNetBufferListsHandler>(stack, from);
    if (next == nullptr) {
        stack.adapter().Cancel(cancelId);
        return;
    }
    CallbackScope scope("FilterCancelSendNetBufferLists", next->registration.driver, next);
    next->handlers.CancelSendNetBufferListsHandler(next->context, cancelId);
    if (!scope.frame().cancelForwarded) {
        stack.machine().verifier().Report(Rule::kCancelNotForwarded, next->component.name);
    }
}

void DevicePnpDown(Stack& stack, FilterModule* from, PNET_DEVICE_PNP_EVENT event) {
    stack.machine().verifier().DemandPassive("device PnP event");
    FilterModule* const next = NextLower<&Handlers::DevicePnPEventNotifyHandler>(stack, from);
    if (next == nullptr) {
        if (stack.adapter().onDevicePnpEvent) {
            stack.adapter().onDevicePnpEvent(event);
        }
        return;
    }
    const CallbackScope scope("FilterDevicePnPEventNotify", next->registration.driver, next);
    next->handlers.DevicePnPEventNotifyHandler(next->context, event);
}

NDIS_STATUS NetPnpDown(Stack& stack, FilterModule* from, PNET_PNP_EVENT_NOTIFICATION event) {
    stack.machine().verifier().DemandPassive("network PnP event");
    FilterModule* const next = NextLower<&Handlers::NetPnPEventHandler>(stack, from);
    if (next == nullptr) {
        return stack.adapter().onNetPnpEvent ? stack.adapter().onNetPnpEvent(event)
                                             : NDIS_STATUS_SUCCESS;
    }
    const CallbackScope scope("FilterNetPnPEvent", next->registration.driver, next);
    return next->handlers.NetPnPEventHandler(next->context, event);
}

void StatusUp(Stack& stack, FilterModule* from, PNDIS_STATUS_INDICATION status) {
    FilterModule* const next = NextUpper<&Handlers::StatusHandler>(stack, from);
    if (next == nullptr) {
        for (std::size_t i = 0; i < stack.protocolCount(); ++i) {
            if (stack.protocol(i).onStatus) {
                stack.protocol(i).onStatus(status);
            }
        }
        return;
    }
    const CallbackScope scope("FilterStatus", next->registration.driver, next);
    next->handlers.StatusHandler(next->context, status);
}

}  // namespace netsieve::host

using namespace netsieve::host;

namespace {

/// The module that makes an NDIS call, for the duration of the call.
class ModuleCall {
  public:
    /// `given`: whether there is something to pass on.
    ModuleCall(NDIS_HANDLE handle, const char* routine, bool given = true) {
        if (!g_verifyMode) {
            module_ = static_cast<FilterModule*>(InternalObject::OwnerOf(handle));
            Machine::Current().EnterCall(routine);
            return;
        }
        Machine& machine = Machine::Current();
        machine.EnterCall(routine);
        module_ = machine.ndis().ModuleOf(handle);
        if (module_ == nullptr) {
            machine.verifier().Report(Rule::kModuleFreedInUse,
                                      fmt::format("{} with a handle that is no module's", routine));
            return;
        }
        if (!given) {
            machine.verifier().Report(Rule::kNblChainEmpty, routine);
            module_ = nullptr;
            return;
        }
        frame_ = CurrentContext().frame;
        counted_ = frame_ != nullptr && frame_->dataPath && frame_->module == module_;
        module_->callsBelow += counted_ ? 1 : 0;
    }
    ~ModuleCall() {
        if (counted_) {
            --module_->callsBelow;
        }
        Machine::Current().LeaveCall();
    }
    ModuleCall(const ModuleCall&) = delete;
    ModuleCall& operator=(const ModuleCall&) = delete;

    explicit operator bool() const { return module_ != nullptr; }
    FilterModule* operator->() const { return module_; }
    FilterModule* Get() const { return module_; }

  private:
    FilterModule* module_ = nullptr;
    CallFrame* frame_ = nullptr;
    bool counted_ = false;
};

}  // namespace

extern "C" {

VOID NTAPI NdisFSendNetBufferLists(NDIS_HANDLE NdisFilterHandle,
                                   PNET_BUFFER_LIST NetBufferLists,
                                   NDIS_PORT_NUMBER PortNumber,
                                   ULONG SendFlags) {
    const ModuleCall call(NdisFilterHandle, "NdisFSendNetBufferLists", NetBufferLists != nullptr);
    if (call) {
        SendDown(call->stack, call.Get(), call->component, NetBufferLists, PortNumber, SendFlags);
    }
}

VOID NTAPI NdisFSendNetBufferListsComplete(NDIS_HANDLE NdisFilterHandle,
                                           PNET_BUFFER_LIST NetBufferLists,
                                           ULONG SendCompleteFlags) {
    const ModuleCall call(NdisFilterHandle, "NdisFSendNetBufferListsComplete",
                          NetBufferLists != nullptr);
    if (call) {
        CompleteUp(call->stack, call.Get(), NetBufferLists, SendCompleteFlags);
    }
}

VOID NTAPI NdisFIndicateReceiveNetBufferLists(NDIS_HANDLE NdisFilterHandle,
                                              PNET_BUFFER_LIST NetBufferLists,
                                              NDIS_PORT_NUMBER PortNumber,
                                              ULONG NumberOfNetBufferLists,
                                              ULONG ReceiveFlags) {
    const ModuleCall call(NdisFilterHandle, "NdisFIndicateReceiveNetBufferLists",
                          NetBufferLists != nullptr);
    if (call) {
        IndicateUp(call->stack, call.Get(), NetBufferLists, PortNumber, NumberOfNetBufferLists,
                   ReceiveFlags);
    }
}

VOID NTAPI NdisFReturnNetBufferLists(NDIS_HANDLE NdisFilterHandle,
                                     PNET_BUFFER_LIST NetBufferLists,
                                     ULONG ReturnFlags) {
    const ModuleCall call(NdisFilterHandle, "NdisFReturnNetBufferLists", NetBufferLists != nullptr);
    if (call) {
        ReturnDown(call->stack, call.Get(), call->component, NetBufferLists, ReturnFlags);
    }
}

VOID NTAPI NdisFCancelSendNetBufferLists(NDIS_HANDLE NdisFilterHandle, PVOID CancelId) {
    const ModuleCall call(NdisFilterHandle, "NdisFCancelSendNetBufferLists");
    if (call) {
        if (CallFrame* const frame = CurrentContext().frame;
            frame != nullptr && frame->module == call.Get()) {
            frame->cancelForwarded = true;
        }
        CancelDown(call->stack, call.Get(), CancelId);
    }
}

VOID NTAPI NdisFDevicePnPEventNotify(NDIS_HANDLE NdisFilterHandle,
                                     PNET_DEVICE_PNP_EVENT NetDevicePnPEvent) {
    const ModuleCall call(NdisFilterHandle, "NdisFDevicePnPEventNotify");
    if (call) {
        DevicePnpDown(call->stack, call.Get(), NetDevicePnPEvent);
    }
}

NDIS_STATUS NTAPI NdisFNetPnPEvent(NDIS_HANDLE NdisFilterHandle,
                                   PNET_PNP_EVENT_NOTIFICATION NetPnPEventNotification) {
    const ModuleCall call(NdisFilterHandle, "NdisFNetPnPEvent");
    return call ? NetPnpDown(call->stack, call.Get(), NetPnPEventNotification)
                : NDIS_STATUS_INVALID_PARAMETER;
}

VOID NTAPI NdisFIndicateStatus(NDIS_HANDLE NdisFilterHandle,
                               PNDIS_STATUS_INDICATION StatusIndication) {
    const ModuleCall call(NdisFilterHandle, "NdisFIndicateStatus");
    if (call) {
        StatusUp(call->stack, call.Get(), StatusIndication);
    }
}

}  // extern "C"
