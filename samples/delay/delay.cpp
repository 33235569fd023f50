// A hook filter that delays: every frame of one adapter is held for a while and then goes on its
// way. When as many are held as there is room for, frames pass at once.
//
// A NIRP does not tell which adapter its frame crosses, and what is held of an adapter is void
// when that goes. So this hook watches one adapter only, and everything it holds is of that one.

// The client header takes the types of the kernel's headers if they came before it.
// clang-format off
#include "platform/ndis.h"
#include "netsieve_hook.h"
// clang-format on

namespace {

constexpr UINT kDelayMilliseconds = 20;
// A held frame keeps two of the adapter's few NIRPs, so more would only be refused.
constexpr ULONG kSlots = 8;

// A frame that is held. The timer is armed while Nirp is set.
struct Slot {
    NDIS_TIMER Timer;
    NIRP* Nirp;
};

HOOK_FILTER* g_hook;
WCHAR g_name[] = u"Sample: delay";

// Guards everything below it. Taken under the driver's locks in the notifications, so that nothing
// is called under it that could want one of those.
KSPIN_LOCK g_lock;
FILTER_MODULE* g_module;  // the one that is watched
Slot g_slots[kSlots];
ULONG g_completing;  // completions under way, on all processors
bool g_closing;

class Guard {
  public:
    explicit Guard(KSPIN_LOCK* lock) : lock_(lock), irql_(KeAcquireSpinLockRaiseToDpc(lock)) {}
    ~Guard() { KeReleaseSpinLock(lock_, irql_); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

  private:
    KSPIN_LOCK* lock_;
    KIRQL irql_;
};

// Whoever takes the NIRP out of its slot is the one who completes it, and has counted that in the
// same act: whoever finds the slot empty knows from the count whether a completion is under way.
NIRP* BeginCompletion(Slot* slot) {
    Guard guard(&g_lock);
    NIRP* nirp = slot->Nirp;
    slot->Nirp = nullptr;
    g_completing += nirp != nullptr ? 1 : 0;
    return nirp;
}

void EndCompletion() {
    Guard guard(&g_lock);
    --g_completing;
}

void LetGo(Slot* slot) {
    if (NIRP* nirp = BeginCompletion(slot)) {
        ITarnHKCompleteRequest(nirp, STATUS_SUCCESS);
        EndCompletion();
    }
}

bool IsCompleting() {
    Guard guard(&g_lock);
    return g_completing != 0;
}

// Runs at DISPATCH_LEVEL, where completing is allowed.
VOID NTAPI TimeIsUp(PVOID, PVOID slot, PVOID, PVOID) {
    LetGo(static_cast<Slot*>(slot));
}

Slot* FindFreeSlot() {
    for (Slot& slot : g_slots) {
        if (slot.Nirp == nullptr) {
            return &slot;
        }
    }
    return nullptr;
}

// The mark and its slot come as one act, or the timer of the slot could find it empty. A mark that
// is refused leaves the frame with us; it passes, as do the frames that there is no slot for.
LONG NTAPI Hold(PVOID, NIRP* nirp) {
    Guard guard(&g_lock);
    Slot* slot = g_closing ? nullptr : FindFreeSlot();
    if (slot == nullptr || ITarnHKMarkPending(nirp) != STATUS_SUCCESS) {
        return HOOK_VERDICT_PASS;
    }
    slot->Nirp = nirp;
    NdisSetTimer(&slot->Timer, kDelayMilliseconds);
    return HOOK_VERDICT_PENDING;
}

// Runs under a lock of the driver: only attaching, detaching and flow control may be called from
// the two notifications, never a registration or a deregistration.
VOID NTAPI AdapterCame(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID) {
    Guard guard(&g_lock);
    if (g_module == nullptr && ITarnHKAttachFilter(module, hook) == STATUS_SUCCESS) {
        g_module = module;
    }
}

// What is held is void from here on: it may not even be completed here, and not any more when this
// has returned. So a timer that cannot be cancelled any more finds its slot empty, and a completion
// that has its NIRP already ends first. This waits at DISPATCH_LEVEL under a lock of the driver;
// a completion never needs that one: the adapter that goes is paused and has its frames back, and
// before we deregister, which calls this too, the last completion has ended.
VOID NTAPI AdapterGoes(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID) {
    {
        Guard guard(&g_lock);
        for (Slot& slot : g_slots) {
            BOOLEAN cancelled = FALSE;
            NdisCancelTimer(&slot.Timer, &cancelled);
            slot.Nirp = nullptr;
        }
        g_module = nullptr;
    }
    while (IsCompleting()) {
        KeStallExecutionProcessor(10);
    }
    ITarnHKDettachFilter(module, hook);
}

// First nothing new is held, then what is held goes on at once, then the timer routines that could
// not be cancelled have ended. Only then the hook is taken down.
void Leave() {
    {
        Guard guard(&g_lock);
        g_closing = true;
    }
    for (Slot& slot : g_slots) {
        BOOLEAN cancelled = FALSE;
        NdisCancelTimer(&slot.Timer, &cancelled);
        if (cancelled) {
            LetGo(&slot);
        }
    }
    KeFlushQueuedDpcs();
    ITarnHKDeregisterFilter(g_hook);
}

// The driver goes first: its adapters are about to go without another word to a hook that has not
// asked for this one.
VOID NTAPI DriverGoes(PVOID) {
    Leave();
    g_hook = nullptr;
}

// Our code can go when this returns.
VOID NTAPI Unload(PDRIVER_OBJECT) {
    if (g_hook != nullptr) {
        Leave();
    }
}

void InitializeState() {
    KeInitializeSpinLock(&g_lock);
    g_module = nullptr;
    g_completing = 0;
    g_closing = false;
    for (Slot& slot : g_slots) {
        slot.Nirp = nullptr;
        NdisInitializeTimer(&slot.Timer, TimeIsUp, &slot);
    }
}

}  // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    // The adapters are announced before the registration returns.
    InitializeState();
    static HOOK_FILTER_REGISTRATION_EX registration;
    registration.AttachNotify = AdapterCame;
    registration.DetachNotify = AdapterGoes;
    registration.UnloadNotify = DriverGoes;
    registration.SendHandler = Hold;
    registration.ReceiveHandler = Hold;
    registration.Priority = HOOK_PRIORITY_CLASS_1;
    registration.Name = {sizeof(g_name) - sizeof(WCHAR), sizeof(g_name), g_name};

    NTSTATUS status = ITarnHKRegisterFilterEx(&registration, nullptr, &g_hook);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    driver->DriverUnload = Unload;
    ITarnHKFlowControl(g_hook, HOOK_STATE_ACTIVE);
    return STATUS_SUCCESS;
}
