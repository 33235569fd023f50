// For each rule of the client header a hook that breaks it, and only it. The hook is one of the
// driver HOOK, beside the driver that has the hooks.

#include "client/exports.h"
#include "driver/driver_entry.h"
#include "tests/verifier/breakers.h"

namespace netsieve::host {

namespace {

constexpr ULONG kTag = SmallFilter::kTag;

/// A hook driver made of closures; an empty one means what a correct hook does.
struct SmallHook {
    std::function<LONG(NIRP*)> send{};
    std::function<void()> attach{};
    std::function<void()> detach{};
    std::function<void()> unload{};  ///< the hook is told of the unload when there is one
    bool deregisters = true;

    FILTER_MODULE* module = nullptr;
    HOOK_FILTER* handle = nullptr;
    NIRP* nirp = nullptr;  ///< shown last
};
SmallHook* g_hook = nullptr;
WCHAR g_name[] = u"breaker";

HOOK_FILTER_REGISTRATION_EX Block() {
    HOOK_FILTER_REGISTRATION_EX block{};
    block.AttachNotify = [](FILTER_MODULE* module, HOOK_FILTER* handle, PVOID) NTAPI {
        g_hook->module = module;
        g_hook->handle = handle;
        ITarnHKAttachFilter(module, handle);
        if (g_hook->attach) {
            g_hook->attach();
        }
    };
    block.DetachNotify = [](FILTER_MODULE* module, HOOK_FILTER* handle, PVOID) NTAPI {
        if (g_hook->detach) {
            g_hook->detach();
        }
        ITarnHKDettachFilter(module, handle);
    };
    if (g_hook->unload) {
        block.UnloadNotify = [](PVOID) NTAPI { g_hook->unload(); };
    }
    block.SendHandler = [](PVOID, NIRP* nirp) NTAPI {
        g_hook->nirp = nirp;
        return g_hook->send ? g_hook->send(nirp) : HOOK_VERDICT_PASS;
    };
    block.Name = {sizeof(g_name) - sizeof(WCHAR), sizeof(g_name), g_name};
    return block;
}

NTSTATUS NTAPI HookEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->DriverUnload = [](PDRIVER_OBJECT) NTAPI {
        if (g_hook->deregisters) {
            ITarnHKDeregisterFilter(g_hook->handle);
        }
    };
    const HOOK_FILTER_REGISTRATION_EX block = Block();
    const NTSTATUS status = ITarnHKRegisterFilterEx(&block, nullptr, &g_hook->handle);
    ITarnHKFlowControl(g_hook->handle, HOOK_STATE_ACTIVE);
    return status;
}

/// One frame past the hook, then `after` in HOOK's name, then the end of everything: of the hook
/// first, unless `after` has ended something itself.
using After = std::function<void(Scene&, SmallHook&)>;
std::function<void(Scene&)> WithHook(const SmallHook& hook, const After& after = {}) {
    return [hook, after](Scene& scene) {
        SmallHook own = hook;
        g_hook = &own;
        Machine& machine = scene.machine;
        scene.stack = &machine.ndis().AddAdapter();
        machine.LoadDriver({.name = "NETSIEVE", .entry = &DriverEntry});
        machine.LoadDriver({.name = "HOOK", .entry = &HookEntry});
        NblFactory nbls(machine, scene.stack->protocol().pool());
        const std::uint8_t frame[60] = {};
        scene.stack->protocol().Send(nbls.Make(frame));
        if (after) {
            const CallbackScope scope("a routine", machine.FindDriver("HOOK"), nullptr);
            after(scene, own);
        }
        machine.UnloadDriver("HOOK");
        machine.ndis().RemoveAdapter(*scene.stack);
        machine.UnloadDriver("NETSIEVE");
        g_hook = nullptr;
    };
}

LONG Hold(NIRP* nirp) {
    return ITarnHKMarkPending(nirp) == STATUS_SUCCESS ? HOOK_VERDICT_PENDING : HOOK_VERDICT_PASS;
}

LONG MarkFromAnotherThread(NIRP* nirp) {
    Machine& machine = Machine::Current();
    machine.scheduler().Join(machine.scheduler().Start({.name = "marks"}, [&] {
        const CallbackScope scope("a routine", machine.FindDriver("HOOK"), nullptr);
        ITarnHKMarkPending(nirp);
    }));
    return HOOK_VERDICT_PASS;
}

LONG Let(NIRP*) {
    return HOOK_VERDICT_PASS;
}

VOID NTAPI NoTimerRoutine(PVOID, PVOID, PVOID, PVOID) {}

/// While a completion is inside the adapter, which keeps it, the hook is deregistered.
void DeregisterUnderACompletion(Scene& scene, SmallHook& hook) {
    static KEVENT inside;
    static KEVENT go;
    KeInitializeEvent(&inside, NotificationEvent, FALSE);
    KeInitializeEvent(&go, NotificationEvent, FALSE);
    const auto wait = [](KEVENT& event) {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    };
    scene.stack->adapter().onSend = [&](PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG) {
        KeSetEvent(&inside, 0, FALSE);
        wait(go);
    };
    Scheduler& scheduler = scene.machine.scheduler();
    const std::uint32_t other =
        scheduler.Start({.name = "completer", .processor = 1}, [&scene, nirp = hook.nirp] {
            const CallbackScope scope("a routine", scene.machine.FindDriver("HOOK"), nullptr);
            ITarnHKCompleteRequest(nirp, 0);
        });
    wait(inside);
    ITarnHKDeregisterFilter(hook.handle);
    hook.deregisters = false;
    KeSetEvent(&go, 0, FALSE);
    scheduler.Join(other);
}

std::vector<Breaker> MarkBreakers() {
    return {
        {Rule::kHookMarkCompleted, "completed twice",
         WithHook({.send =
                       [](NIRP* nirp) {
                           ITarnHKMarkPending(nirp);
                           ITarnHKCompleteRequest(nirp, 0);
                           ITarnHKCompleteRequest(nirp, 0);
                           return HOOK_VERDICT_PENDING;
                       }})},
        {Rule::kHookMarkCompleted, "completed and never marked",
         WithHook({.send =
                       [](NIRP* nirp) {
                           ITarnHKCompleteRequest(nirp, 0);
                           return HOOK_VERDICT_PASS;
                       }})},
        {Rule::kHookMarkCompleted, "completed once more when the handler is over",
         WithHook({.send = Hold},
                  [](Scene&, SmallHook& hook) {
                      ITarnHKCompleteRequest(hook.nirp, 0);
                      ITarnHKCompleteRequest(hook.nirp, 0);
                  })},
        {Rule::kHookMarkLeft, "deregistered with a mark open", WithHook({.send = Hold})},
        {Rule::kHookMarkLeft, "detached by itself with a mark open",
         WithHook({.send = Hold},
                  [](Scene&, SmallHook& hook) { ITarnHKDettachFilter(hook.module, hook.handle); }),
         false, 1, "that are not completed when it detaches itself"},
        {Rule::kHookMarkLeft, "deregistered with a mark open that a thread of the hook has made",
         WithHook({.send = &MarkFromAnotherThread})},
        {Rule::kHookMarkVoid, "completed when its adapter is gone",
         WithHook({.send = Hold},
                  [](Scene& scene, SmallHook& hook) {
                      scene.stack->Detach(
                          *scene.stack->FindModule(scene.machine.FindDriver("NETSIEVE")));
                      ITarnHKCompleteRequest(hook.nirp, 0);
                  })},
        {Rule::kHookMarkVoid, "a completion under way when DetachNotify returns",
         WithHook({.send = Hold}, &DeregisterUnderACompletion)},
        {Rule::kHookPendingUnmarked, "answered without a mark",
         WithHook({.send = [](NIRP*) { return HOOK_VERDICT_PENDING; }})},
        {Rule::kHookNirpUse, "read when its handler is over",
         WithHook({.send = Let},
                  [](Scene&, SmallHook& hook) { ITarnHKGetBufferLength(hook.nirp); })},
        {Rule::kHookNirpUse, "its protocol and adapter are asked for when its handler is over",
         WithHook({.send = Let},
                  [](Scene&, SmallHook& hook) {
                      PROTOCOL_ENTRY* entry = nullptr;
                      HOOK_PROTOCOL_INFO protocol{};
                      HOOK_ADAPTER_INFO adapter{};
                      ITarnHKGetProtocolName(hook.nirp, &entry);
                      ITarnHKGetProtocolInfo(hook.nirp, &protocol);
                      ITarnHKGetAdapterInfo(hook.nirp, &adapter);
                  }),
         false, 3},
        {Rule::kHookNirpUse, "marked when its handler is over",
         WithHook({.send = Let}, [](Scene&, SmallHook& hook) { ITarnHKMarkPending(hook.nirp); })},
        {Rule::kHookNirpUse, "read when its mark is completed",
         WithHook({.send = Hold},
                  [](Scene&, SmallHook& hook) {
                      ITarnHKCompleteRequest(hook.nirp, 0);
                      ITarnHKGetBuffer(hook.nirp);
                  })},
    };
}

std::vector<Breaker> ForbiddenCallBreakers() {
    static constexpr UCHAR kFrame[60] = {};
    return {
        {Rule::kHookNotification, "sends from AttachNotify",
         WithHook({.attach = [] { ITarnHKSendPacket(nullptr, kFrame, sizeof(kFrame)); }})},
        {Rule::kHookNotification, "registers from AttachNotify",
         WithHook({.attach =
                       [] {
                           HOOK_FILTER* other = nullptr;
                           const HOOK_FILTER_REGISTRATION_EX block = Block();
                           ITarnHKRegisterFilterEx(&block, nullptr, &other);
                       }})},
        {Rule::kHookNotification, "registers in the older form from AttachNotify",
         WithHook({.attach =
                       [] {
                           HOOK_FILTER* other = nullptr;
                           const HOOK_FILTER_REGISTRATION block{};
                           ITarnHKRegisterFilter(&block, nullptr, 0, &other);
                       }})},
        {Rule::kHookNotification, "marks, and asks for a protocol's name, in DetachNotify",
         WithHook({.send = Let,
                   .detach =
                       [] {
                           ITarnHKMarkPending(g_hook->nirp);
                           ITarnHKQueryProtocolName(nullptr, nullptr);
                       }}),
         false, 2},
        {Rule::kHookNotification, "deregisters from DetachNotify",
         WithHook({.detach = [] { ITarnHKDeregisterFilter(g_hook->handle); }})},
        {Rule::kHookNotification, "completes in DetachNotify",
         WithHook({.send = Hold, .detach = [] { ITarnHKCompleteRequest(g_hook->nirp, 0); }})},
        {Rule::kHookNotification, "asks for the version in DetachNotify",
         WithHook({.detach =
                       [] {
                           char version[16];
                           ULONG size = sizeof(version);
                           ITarnHKSystemInformationEx(nullptr, SYSINFO_CLASS_VERSION, version,
                                                      &size);
                       }})},
        {Rule::kHookNotification, "registers from UnloadNotify",
         WithHook({.unload =
                       [] {
                           HOOK_FILTER* other = nullptr;
                           const HOOK_FILTER_REGISTRATION_EX block = Block();
                           ITarnHKRegisterFilterEx(&block, nullptr, &other);
                           ITarnHKDeregisterFilter(g_hook->handle);
                       },
                   .deregisters = false},
                  [](Scene& scene, SmallHook&) { scene.machine.UnloadDriver("NETSIEVE"); })},
        {Rule::kHookHandlerDeregisters, "deregisters from its handler",
         WithHook({.send =
                       [](NIRP*) {
                           ITarnHKDeregisterFilter(g_hook->handle);
                           return HOOK_VERDICT_PASS;
                       }})},
        {Rule::kHookLeft, "unloaded without deregistering", WithHook({.deregisters = false})},
        {Rule::kHookLeft, "not deregistered when the driver unloads",
         WithHook({.unload = [] {}},
                  [](Scene& scene, SmallHook&) { scene.machine.UnloadDriver("NETSIEVE"); })},
        {Rule::kHookFramePaged, "a frame in paged pool",
         WithHook({.send =
                       [](NIRP*) {
                           PVOID const frame = ExAllocatePoolWithTag(PagedPool, 60, kTag);
                           ITarnHKSendPacket(nullptr, frame, 60);
                           ExFreePoolWithTag(frame, kTag);
                           return HOOK_VERDICT_PASS;
                       }})},
    };
}

// What a hook leaves behind, or does wrong, inside the driver's own calls.
std::vector<Breaker> BlameBreakers() {
    return {
        {Rule::kPoolLeak, "a block of the hook's handler",
         WithHook({.send =
                       [](NIRP*) {
                           PVOID block = nullptr;
                           NdisAllocateMemoryWithTag(&block, 16, kTag);
                           return HOOK_VERDICT_PASS;
                       }})},
        {Rule::kObjectLeak, "an MDL of its notification",
         WithHook({.attach =
                       [] {
                           static UCHAR bytes[16];
                           NdisAllocateMdl(nullptr, bytes, sizeof(bytes));
                       }})},
        {Rule::kRoutineOutlivesDriver, "a timer of its handler",
         WithHook({.send =
                       [](NIRP*) {
                           static NDIS_TIMER timer;
                           NdisInitializeTimer(&timer, &NoTimerRoutine, nullptr);
                           NdisSetTimer(&timer, 60000);
                           return HOOK_VERDICT_PASS;
                       }})},
        {Rule::kCallbackHoldsLock, "a lock that its handler keeps",
         WithHook({.send =
                       [](NIRP*) {
                           static KSPIN_LOCK lock;
                           KeInitializeSpinLock(&lock);
                           KeAcquireSpinLockRaiseToDpc(&lock);
                           return HOOK_VERDICT_PASS;
                       }})},
    };
}

}  // namespace

std::vector<Breaker> HookBreakers() {
    std::vector<Breaker> all = MarkBreakers();
    for (const auto& part : {ForbiddenCallBreakers(), BlameBreakers()}) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

}  // namespace netsieve::host
