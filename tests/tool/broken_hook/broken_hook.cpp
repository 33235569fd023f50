// A hook filter that breaks one rule: the one that its service name begins with.

// The client header takes the types of the kernel's headers if they came before it.
// clang-format off
#include "platform/ndis.h"
#include "netsieve_hook.h"
// clang-format on

namespace {

constexpr ULONG kTag = 0x6B6F7262;  // "brok"

struct Fault {
    const char* name;
    LONG (*send)(NIRP* nirp);  // instead of passing the first frame
    void (*attach)();
    void (*detach)(HOOK_FILTER* hook);
    void (*unload)();
};

HOOK_FILTER* g_hook;
WCHAR g_name[] = u"broken";
const Fault* g_fault;
NIRP* g_nirp;
KSPIN_LOCK g_lock;
NDIS_TIMER g_timer;
UCHAR g_frame[60];
PVOID g_block;

VOID NTAPI NoTimerRoutine(PVOID, PVOID, PVOID, PVOID) {}

LONG CompleteTwice(NIRP* nirp) {
    ITarnHKMarkPending(nirp);
    ITarnHKCompleteRequest(nirp, 0);
    ITarnHKCompleteRequest(nirp, 0);
    return HOOK_VERDICT_PENDING;
}

LONG Hold(NIRP* nirp) {
    ITarnHKMarkPending(nirp);
    return HOOK_VERDICT_PENDING;
}

LONG AnswerPending(NIRP*) {
    return HOOK_VERDICT_PENDING;
}

LONG Deregister(NIRP*) {
    ITarnHKDeregisterFilter(g_hook);
    return HOOK_VERDICT_PASS;
}

LONG Leak(NIRP*) {
    PVOID block = nullptr;
    NdisAllocateMemoryWithTag(&block, 16, kTag);
    return HOOK_VERDICT_PASS;
}

LONG ArmTimer(NIRP*) {
    NdisInitializeTimer(&g_timer, NoTimerRoutine, nullptr);
    NdisSetTimer(&g_timer, 100'000'000);
    return HOOK_VERDICT_PASS;
}

LONG KeepLock(NIRP*) {
    KeInitializeSpinLock(&g_lock);
    KeAcquireSpinLockRaiseToDpc(&g_lock);
    return HOOK_VERDICT_PASS;
}

LONG SendPaged(NIRP*) {
    PVOID frame = ExAllocatePoolWithTag(PagedPool, sizeof(g_frame), kTag);
    ITarnHKSendPacket(nullptr, frame, sizeof(g_frame));
    ExFreePoolWithTag(frame, kTag);
    return HOOK_VERDICT_PASS;
}

// Right only as long as frames come at PASSIVE_LEVEL.
LONG TakePaged(NIRP*) {
    ExFreePoolWithTag(ExAllocatePoolWithTag(PagedPool, 16, kTag), kTag);
    return HOOK_VERDICT_PASS;
}

// Right only as long as there is one adapter at a time.
void KeepBlock() {
    NdisAllocateMemoryWithTag(&g_block, 16, kTag);
}

void FreeBlock(HOOK_FILTER*) {
    if (g_block != nullptr) {
        NdisFreeMemory(g_block, 16, 0);
        g_block = nullptr;
    }
}

void SendFrame() {
    ITarnHKSendPacket(nullptr, g_frame, sizeof(g_frame));
}

void DeregisterHook(HOOK_FILTER* hook) {
    ITarnHKDeregisterFilter(hook);
}

void ReadLate() {
    ITarnHKGetBufferLength(g_nirp);
    ITarnHKDeregisterFilter(g_hook);
}

void StayRegistered() {}

const Fault kFaults[] = {
    {"HookMarkCompleted", CompleteTwice, nullptr, nullptr, nullptr},
    {"HookMarkLeft", Hold, nullptr, nullptr, nullptr},
    {"HookPendingUnmarked", AnswerPending, nullptr, nullptr, nullptr},
    {"HookNirpUse", nullptr, nullptr, nullptr, ReadLate},
    {"HookNotification", nullptr, SendFrame, nullptr, nullptr},
    {"HookNotification-detach", nullptr, nullptr, DeregisterHook, nullptr},
    {"HookHandlerDeregisters", Deregister, nullptr, nullptr, nullptr},
    {"HookLeft", nullptr, nullptr, nullptr, StayRegistered},
    {"HookFramePaged", SendPaged, nullptr, nullptr, nullptr},
    {"PoolLeak", Leak, nullptr, nullptr, nullptr},
    {"RoutineOutlivesDriver", ArmTimer, nullptr, nullptr, nullptr},
    {"CallbackHoldsLock", KeepLock, nullptr, nullptr, nullptr},
    {"PagedPoolLevel", TakePaged, nullptr, nullptr, nullptr},
    {"PoolLeak-adapter", nullptr, KeepBlock, FreeBlock, nullptr},
};

LONG NTAPI OnSend(PVOID, NIRP* nirp) {
    const bool first = g_nirp == nullptr;
    g_nirp = nirp;
    return first && g_fault->send != nullptr ? g_fault->send(nirp) : HOOK_VERDICT_PASS;
}

VOID NTAPI AdapterCame(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID) {
    ITarnHKAttachFilter(module, hook);
    if (g_fault->attach != nullptr) {
        g_fault->attach();
    }
}

VOID NTAPI AdapterGoes(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID) {
    if (g_fault->detach != nullptr) {
        g_fault->detach(hook);
    }
    ITarnHKDettachFilter(module, hook);
}

VOID NTAPI Unload(PDRIVER_OBJECT) {
    if (g_fault->unload != nullptr) {
        g_fault->unload();
    } else {
        ITarnHKDeregisterFilter(g_hook);
    }
}

// The service name is the last part of the path, and ends in the number that makes it unique.
bool IsOf(const char* fault, const UNICODE_STRING* path) {
    const ULONG length = path->Length / sizeof(WCHAR);
    ULONG at = length;
    while (at > 0 && path->Buffer[at - 1] != u'\\') {
        --at;
    }
    while (*fault != '\0' && at < length && path->Buffer[at] == static_cast<WCHAR>(*fault)) {
        ++fault;
        ++at;
    }
    return *fault == '\0' && at + 2 == length;
}

}  // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING path) {
    for (const Fault& fault : kFaults) {
        g_fault = IsOf(fault.name, path) ? &fault : g_fault;
    }
    if (g_fault == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    static HOOK_FILTER_REGISTRATION_EX registration;
    registration.AttachNotify = AdapterCame;
    registration.DetachNotify = AdapterGoes;
    registration.SendHandler = OnSend;
    registration.Name = {sizeof(g_name) - sizeof(WCHAR), sizeof(g_name), g_name};
    NTSTATUS status = ITarnHKRegisterFilterEx(&registration, nullptr, &g_hook);
    if (status == STATUS_SUCCESS) {
        driver->DriverUnload = Unload;
        ITarnHKFlowControl(g_hook, HOOK_STATE_ACTIVE);
    }
    return status;
}
