#include "tools/netsieve/built_in_hook.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "tools/netsieve/mac_address.h"

namespace netsieve::tool {
namespace {

constexpr std::uint32_t kPriorities[] = {HOOK_PRIORITY_CLASS_0, HOOK_PRIORITY_CLASS_1,
                                         HOOK_PRIORITY_CLASS_2, HOOK_PRIORITY_CLASS_3,
                                         HOOK_PRIORITY_LAST};

/// The name without characters that would break a log line.
std::string Printable(const PROTOCOL_ENTRY* entry) {
    if (entry == nullptr || entry->Length == 0) {
        return "-";
    }
    std::string text(entry->Buffer, entry->Length);
    for (char& character : text) {
        character = character > ' ' && character <= '~' ? character : '_';
    }
    return text;
}

}  // namespace

BuiltInHook::BuiltInHook(SharedHookData& shared, HookOption spec, unsigned number)
    : shared_(shared), spec_(std::move(spec)), number_(number) {
    // Of fixed width: the driver treats hooks as one when the name of one contains the other's.
    const std::string name = fmt::format("netsieve-replay hook {:03}", number);
    name_.assign(name.begin(), name.end());
}

std::uint32_t BuiltInHook::Priority() const {
    return number_ == 0 ? 0 : kPriorities[spec_.priorityClass] + number_;
}

std::optional<std::string> BuiltInHook::Register(bool countsOffers) {
    countsOffers_ = countsOffers;
    HOOK_FILTER_REGISTRATION_EX block{};
    block.MajorVersion = 1;
    block.AttachNotify = OnAttach;
    block.DetachNotify = OnDetach;
    block.SendHandler = OnFrame<Direction::kSent>;
    block.ReceiveHandler = OnFrame<Direction::kReceived>;
    block.Priority = Priority();
    block.Name.Length = static_cast<USHORT>(name_.size() * sizeof(WCHAR));
    block.Name.MaximumLength = static_cast<USHORT>(block.Name.Length + sizeof(WCHAR));
    block.Name.Buffer = name_.data();
    const NTSTATUS status = shared_.exports.registerFilter(&block, this, &handle_);
    if (status != STATUS_SUCCESS) {
        return fmt::format("the hook {} could not be registered, status 0x{:08X}", spec_.text,
                           static_cast<std::uint32_t>(status));
    }
    if (attachStatus_ != STATUS_SUCCESS) {
        Deregister();
        return fmt::format("the hook {} could not be attached to the adapter, status 0x{:08X}",
                           spec_.text, static_cast<std::uint32_t>(attachStatus_));
    }
    shared_.exports.flowControl(handle_, HOOK_STATE_ACTIVE);
    return std::nullopt;
}

void BuiltInHook::Deregister() {
    if (handle_ != nullptr) {
        shared_.exports.deregisterFilter(handle_);
        handle_ = nullptr;
    }
}

VOID NTAPI BuiltInHook::OnAttach(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID context) {
    auto& self = *static_cast<BuiltInHook*>(context);
    std::optional<WithoutFaults> guard;
    if (self.number_ == 0) {
        guard.emplace(*self.shared_.faults);  // without it the summary would be wrong
    }
    self.attachStatus_ = self.shared_.exports.attachFilter(module, hook);
}

VOID NTAPI BuiltInHook::OnDetach(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID context) {
    static_cast<BuiltInHook*>(context)->shared_.exports.detachFilter(module, hook);
}

template <Direction kDirection>
LONG NTAPI BuiltInHook::OnFrame(PVOID context, NIRP* nirp) {
    auto& self = *static_cast<BuiltInHook*>(context);
    if (self.countsOffers_) {
        self.shared_.offers.CountOffered(kDirection);
    }
    Answer answer = Answer::kPass;
    if (self.Selects(nirp)) {
        self.tally_.matched.Add();
        answer = self.Treat(nirp, kDirection);
    }
    self.tally_.Count(answer);
    if (answer == Answer::kPass) {
        return HOOK_VERDICT_PASS;
    }
    self.shared_.offers.CountWithheld(kDirection, false);
    return answer == Answer::kMark ? HOOK_VERDICT_PENDING : HOOK_VERDICT_WITHHOLD;
}

Answer BuiltInHook::Treat(NIRP* nirp, Direction direction) {
    switch (spec_.kind) {
        case HookKind::kDrop:
            return Answer::kWithhold;
        case HookKind::kDelay:
        case HookKind::kHold:
            return MarkPending(nirp, direction);
        case HookKind::kLog:
            Log(nirp, direction);
            return Answer::kPass;
        case HookKind::kReplyArp:
            ReplyToArp(nirp, direction);
            return Answer::kPass;
        default:
            return Answer::kPass;
    }
}

Answer BuiltInHook::MarkPending(NIRP* nirp, Direction direction) {
    if (!shared_.held.CanHold(nirp) || shared_.exports.markPending(nirp) != STATUS_SUCCESS) {
        tally_.overflow.Add();
        return spec_.overflowDrops ? Answer::kWithhold : Answer::kPass;
    }
    std::optional<CaptureStamp> due;
    if (spec_.kind == HookKind::kDelay) {
        due = shared_.clock->Now().After(std::chrono::milliseconds(spec_.delayMilliseconds));
    }
    shared_.held.Add(nirp, direction, due, spec_.releases);
    return Answer::kMark;
}

void BuiltInHook::ReplyToArp(NIRP* nirp, Direction direction) {
    const HookExports& exports = shared_.exports;
    HOOK_ADAPTER_INFO info{};
    // Injected frames are sent by the adapter, where the sender of a sent request would not see
    // them.
    if (direction == Direction::kSent || exports.getAdapterInfo(nirp, &info) != STATUS_SUCCESS) {
        return;
    }
    MacAddress sender{};
    std::copy(std::begin(info.MacAddress), std::end(info.MacAddress), sender.begin());
    const auto reply =
        ReplyTo(exports.getBuffer(nirp), exports.getBufferLength(nirp), spec_.answer, sender);
    if (reply) {
        tally_.injected.Add();
        exports.sendPacket(nullptr, reply->data(), static_cast<ULONG>(reply->size()));
    }
}

bool BuiltInHook::Selects(NIRP* nirp) const {
    const HookExports& exports = shared_.exports;
    return spec_.filter == nullptr ||
           spec_.filter->Matches(exports.getBuffer(nirp), exports.getBufferLength(nirp));
}

void BuiltInHook::Log(NIRP* nirp, Direction direction) const {
    const HookExports& exports = shared_.exports;
    PROTOCOL_ENTRY* protocol = nullptr;
    exports.getProtocolName(nirp, &protocol);
    HOOK_ADAPTER_INFO info{};
    MacAddress address{};
    const bool known = exports.getAdapterInfo(nirp, &info) == STATUS_SUCCESS;
    std::copy(std::begin(info.MacAddress), std::end(info.MacAddress), address.begin());
    // No exception may leave a handler. The stream records that a write failed.
    const std::string line =
        fmt::format("hook={} direction={} protocol={} adapter={} length={}\n", number_,
                    direction == Direction::kSent ? "send" : "receive", Printable(protocol),
                    known ? FormatMac(address) : "-", exports.getBufferLength(nirp));
    std::fwrite(line.data(), 1, line.size(), shared_.log);
}

}  // namespace netsieve::tool
