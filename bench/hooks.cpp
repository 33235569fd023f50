#include "bench/hooks.h"

#include <fmt/format.h>

#include <stdexcept>
#include <string>

namespace netsieve::bench {

Hooks::~Hooks() {
    for (HOOK_FILTER* hook : hooks_) {
        ITarnHKDeregisterFilter(hook);
    }
}

VOID NTAPI Hooks::AttachHere(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID context) {
    Place& place = *static_cast<Place*>(context);
    if (place.wanted < 0 || place.announced == place.wanted) {
        ITarnHKAttachFilter(module, hook);
    }
    ++place.announced;
}

void Hooks::Add(HOOK_PACKET_HANDLER handler, int adapter) {
    // No name may contain another, or it would be the same hook.
    const std::string digits = fmt::format("hook {:02}.", hooks_.size());
    std::u16string name(digits.begin(), digits.end());
    HOOK_FILTER_REGISTRATION_EX block{};
    block.AttachNotify = AttachHere;
    block.SendHandler = handler;
    block.ReceiveHandler = handler;
    block.Name = {static_cast<USHORT>(name.size() * sizeof(WCHAR)),
                  static_cast<USHORT>((name.size() + 1) * sizeof(WCHAR)), name.data()};
    HOOK_FILTER* hook = nullptr;
    places_.push_back(std::make_unique<Place>(Place{.wanted = adapter}));
    if (ITarnHKRegisterFilterEx(&block, places_.back().get(), &hook) != STATUS_SUCCESS) {
        throw std::runtime_error("the hook could not be registered");
    }
    ITarnHKFlowControl(hook, HOOK_STATE_ACTIVE);
    hooks_.push_back(hook);
}

}  // namespace netsieve::bench
