// A hook filter that blocks DNS: frames that carry UDP or TCP to or from port 53, over IPv4 or
// IPv6, with or without VLAN tags, do not pass.
//
// A fragment other than the first carries no ports and passes; without the first one its datagram
// is never put together. A port behind an IPv6 extension header is looked for behind the headers
// that can be skipped; an encrypted packet shows none.

// The client header takes the types of the kernel's headers if they came before it.
// clang-format off
#include "platform/kernel.h"
#include "netsieve_hook.h"
// clang-format on

namespace {

constexpr ULONG kDnsPort = 53;
constexpr ULONG kTcp = 6;
constexpr ULONG kUdp = 17;

HOOK_FILTER* g_hook;
WCHAR g_name[] = u"Sample: block DNS";

// The frame. What lies beyond its end reads as 0: a frame may end anywhere.
struct Frame {
    const UCHAR* bytes;
    ULONG length;

    ULONG Byte(ULONG at) const { return at < length ? bytes[at] : 0; }
    ULONG Word(ULONG at) const { return Byte(at) << 8 | Byte(at + 1); }
};

bool IsDns(const Frame& frame, ULONG protocol, ULONG transport) {
    return (protocol == kTcp || protocol == kUdp) &&
           (frame.Word(transport) == kDnsPort || frame.Word(transport + 2) == kDnsPort);
}

bool IsDnsOverIpv4(const Frame& frame, ULONG header) {
    constexpr ULONG kFragmentOffset = 0x1FFF;
    return (frame.Word(header + 6) & kFragmentOffset) == 0 &&
           IsDns(frame, frame.Byte(header + 9), header + (frame.Byte(header) & 0xF) * 4);
}

bool IsDnsOverIpv6(const Frame& frame, ULONG header) {
    ULONG next = frame.Byte(header + 6);
    ULONG at = header + 40;
    // Hop-by-hop options, routing, fragment and destination options; each at most once or twice.
    for (int skipped = 0; skipped < 8; ++skipped) {
        if (next == 44) {
            if ((frame.Word(at + 2) & 0xFFF8) != 0) {
                return false;
            }
            next = frame.Byte(at);
            at += 8;
        } else if (next == 0 || next == 43 || next == 60) {
            next = frame.Byte(at);
            at += (frame.Byte(at + 1) + 1) * 8;
        } else {
            break;
        }
    }
    return IsDns(frame, next, at);
}

bool IsDnsFrame(const Frame& frame) {
    ULONG at = 12;
    ULONG type = frame.Word(at);
    while (type == 0x8100 || type == 0x88A8) {
        at += 4;
        type = frame.Word(at);
    }
    return (type == 0x0800 && IsDnsOverIpv4(frame, at + 2)) ||
           (type == 0x86DD && IsDnsOverIpv6(frame, at + 2));
}

// Runs for every frame, on any processor, at up to DISPATCH_LEVEL: no waiting, no paged memory. The
// bytes are the driver's copy, and are there until this returns.
LONG NTAPI Judge(PVOID, NIRP* nirp) {
    const Frame frame = {ITarnHKGetBuffer(nirp), ITarnHKGetBufferLength(nirp)};
    return IsDnsFrame(frame) ? HOOK_VERDICT_WITHHOLD : HOOK_VERDICT_PASS;
}

// Told of every adapter, under a lock of the driver: only attaching, detaching and flow control may
// be called from the two notifications, never a registration or a deregistration.
VOID NTAPI AdapterCame(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID) {
    ITarnHKAttachFilter(module, hook);
}

VOID NTAPI AdapterGoes(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID) {
    ITarnHKDettachFilter(module, hook);
}

// Each registration is ended once, here. When this returns no handler of ours runs any more, so the
// code can go.
VOID NTAPI Unload(PDRIVER_OBJECT) {
    ITarnHKDeregisterFilter(g_hook);
}

}  // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    // Static, because nearly half a kilobyte of it is opaque data that this hook does not use.
    static HOOK_FILTER_REGISTRATION_EX registration;
    registration.AttachNotify = AdapterCame;
    registration.DetachNotify = AdapterGoes;
    registration.SendHandler = Judge;
    registration.ReceiveHandler = Judge;
    registration.Priority = HOOK_PRIORITY_CLASS_0;
    // MaximumLength counts the NUL, Length does not.
    registration.Name = {sizeof(g_name) - sizeof(WCHAR), sizeof(g_name), g_name};

    NTSTATUS status = ITarnHKRegisterFilterEx(&registration, nullptr, &g_hook);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    driver->DriverUnload = Unload;
    // A hook is silent until it is switched on.
    ITarnHKFlowControl(g_hook, HOOK_STATE_ACTIVE);
    return STATUS_SUCCESS;
}
