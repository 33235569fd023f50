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
      pool_(machine.ndis().lists().CreatePool(&party_, nullptr)),
      pace_(machine,
            fmt::format("protocol returns on adapter {}", stack.adapter().options().ifIndex),
            seed,
            [this](PNET_BUFFER_LIST chain, bool dispatch) {
                ReturnDown(stack_, nullptr, party_, chain,
                           dispatch ? NDIS_RETURN_FLAGS_DISPATCH_LEVEL : 0);
            }) {
    party_.kind = PartyKind::kProtocol;
    party_.stack = &stack_;
    party_.name =
        fmt::format("protocol {}", std::string(objects_.name.begin(), objects_.name.end()));
    party_.handle = objects_.open.Address();
}

void Protocol::Send(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG flags) {
    const bool dispatch = CurrentContext().irql == DISPATCH_LEVEL;
    for (PNET_BUFFER_LIST list = chain; list != nullptr; list = list->Next) {
        list->SourceHandle = party_.handle;
    }
    if (!stack_.Enter(CountLists(chain))) {
        for (PNET_BUFFER_LIST list = chain; list != nullptr; list = list->Next) {
            list->Status = NDIS_STATUS_PAUSED;
        }
        if (onSendComplete) {
            onSendComplete(chain, dispatch ? NDIS_SEND_COMPLETE_FLAGS_DISPATCH_LEVEL : 0);
        }
        return;
    }
    if (dispatch) {
        flags |= NDIS_SEND_FLAGS_DISPATCH_LEVEL;
    }
    SendDown(stack_, nullptr, party_, chain, port, flags);
}

void Protocol::CancelSend(PVOID cancelId) {
    CancelDown(stack_, nullptr, cancelId);
}

void Protocol::DevicePnpEvent(PNET_DEVICE_PNP_EVENT event) {
    DevicePnpDown(stack_, nullptr, event);
}

NDIS_STATUS Protocol::NetPnpEvent(PNET_PNP_EVENT_NOTIFICATION event) {
    return NetPnpDown(stack_, nullptr, event);
}

void Protocol::SendComplete(PNET_BUFFER_LIST chain, ULONG flags) {
    const ULONG lists = CountLists(chain);
    if (onSendComplete) {
        onSendComplete(chain, flags);
    }
    stack_.Leave(lists);
}

void Protocol::Receive(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG count, ULONG flags) {
    if (onReceive) {
        onReceive(chain, port, count, flags);
    }
    if ((flags & NDIS_RECEIVE_FLAGS_RESOURCES) == 0) {
        pace_.Take(chain, (flags & NDIS_RECEIVE_FLAGS_DISPATCH_LEVEL) != 0);
    }
}

}  // namespace netsieve::host
