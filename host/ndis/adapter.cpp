#include "host/ndis/adapter.h"

#include <fmt/format.h>

#include "host/machine.h"
#include "host/ndis/data_path.h"
#include "host/ndis/ndis.h"
#include "host/ndis/offload.h"
#include "host/ndis/stack.h"

namespace netsieve::host {

Adapter::Adapter(Machine& machine, Stack& stack, AdapterOptions options)
    : machine_(machine),
      stack_(stack),
      options_(std::move(options)),
      objects_(machine.options().ndisVersion, options_.mac, options_.ifIndex),
      pool_(machine.ndis().nblPools().CreatePool(&component_, nullptr)),
      queue_(machine,
             fmt::format("adapter {} completes", options_.ifIndex),
             machine.options().seed ^ (0xADA0ull + options_.ifIndex),
             [this](PNET_BUFFER_LIST chain, bool dispatch) {
                 if (options_.largeSends) {
                     AnswerLargeSends(chain);
                 }
                 CompleteUp(stack_, nullptr, chain, stack_.DispatchFlag(dispatch));
             }) {
    component_.kind = ComponentKind::kAdapter;
    component_.stack = &stack_;
    component_.name = fmt::format("adapter {}", options_.ifIndex);
    component_.handle = objects_.adapter.address();
}

bool Adapter::Indicate(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG flags) {
    return IndicateCounted(chain, port, CountNbls(chain), flags);
}

bool Adapter::IndicateCounted(PNET_BUFFER_LIST chain,
                              NDIS_PORT_NUMBER port,
                              ULONG count,
                              ULONG flags) {
    const ULONG nbls = CountNbls(chain);
    if (!stack_.EnterReceive(nbls)) {
        return false;
    }
    flags |= stack_.DispatchFlag(CurrentContext().irql == DISPATCH_LEVEL);
    IndicateUp(stack_, nullptr, chain, port, count, flags);
    if ((flags & NDIS_RECEIVE_FLAGS_RESOURCES) != 0) {
        stack_.Leave(nbls);
    }
    return true;
}

void Adapter::IndicateStatus(PNDIS_STATUS_INDICATION status) {
    StatusUp(stack_, nullptr, status);
}

namespace {

// The fate of the `number`-th NBL that was sent: most arrive.
NDIS_STATUS CompletionStatus(std::uint64_t seed, std::uint64_t number) {
    constexpr NDIS_STATUS kFailures[] = {NDIS_STATUS_FAILURE, NDIS_STATUS_RESOURCES};
    Random random(seed ^ (number * 0x9E3779B97F4A7C15ull));
    return random.OneIn(4) ? kFailures[random.Below(2)] : NDIS_STATUS_SUCCESS;
}

}  // namespace

void Adapter::Send(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG flags) {
    if (g_verifyMode) {
        for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr; nbl = nbl->Next) {
            nbl->Status = CompletionStatus(machine_.options().seed, ++sent_);
            nbl->MiniportReserved[0] = this;
        }
    }
    if (onSend) {
        onSend(chain, port, flags);
    }
    queue_.Add(chain, (flags & NDIS_SEND_FLAGS_DISPATCH_LEVEL) != 0);
}

void Adapter::Returned(PNET_BUFFER_LIST chain, ULONG flags) {
    const ULONG nbls = CountNbls(chain);
    if (onReturned) {
        onReturned(chain, flags);
    }
    stack_.Leave(nbls);
}

void Adapter::Cancel(PVOID cancelId) {
    if (onCancel) {
        onCancel(cancelId);
    }
    PNET_BUFFER_LIST const chain = queue_.TakeCancelled(cancelId);
    for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr; nbl = nbl->Next) {
        nbl->Status = NDIS_STATUS_SEND_ABORTED;
    }
    if (chain != nullptr) {
        queue_.Release(chain, CurrentContext().irql == DISPATCH_LEVEL);
    }
}

}  // namespace netsieve::host
