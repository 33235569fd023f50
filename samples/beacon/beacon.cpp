// A hook filter that sends: after every eighth frame that an adapter sends, a frame of our own goes
// out of the same adapter. Nothing is withheld.

// The client header takes the types of the kernel's headers if they came before it.
// clang-format off
#include "platform/atomics.h"
#include "platform/kernel.h"
#include "netsieve_hook.h"
// clang-format on

namespace {

constexpr ULONG kFramesBetween = 8;

// The shortest frame that Ethernet has, without its checksum. The type is one of the two that are
// set aside for experiments.
struct Beacon {
    UCHAR Destination[6];
    UCHAR Source[6];
    UCHAR Type[2];
    UCHAR Number[4];
    UCHAR Text[42];
};
static_assert(sizeof(Beacon) == 60);

HOOK_FILTER* g_hook;
WCHAR g_name[] = u"Sample: beacon";
volatile LONG g_sent;

// The frame goes out of the adapter whose address is its source address. The driver takes a copy
// before it returns, so that the frame may lie on the stack.
void SendBeacon(const UCHAR* source, ULONG number) {
    Beacon beacon = {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, {}, {0x88, 0xB5}, {}, "NetSieve beacon"};
    for (int i = 0; i < 6; ++i) {
        beacon.Source[i] = source[i];
    }
    for (int i = 0; i < 4; ++i) {
        beacon.Number[i] = static_cast<UCHAR>(number >> (24 - 8 * i));
    }
    ITarnHKSendPacket(nullptr, &beacon, sizeof(beacon));
}

// Sending is allowed from a handler, at any level it may run at. No hook is shown the beacon, this
// one included, so it cannot set off another. A sender's source address is as a rule the adapter's;
// a beacon for one that is not goes nowhere.
LONG NTAPI CountSent(PVOID, NIRP* nirp) {
    constexpr ULONG kAddresses = 12;
    const LONG sent = InterlockedIncrement(&g_sent);
    if (sent % kFramesBetween == 0 && ITarnHKGetBufferLength(nirp) >= kAddresses) {
        SendBeacon(ITarnHKGetBuffer(nirp) + 6, static_cast<ULONG>(sent) / kFramesBetween);
    }
    return HOOK_VERDICT_PASS;
}

// Both run under a lock of the driver: only attaching, detaching and flow control may be called
// here. Sending would want the lock that is held, a registration too.
VOID NTAPI AdapterCame(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID) {
    ITarnHKAttachFilter(module, hook);
}

VOID NTAPI AdapterGoes(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID) {
    ITarnHKDettachFilter(module, hook);
}

// What was sent from above PASSIVE_LEVEL may still wait for a worker thread. It is the driver's
// affair: nothing of it leads back here.
VOID NTAPI Unload(PDRIVER_OBJECT) {
    ITarnHKDeregisterFilter(g_hook);
}

}  // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    g_sent = 0;
    static HOOK_FILTER_REGISTRATION_EX registration;
    registration.AttachNotify = AdapterCame;
    registration.DetachNotify = AdapterGoes;
    registration.SendHandler = CountSent;
    registration.Priority = HOOK_PRIORITY_CLASS_2;
    registration.Name = {sizeof(g_name) - sizeof(WCHAR), sizeof(g_name), g_name};

    NTSTATUS status = ITarnHKRegisterFilterEx(&registration, nullptr, &g_hook);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    driver->DriverUnload = Unload;
    ITarnHKFlowControl(g_hook, HOOK_STATE_ACTIVE);
    return STATUS_SUCCESS;
}
