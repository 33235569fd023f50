#include "tools/netsieve/records/driver_structures.h"

#include <algorithm>
#include <string_view>

#include "packet/nbl_context.h"
#include "packet/nirp.h"
#include "platform/atomics.h"
#include "platform/list.h"

namespace netsieve::tool {
namespace {

/// The unique name under which our driver registers, whatever its file is called.
constexpr std::u16string_view kUniqueName = u"{7C1E5B39-2D84-4a6f-B0E2-9F31C6A8D547}";

/// The entries of a list, with the lock held that guards it: a hook driver may complete its marks
/// from a timer meanwhile.
std::uint64_t CountUnder(DRIVER_SPIN_LOCK& lock, const LIST_ENTRY& head) {
    std::uint64_t count = 0;
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock.Lock);
    for (const LIST_ENTRY* at = head.Flink; at != &head; at = at->Flink) {
        ++count;
    }
    KeReleaseSpinLock(&lock.Lock, irql);
    return count;
}

}  // namespace

FILTER_MODULE* DriverModuleOf(const host::FilterModule& module) {
    const UNICODE_STRING& name = module.handlers.UniqueName;
    const bool ours = name.Buffer != nullptr &&
                      std::u16string_view(name.Buffer, name.Length / sizeof(WCHAR)) == kUniqueName;
    return ours ? static_cast<FILTER_MODULE*>(module.context) : nullptr;
}

std::uint64_t PendingRequests(FILTER_MODULE& module, Direction direction) {
    const bool sent = direction == Direction::kSent;
    return CountUnder(sent ? module.PendingSendLock : module.PendingReceiveLock,
                      sent ? module.PendingSendList : module.PendingReceiveList);
}

std::uint64_t UnpaidRequests(FILTER_MODULE& module, Direction direction) {
    const bool sent = direction == Direction::kSent;
    return CountUnder(sent ? module.PendingSendLock : module.PendingReceiveLock,
                      sent ? module.UnpaidSendList : module.UnpaidReceiveList);
}

std::uint64_t NirpsInTransit(FILTER_MODULE& module, ULONG capacity) {
    std::uint64_t held = 0;
    for (const Direction direction : {Direction::kSent, Direction::kReceived}) {
        held += 2 * PendingRequests(module, direction) + UnpaidRequests(module, direction);
    }
    const std::uint64_t idle = ReadAcquire(&module.FreeNirpCount) + held;
    return capacity - std::min<std::uint64_t>(capacity, idle);
}

std::optional<DriverNbl> ReadDriverNbl(PNET_BUFFER_LIST nbl) {
    const NET_BUFFER_LIST_CONTEXT* const block = nbl->Context;
    if (block == nullptr || block->Offset + NBL_CONTEXT_SIZE > block->Size) {
        return std::nullopt;
    }
    const auto* const context = reinterpret_cast<const NBL_CONTEXT*>(
        reinterpret_cast<const char*>(block + 1) + block->Offset);
    if (context->Magic != NBL_CONTEXT_TAG || context->Size != NBL_CONTEXT_SIZE ||
        IsListEmpty(&context->Nirps)) {
        return std::nullopt;
    }
    return DriverNbl{
        CONTAINING_RECORD(context->Nirps.Flink, NIRP, ContextLink),
        context->Type == NBL_TYPE_SEND_CLONE || context->Type == NBL_TYPE_RECEIVE_CLONE};
}

}  // namespace netsieve::tool
