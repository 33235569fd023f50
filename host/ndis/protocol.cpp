#include "host/ndis/protocol.h"

#include <fmt/format.h>

#include "host/machine.h"
#include "host/ndis/data_path.h"
#include "host/ndis/ndis.h"
#include "host/ndis/stack.h"

namespace netsieve::host {

Protocol::Protocol(Machine& machine, Stack& stack, std::u16string name, std::uint64_t seed)
    : stack_(stack),
      objects_(machine.options().ndisVersion, std::move(name), stack.adapter().objects()),
      pool_(machine.ndis().nblPools().CreatePool(&component_, nullptr)),
      queue_(machine,
             fmt::format("protocol returns on adapter {}", stack.adapter().options().ifIndex),
             seed,
             [this](PNET_BUFFER_LIST chain, bool dispatch) {
                 ReturnDown(stack_, nullptr, component_, chain, stack_.DispatchFlag(dispatch));
             }) {
    component_.kind = ComponentKind::kProtocol;
    component_.stack = &stack_;
    component_.name =
        fmt::format("protocol {}", std::string(objects_.name.begin(), objects_.name.end()));
    component_.handle = objects_.open.address();
}

void Protocol::Send(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG flags) {
    const bool dispatch = CurrentContext().irql == DISPATCH_LEVEL;
    for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr; nbl = nbl->Next) {
        nbl->SourceHandle = component_.handle;
    }
    if (!stack_.EnterSend(CountNbls(chain))) {
        for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr; nbl = nbl->Next) {
            nbl->Status = NDIS_STATUS_PAUSED;
        }
        if (onSendComplete) {
            onSendComplete(chain, dispatch ? NDIS_SEND_COMPLETE_FLAGS_DISPATCH_LEVEL : 0);
        }
        return;
    }
    SendDown(stack_, nullptr, component_, chain, port, flags | stack_.DispatchFlag(dispatch));
}

void Protocol::CancelSend(PVOID cancelId) {
    if (stack_.EnterReceive(1)) {
        CancelDown(stack_, nullptr, cancelId);
        stack_.Leave(1);
    }
}

void Protocol::DevicePnpEvent(PNET_DEVICE_PNP_EVENT event) {
    DevicePnpDown(stack_, nullptr, event);
}

NDIS_STATUS Protocol::NetPnpEvent(PNET_PNP_EVENT_NOTIFICATION event) {
    return NetPnpDown(stack_, nullptr, event);
}

void Protocol::SendComplete(PNET_BUFFER_LIST chain, ULONG flags) {
    const ULONG nbls = CountNbls(chain);
    if (onSendComplete) {
        onSendComplete(chain, flags);
    }
    stack_.Leave(nbls);
}

void Protocol::Receive(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG count, ULONG flags) {
    for (PNET_BUFFER_LIST nbl = chain; g_verifyMode && nbl != nullptr; nbl = nbl->Next) {
        nbl->ProtocolReserved[3] = this;
    }
    if (onReceive) {
        onReceive(chain, port, count, flags);
    }
    if ((flags & NDIS_RECEIVE_FLAGS_RESOURCES) == 0) {
        queue_.Add(chain, (flags & NDIS_RECEIVE_FLAGS_DISPATCH_LEVEL) != 0);
    }
}

}  // namespace netsieve::host
