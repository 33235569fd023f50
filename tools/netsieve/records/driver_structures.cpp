#include "tools/netsieve/records/driver_structures.h"

#include <string_view>

#include "packet/nbl_context.h"
#include "packet/nirp.h"
#include "platform/list.h"

namespace netsieve::tool {
namespace {

/// The unique name under which our driver registers, whatever its file is called.
constexpr std::u16string_view kUniqueName = u"{7C1E5B39-2D84-4a6f-B0E2-9F31C6A8D547}";

}  // namespace

FILTER_MODULE* DriverModuleOf(const host::FilterModule& module) {
    const UNICODE_STRING& name = module.handlers.UniqueName;
    const bool ours = name.Buffer != nullptr &&
                      std::u16string_view(name.Buffer, name.Length / sizeof(WCHAR)) == kUniqueName;
    return ours ? static_cast<FILTER_MODULE*>(module.context) : nullptr;
}

std::uint64_t UnpaidRequests(FILTER_MODULE& module, Direction direction) {
    const bool sent = direction == Direction::kSent;
    LIST_ENTRY& head = sent ? module.UnpaidSendList : module.UnpaidReceiveList;
    // A hook driver may complete its marks from a timer meanwhile.
    KSPIN_LOCK& lock = (sent ? module.PendingSendLock : module.PendingReceiveLock).Lock;
    std::uint64_t count = 0;
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
    for (const LIST_ENTRY* at = head.Flink; at != &head; at = at->Flink) {
        ++count;
    }
    KeReleaseSpinLock(&lock, irql);
    return count;
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
