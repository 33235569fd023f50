#include "host/client/client_watch.h"

#include <fmt/format.h>

#include <algorithm>
#include <type_traits>
#include <utility>

#include "host/kernel/callback.h"
#include "host/machine.h"
#include "host/ndis/filter_module.h"

namespace netsieve::host {

namespace {

constexpr const char* kClientDriver = "NETSIEVE";  // the service name of the driver that has hooks

std::string Printable(const UNICODE_STRING& name) {
    std::string text;
    for (unsigned i = 0; name.Buffer != nullptr && i < name.Length / sizeof(WCHAR); ++i) {
        const WCHAR character = name.Buffer[i];
        text += character >= u' ' && character <= u'~' ? static_cast<char>(character) : '_';
    }
    return text;
}

/// The frame of the notification that the caller is inside of; null outside of any.
const CallFrame* EnclosingNotification() {
    for (const CallFrame* frame = CurrentContext().frame; frame != nullptr; frame = frame->outer) {
        if (frame->IsHookCallback() && frame->hookRoutine != HookRoutine::kPacketHandler) {
            return frame;
        }
    }
    return nullptr;
}

bool IsInside(const WatchedHook& hook, HookRoutine routine) {
    for (const CallFrame* frame = CurrentContext().frame; frame != nullptr; frame = frame->outer) {
        if (frame->hook == &hook && frame->hookRoutine == routine) {
            return true;
        }
    }
    return false;
}

/// What the driver knows the adapter by whose handler the caller is inside of; null outside of any.
const FILTER_MODULE* EnclosingModule() {
    const CallFrame* frame = CurrentContext().frame;
    while (frame != nullptr && frame->module == nullptr) {
        frame = frame->outer;
    }
    return frame == nullptr ? nullptr
                            : static_cast<const FILTER_MODULE*>(
                                  static_cast<const FilterModule*>(frame->module)->context);
}

/// The client's code is no longer there.
bool IsGone(const WatchedHook& hook) {
    return hook.owner != nullptr && hook.owner->gone();
}

}  // namespace

std::string WatchedHook::Describe() const {
    return owner == nullptr ? fmt::format("hook '{}'", name)
                            : fmt::format("hook '{}' of {}", name, owner->name());
}

/// Surrounds a callback of a hook.
class ClientWatch::HookCall {
  public:
    /// `code` is the hook's own.
    template <typename Code>
    HookCall(const char* routine,
             const WatchedHook& hook,
             HookRoutine kind,
             Code* code,
             const NIRP* nirp = nullptr)
        : scope_(routine, hook.owner, nullptr) {
        CallFrame& frame = scope_.frame();
        frame.code = reinterpret_cast<const void*>(code);
        frame.hook = &hook;
        frame.hookName = hook.name.c_str();
        frame.hookRoutine = kind;
        frame.nirp = nirp;
    }
    const CallFrame& frame() { return scope_.frame(); }

  private:
    CallbackScope scope_;
};

ClientWatch::ClientWatch(Machine& machine) : machine_(machine) {
    current_ = this;
}

ClientWatch::~ClientWatch() {
    current_ = nullptr;
}

template <typename Function, typename... Arguments>
auto ClientWatch::CallDriver(const char* routine,
                             Function function,
                             const WatchedHook* hook,
                             Arguments... arguments) {
    LoadedDriver* const image = machine_.DriverAt(reinterpret_cast<const void*>(function));
    CallbackScope scope(routine, image != nullptr ? image : machine_.FindDriver(kClientDriver),
                        nullptr);
    scope.frame().hook = hook;
    scope.frame().hookRoutine = HookRoutine::kDriverCall;
    return function(arguments...);
}

// ---- Who calls -----------------------------------------------------------------------------

ClientWatch::Caller ClientWatch::FindCaller() {
    const Context& context = CurrentContext();
    Caller caller{.driver = LoadedDriver::Calling(context)};
    // The program's own code, in a callback of an adapter or a protocol.
    if (caller.driver != nullptr && caller.driver->name() == kClientDriver) {
        caller.driver = nullptr;
    }
    if (context.frame != nullptr && context.frame->IsHookCallback()) {
        caller.hook = const_cast<WatchedHook*>(context.frame->hook);
    }
    return caller;
}

std::string ClientWatch::DescribeCaller() {
    const Caller caller = FindCaller();
    if (caller.hook != nullptr) {
        return caller.hook->Describe();
    }
    return caller.driver == nullptr ? "the program" : caller.driver->name();
}

// Of a client that is not inside a callback it is not known which of its hooks calls: the one that
// was shown the NIRP.
std::string ClientWatch::DescribeUser(const NIRP* nirp) {
    const Caller caller = FindCaller();
    const WatchedHook* const shown = ledger_.LastShown(nirp);
    const bool isShown =
        caller.hook == nullptr && shown != nullptr && shown->owner == caller.driver;
    return isShown ? shown->Describe() : DescribeCaller();
}

// A driver may complete in one hook's callback what another of its hooks has marked.
Marks* ClientWatch::FindMarks(const NIRP* nirp, const Caller& caller) {
    Marks* const own =
        ledger_.Find(nirp, [&](const WatchedHook& hook) { return &hook == caller.hook; });
    if (own != nullptr && !own->isVoid) {
        return own;
    }
    return ledger_.Find(nirp, [&](const WatchedHook& hook) { return hook.owner == caller.driver; });
}

// ---- Registration --------------------------------------------------------------------------

template <typename Block>
WatchedHook& ClientWatch::TakeOver(Block& block, PVOID context) {
    auto made = std::make_unique<WatchedHook>();
    WatchedHook& hook = *made;
    hook.name = Printable(block.Name);
    hook.owner = FindCaller().driver;
    hook.context = context;
    const auto take = [](auto& callback, auto& original, auto watched) {
        original = std::exchange(callback, callback == nullptr ? nullptr : watched);
    };
    take(block.AttachNotify, hook.attachNotify, &OnAttach);
    take(block.DetachNotify, hook.detachNotify, &OnDetach);
    take(block.UnloadNotify, hook.unloadNotify, &OnUnload);
    if constexpr (std::is_same_v<Block, HOOK_FILTER_REGISTRATION_EX>) {
        take(block.SendHandler, hook.sendHandler, &OnSend);
        take(block.ReceiveHandler, hook.receiveHandler, &OnReceive);
    }
    HostLock lock(mutex_);
    hooks_.push_back(std::move(made));
    return hook;
}

// The driver may have joined the registration to a hook that is there: the new record is idle then.
NTSTATUS ClientWatch::Registered(NTSTATUS status, WatchedHook& hook, HOOK_FILTER** hookOut) {
    if (!NT_SUCCESS(status)) {
        return status;
    }
    HOOK_FILTER* const handle = *hookOut;
    HostLock lock(mutex_);
    WatchedHook*& known = byHandle_[handle];
    if (known == nullptr || known->registrants.empty()) {
        known = &hook;
        hook.handle = handle;
    }
    known->registrants.push_back(hook.owner);
    return status;
}

WatchedHook* ClientWatch::HookOf(const HOOK_FILTER* handle) {
    HostLock lock(mutex_);
    const auto known = byHandle_.find(handle);
    return known == byHandle_.end() ? nullptr : known->second;
}

template <typename Block, typename Call>
NTSTATUS ClientWatch::Register(const char* routine,
                               const Block* registration,
                               PVOID context,
                               HOOK_FILTER** hookOut,
                               Call call) {
    if (!MayCall(routine, InUnload::kForbidden)) {
        return STATUS_UNSUCCESSFUL;
    }
    if (registration == nullptr || hookOut == nullptr) {
        return call(nullptr, registration, context);
    }
    Block block = *registration;
    WatchedHook& hook = TakeOver(block, context);
    return Registered(call(&hook, &block, &hook), hook, hookOut);
}

NTSTATUS ClientWatch::ITarnHKRegisterFilterEx(const DriverExports& driver,
                                              const HOOK_FILTER_REGISTRATION_EX* registration,
                                              PVOID context,
                                              HOOK_FILTER** hookOut) {
    constexpr const char* kRoutine = "ITarnHKRegisterFilterEx";
    return Register(kRoutine, registration, context, hookOut,
                    [&](WatchedHook* hook, const HOOK_FILTER_REGISTRATION_EX* block, PVOID its) {
                        return CallDriver(kRoutine, driver.ITarnHKRegisterFilterEx, hook, block,
                                          its, hookOut);
                    });
}

NTSTATUS ClientWatch::ITarnHKRegisterFilter(const DriverExports& driver,
                                            const HOOK_FILTER_REGISTRATION* registration,
                                            PVOID context,
                                            ULONG priorityClass,
                                            HOOK_FILTER** hookOut) {
    constexpr const char* kRoutine = "ITarnHKRegisterFilter";
    return Register(kRoutine, registration, context, hookOut,
                    [&](WatchedHook* hook, const HOOK_FILTER_REGISTRATION* block, PVOID its) {
                        return CallDriver(kRoutine, driver.ITarnHKRegisterFilter, hook, block, its,
                                          priorityClass, hookOut);
                    });
}

NTSTATUS ClientWatch::ITarnHKDeregisterFilter(const DriverExports& driver, HOOK_FILTER* handle) {
    constexpr const char* kRoutine = "ITarnHKDeregisterFilter";
    WatchedHook* const hook = HookOf(handle);
    if (!MayCall(kRoutine)) {
        return STATUS_UNSUCCESSFUL;
    }
    if (hook != nullptr && IsInside(*hook, HookRoutine::kPacketHandler)) {
        machine_.verifier().Report(
            Rule::kHookHandlerDeregisters,
            fmt::format("{} called from a handler of {}", kRoutine, hook->Describe()));
        return STATUS_UNSUCCESSFUL;
    }
    // The driver has nothing left to take it down with.
    if (hook != nullptr && hook->left) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = CallDriver(kRoutine, driver.ITarnHKDeregisterFilter, hook, handle);
    if (hook != nullptr) {
        EndRegistration(*hook);
    }
    return status;
}

// Every notification of the hook has returned.
void ClientWatch::EndRegistration(WatchedHook& hook) {
    const LoadedDriver* const caller = FindCaller().driver;
    {
        HostLock lock(mutex_);
        auto& registrants = hook.registrants;
        const auto own = std::find(registrants.begin(), registrants.end(), caller);
        if (!registrants.empty()) {
            registrants.erase(own == registrants.end() ? registrants.begin() : own);
        }
    }
    ReportOpenMarks(hook, nullptr, "it has been deregistered");
}

void ClientWatch::ReportLeft(const LoadedDriver& gone) {
    const bool all = gone.name() == kClientDriver;
    HostLock lock(mutex_);
    for (const auto& hook : hooks_) {
        const auto isLeft = [&](const LoadedDriver* driver) { return all || driver == &gone; };
        if (hook->left ||
            std::none_of(hook->registrants.begin(), hook->registrants.end(), isLeft)) {
            continue;
        }
        hook->left = true;
        machine_.verifier().Report(
            Rule::kHookLeft,
            fmt::format("{} is still registered when {} is gone", hook->Describe(), gone.name()));
    }
}

// ---- Callbacks -----------------------------------------------------------------------------

VOID NTAPI ClientWatch::OnAttach(FILTER_MODULE* module, HOOK_FILTER* handle, PVOID context) {
    auto& hook = *static_cast<WatchedHook*>(context);
    if (IsGone(hook)) {
        return;
    }
    {
        // The first adapters are announced before the registration has returned the handle.
        HostLock lock(current_->mutex_);
        hook.handle = handle;
        current_->byHandle_[handle] = &hook;
    }
    const HookCall call("AttachNotify", hook, HookRoutine::kAttachNotify, hook.attachNotify);
    hook.attachNotify(module, handle, hook.context);
}

VOID NTAPI ClientWatch::OnDetach(FILTER_MODULE* module, HOOK_FILTER* handle, PVOID context) {
    auto& hook = *static_cast<WatchedHook*>(context);
    if (IsGone(hook)) {
        return;
    }
    const HookCall call("DetachNotify", hook, HookRoutine::kDetachNotify, hook.detachNotify);
    hook.detachNotify(module, handle, hook.context);
    current_->EndModule(hook, module);
}

VOID NTAPI ClientWatch::OnUnload(PVOID context) {
    auto& hook = *static_cast<WatchedHook*>(context);
    if (IsGone(hook)) {
        return;
    }
    const HookCall call("UnloadNotify", hook, HookRoutine::kUnloadNotify, hook.unloadNotify);
    hook.unloadNotify(hook.context);
}

LONG NTAPI ClientWatch::OnSend(PVOID context, NIRP* nirp) {
    auto& hook = *static_cast<WatchedHook*>(context);
    return current_->Offer(hook, hook.sendHandler, "SendHandler", nirp);
}

LONG NTAPI ClientWatch::OnReceive(PVOID context, NIRP* nirp) {
    auto& hook = *static_cast<WatchedHook*>(context);
    return current_->Offer(hook, hook.receiveHandler, "ReceiveHandler", nirp);
}

LONG ClientWatch::Offer(WatchedHook& hook,
                        HOOK_PACKET_HANDLER handler,
                        const char* routine,
                        NIRP* nirp) {
    if (IsGone(hook)) {
        return HOOK_VERDICT_PASS;
    }
    {
        HostLock lock(mutex_);
        ledger_.BeginOffer(nirp, &hook);
    }
    LONG verdict = HOOK_VERDICT_PASS;
    {
        HookCall call(routine, hook, HookRoutine::kPacketHandler, handler, nirp);
        verdict = handler(hook.context, nirp);
        CheckVerdict(verdict, hook, call.frame());
    }
    HostLock lock(mutex_);
    ledger_.EndOffer(nirp, &hook);
    return verdict;
}

void ClientWatch::CheckVerdict(LONG verdict, WatchedHook& hook, const CallFrame& frame) {
    if (verdict == HOOK_VERDICT_PENDING && frame.marks == 0) {
        machine_.verifier().Report(
            Rule::kHookPendingUnmarked,
            fmt::format("{} answered PENDING and has made no mark", hook.Describe()));
    }
}

// The adapter's DetachNotify is about to return. Marks are void from here on; those of a hook that
// is being deregistered should have been completed before.
void ClientWatch::EndModule(WatchedHook& hook, const FILTER_MODULE* module) {
    unsigned underWay = 0;
    {
        HostLock lock(mutex_);
        hook.attachments.erase(module);
        for (const Marks* marks : ledger_.OwedBy(&hook, module)) {
            underWay += marks->underWay;
        }
    }
    if (underWay != 0) {
        machine_.verifier().Report(
            Rule::kHookMarkVoid,
            fmt::format("{} has {} completion(s) under way", hook.Describe(), underWay));
    }
    if (IsInside(hook, HookRoutine::kDriverCall)) {
        ReportOpenMarks(hook, module, "its DetachNotify returns in its deregistration");
    }
    HostLock lock(mutex_);
    for (Marks* marks : ledger_.OwedBy(&hook, module)) {
        marks->isVoid = true;
    }
}

void ClientWatch::ReportOpenMarks(WatchedHook& hook,
                                  const FILTER_MODULE* module,
                                  const char* when,
                                  CheckSite site) {
    unsigned open = 0;
    HostLock lock(mutex_);
    for (Marks* marks : ledger_.OwedBy(&hook, module)) {
        open += marks->open;
        marks->isVoid = true;
    }
    lock.unlock();
    if (open != 0) {
        machine_.verifier().Report(Rule::kHookMarkLeft,
                                   fmt::format("{} has {} mark(s) that are not completed when {}",
                                               hook.Describe(), open, when),
                                   site);
    }
}

// ---- Where a call is allowed ---------------------------------------------------------------

bool ClientWatch::MayCall(const char* routine, InUnload inUnload, CheckSite site) {
    const CallFrame* const frame = EnclosingNotification();
    if (frame == nullptr ||
        (frame->hookRoutine == HookRoutine::kUnloadNotify && inUnload == InUnload::kAllowed)) {
        return true;
    }
    machine_.verifier().Report(Rule::kHookNotification,
                               fmt::format("{} called by {} from its {}", routine,
                                           frame->hook->Describe(), frame->routine),
                               site);
    return false;
}

bool ClientWatch::MayUse(const NIRP* nirp, const char* routine, CheckSite site) {
    const LoadedDriver* const client = FindCaller().driver;
    HostLock lock(mutex_);
    if (ledger_.IsValid(nirp, [&](const WatchedHook& hook) { return hook.owner == client; })) {
        return true;
    }
    const std::string user = DescribeUser(nirp);
    lock.unlock();
    machine_.verifier().Report(
        Rule::kHookNirpUse,
        fmt::format("{} called by {} for a NIRP whose handler has returned and that it owes no "
                    "completion",
                    routine, user),
        site);
    return false;
}

// After the report the call is made if there is something to read.
bool ClientWatch::MayQuery(const NIRP* nirp, const char* routine, CheckSite site) {
    return nirp == nullptr ||
           (MayCall(routine, InUnload::kAllowed, site) &&
            (MayUse(nirp, routine, site) || machine_.pool().IsIn(nirp, PoolKind::kNonPaged)));
}

// ---- The other exports ---------------------------------------------------------------------

VOID ClientWatch::ITarnHKFlowControl(const DriverExports& driver,
                                     HOOK_FILTER* handle,
                                     ULONG state) {
    CallDriver("ITarnHKFlowControl", driver.ITarnHKFlowControl, nullptr, handle, state);
}

NTSTATUS ClientWatch::ITarnHKAttachFilter(const DriverExports& driver,
                                          FILTER_MODULE* module,
                                          HOOK_FILTER* handle) {
    const NTSTATUS status =
        CallDriver("ITarnHKAttachFilter", driver.ITarnHKAttachFilter, nullptr, module, handle);
    if (NT_SUCCESS(status)) {
        NoteAttachment(module, handle);
    }
    return status;
}

void ClientWatch::NoteAttachment(const FILTER_MODULE* module, const HOOK_FILTER* handle) {
    WatchedHook* const hook = HookOf(handle);
    HostLock lock(mutex_);
    if (hook != nullptr) {
        ++hook->attachments[module];
    }
}

NTSTATUS ClientWatch::ITarnHKDettachFilter(const DriverExports& driver,
                                           FILTER_MODULE* module,
                                           HOOK_FILTER* handle) {
    NoteDetachment(module, handle);
    return CallDriver("ITarnHKDettachFilter", driver.ITarnHKDettachFilter, nullptr, module, handle);
}

// In its DetachNotify a hook may leave marks open, which are void then. Elsewhere nothing would
// tell it any more when they are.
void ClientWatch::NoteDetachment(const FILTER_MODULE* module, const HOOK_FILTER* handle) {
    WatchedHook* const hook = HookOf(handle);
    if (hook == nullptr || IsInside(*hook, HookRoutine::kDetachNotify)) {
        return;
    }
    {
        HostLock lock(mutex_);
        const auto attached = hook->attachments.find(module);
        if (attached == hook->attachments.end() || --attached->second != 0) {
            return;
        }
        hook->attachments.erase(attached);
    }
    ReportOpenMarks(*hook, module, "it detaches itself");
}

UCHAR* ClientWatch::ITarnHKGetBuffer(const DriverExports& driver, NIRP* nirp) {
    constexpr const char* kRoutine = "ITarnHKGetBuffer";
    return MayQuery(nirp, kRoutine) ? CallDriver(kRoutine, driver.ITarnHKGetBuffer, nullptr, nirp)
                                    : nullptr;
}

ULONG ClientWatch::ITarnHKGetBufferLength(const DriverExports& driver, NIRP* nirp) {
    constexpr const char* kRoutine = "ITarnHKGetBufferLength";
    return MayQuery(nirp, kRoutine)
               ? CallDriver(kRoutine, driver.ITarnHKGetBufferLength, nullptr, nirp)
               : 0;
}

NTSTATUS ClientWatch::ITarnHKGetProtocolName(const DriverExports& driver,
                                             NIRP* nirp,
                                             PROTOCOL_ENTRY** entry) {
    constexpr const char* kRoutine = "ITarnHKGetProtocolName";
    return MayQuery(nirp, kRoutine)
               ? CallDriver(kRoutine, driver.ITarnHKGetProtocolName, nullptr, nirp, entry)
               : STATUS_UNSUCCESSFUL;
}

NTSTATUS ClientWatch::ITarnHKQueryProtocolName(const DriverExports& driver,
                                               PVOID first,
                                               PVOID second) {
    constexpr const char* kRoutine = "ITarnHKQueryProtocolName";
    MayCall(kRoutine);
    return CallDriver(kRoutine, driver.ITarnHKQueryProtocolName, nullptr, first, second);
}

NTSTATUS ClientWatch::ITarnHKGetProtocolInfo(const DriverExports& driver,
                                             NIRP* nirp,
                                             HOOK_PROTOCOL_INFO* info) {
    constexpr const char* kRoutine = "ITarnHKGetProtocolInfo";
    return MayQuery(nirp, kRoutine)
               ? CallDriver(kRoutine, driver.ITarnHKGetProtocolInfo, nullptr, nirp, info)
               : STATUS_UNSUCCESSFUL;
}

NTSTATUS ClientWatch::ITarnHKGetAdapterInfo(const DriverExports& driver,
                                            NIRP* nirp,
                                            HOOK_ADAPTER_INFO* info) {
    constexpr const char* kRoutine = "ITarnHKGetAdapterInfo";
    return MayQuery(nirp, kRoutine)
               ? CallDriver(kRoutine, driver.ITarnHKGetAdapterInfo, nullptr, nirp, info)
               : STATUS_UNSUCCESSFUL;
}

// A mark from outside the handler counts for the hook that is shown the NIRP.
NTSTATUS ClientWatch::ITarnHKMarkPending(const DriverExports& driver, NIRP* nirp) {
    constexpr const char* kRoutine = "ITarnHKMarkPending";
    if (nirp != nullptr && (!MayCall(kRoutine) || !MayUse(nirp, kRoutine))) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    CallFrame* const frame = CurrentContext().frame;
    const bool inside = frame != nullptr && frame->IsHookCallback() && frame->nirp == nirp;
    const NTSTATUS status = CallDriver(kRoutine, driver.ITarnHKMarkPending, nullptr, nirp);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    if (inside) {
        ++frame->marks;
    }
    HostLock lock(mutex_);
    const Caller caller = FindCaller();
    ledger_.Add(nirp, caller.hook != nullptr ? caller.hook : ledger_.LastShown(nirp),
                EnclosingModule());
    return status;
}

NTSTATUS ClientWatch::ITarnHKCompleteRequest(const DriverExports& driver,
                                             NIRP* nirp,
                                             ULONG status) {
    constexpr const char* kRoutine = "ITarnHKCompleteRequest";
    if (nirp == nullptr) {
        return CallDriver(kRoutine, driver.ITarnHKCompleteRequest, nullptr, nirp, status);
    }
    const bool allowed = MayCall(kRoutine);
    const WatchedHook* const hook = BeginCompletion(nirp);
    if (hook == nullptr) {
        return STATUS_SUCCESS;
    }
    if (allowed) {
        CallDriver(kRoutine, driver.ITarnHKCompleteRequest, nullptr, nirp, status);
    }
    HostLock lock(mutex_);
    ledger_.EndCompletion(nirp, hook);
    return STATUS_SUCCESS;
}

// Takes one of the caller's marks; returns whose it was, or null when there was none that may be
// completed.
WatchedHook* ClientWatch::BeginCompletion(const NIRP* nirp) {
    HostLock lock(mutex_);
    Marks* const marks = FindMarks(nirp, FindCaller());
    if (marks == nullptr) {
        const std::string user = DescribeUser(nirp);
        lock.unlock();
        machine_.verifier().Report(
            Rule::kHookMarkCompleted,
            fmt::format("{} completes a NIRP on which it has no mark open", user));
        return nullptr;
    }
    --marks->open;
    if (!marks->isVoid) {
        ++marks->underWay;
        return marks->hook;
    }
    const WatchedHook& hook = *marks->hook;
    lock.unlock();
    machine_.verifier().Report(
        Rule::kHookMarkVoid,
        fmt::format("{} completes a frame of an adapter that is gone for it", hook.Describe()));
    return nullptr;
}

NTSTATUS ClientWatch::ITarnHKSendPacket(const DriverExports& driver,
                                        PVOID reserved,
                                        const VOID* frame,
                                        ULONG length) {
    constexpr const char* kRoutine = "ITarnHKSendPacket";
    if (!MayCall(kRoutine)) {
        return STATUS_SUCCESS;
    }
    if (frame == nullptr || !machine_.pool().IsIn(frame, PoolKind::kPaged)) {
        return CallDriver(kRoutine, driver.ITarnHKSendPacket, nullptr, reserved, frame, length);
    }
    machine_.verifier().Report(
        Rule::kHookFramePaged,
        fmt::format("{} gives a frame in {}", DescribeCaller(), machine_.Describe(frame)));
    const auto* const bytes = static_cast<const std::uint8_t*>(frame);
    const std::vector<std::uint8_t> copy(bytes, bytes + length);
    return CallDriver(kRoutine, driver.ITarnHKSendPacket, nullptr, reserved,
                      static_cast<const VOID*>(copy.data()), length);
}

NTSTATUS ClientWatch::ITarnHKSystemInformationEx(const DriverExports& driver,
                                                 PVOID reserved,
                                                 LONG informationClass,
                                                 PVOID buffer,
                                                 ULONG* bufferSize) {
    constexpr const char* kRoutine = "ITarnHKSystemInformationEx";
    if (!MayCall(kRoutine)) {
        return STATUS_UNSUCCESSFUL;
    }
    return CallDriver(kRoutine, driver.ITarnHKSystemInformationEx, nullptr, reserved,
                      informationClass, buffer, bufferSize);
}

}  // namespace netsieve::host
