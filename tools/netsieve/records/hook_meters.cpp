#include "tools/netsieve/records/hook_meters.h"

#include <algorithm>
#include <utility>

#include "packet/nirp.h"
#include "platform/atomics.h"

namespace netsieve::tool {
namespace {

/// A handler gets only its client's context, which does not identify the hook, so that every meter
/// needs handlers of its own.
HookMeter* g_meters[HOOK_MODULE_LIMIT];

template <std::size_t kMeter, Direction kDirection>
LONG NTAPI CallMetered(PVOID context, NIRP* nirp) {
    HookMeter& meter = *g_meters[kMeter];
    const ULONG marksBefore = ReadAcquire(&nirp->PendingCount);
    const LONG verdict = meter.handlers[static_cast<std::size_t>(kDirection)](context, nirp);
    // A request that is finished within the handler leaves no mark, but its state.
    const ULONG state = ReadAcquire(&nirp->State);
    const bool marked = ReadAcquire(&nirp->PendingCount) > marksBefore ||
                        (marksBefore == 0 && state == NIRP_STATE_COMPLETED);
    const Answer answer = marked                         ? Answer::kMark
                          : verdict != HOOK_VERDICT_PASS ? Answer::kWithhold
                                                         : Answer::kPass;
    meter.tally.Count(answer);
    if (answer != Answer::kPass) {
        meter.offers->CountWithheld(kDirection, meter.beforeCountingHook);
    }
    return verdict;
}

struct HandlerPair {
    HOOK_PACKET_HANDLER send;
    HOOK_PACKET_HANDLER receive;
};

template <std::size_t... kMeters>
HandlerPair HandlersOf(std::size_t meter, std::index_sequence<kMeters...>) {
    static constexpr HandlerPair kHandlers[] = {
        {CallMetered<kMeters, Direction::kSent>, CallMetered<kMeters, Direction::kReceived>}...};
    return kHandlers[meter];
}

void Replace(HOOK_PACKET_HANDLER& handler, HOOK_PACKET_HANDLER metered) {
    if (handler != nullptr) {
        handler = metered;
    }
}

std::string NameOf(const HOOK_FILTER& hook) {
    std::string name;
    for (std::size_t i = 0; i < hook.Name.Length / sizeof(WCHAR); ++i) {
        const WCHAR character = hook.Name.Buffer[i];
        name += character >= ' ' && character <= '~' ? static_cast<char>(character) : '_';
    }
    return name;
}

}  // namespace

HookMeters::~HookMeters() {
    std::fill(std::begin(g_meters), std::end(g_meters), nullptr);
}

std::vector<const HookMeter*> HookMeters::Attach(const FILTER_MODULE& module,
                                                 const std::vector<const HOOK_FILTER*>& own,
                                                 const HOOK_FILTER* countingHook,
                                                 OfferCounts& offers) {
    std::vector<const HookMeter*> fresh;
    bool beforeCountingHook = true;
    for (LONG i = 0; i < module.HookCount; ++i) {
        HOOK_FILTER* const hook = module.Hooks[i];
        beforeCountingHook = beforeCountingHook && hook != countingHook;
        const bool known = std::find(own.begin(), own.end(), hook) != own.end() ||
                           std::any_of(meters_.begin(), meters_.end(),
                                       [&](const auto& meter) { return meter->hook == hook; });
        if (known || meters_.size() == HOOK_MODULE_LIMIT) {
            continue;
        }
        const HandlerPair metered =
            HandlersOf(meters_.size(), std::make_index_sequence<HOOK_MODULE_LIMIT>());
        HookMeter& meter = *meters_.emplace_back(std::make_unique<HookMeter>());
        meter.hook = hook;
        meter.name = NameOf(*hook);
        meter.priority = hook->Priority;
        meter.beforeCountingHook = beforeCountingHook;
        meter.handlers[0] = hook->SendHandler;
        meter.handlers[1] = hook->ReceiveHandler;
        meter.offers = &offers;
        g_meters[meters_.size() - 1] = &meter;
        Replace(hook->SendHandler, metered.send);
        Replace(hook->ReceiveHandler, metered.receive);
        fresh.push_back(&meter);
    }
    return fresh;
}

}  // namespace netsieve::tool
