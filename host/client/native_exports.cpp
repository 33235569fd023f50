// The exports that native clients call by name: the native driver is built with other names for its
// own (see NETSIEVE_NATIVE_EXPORTS), and these watch them. A program takes them from the library
// when it names one, and with it the driver.
#include "host/client/watched_call.h"

extern "C" {
#define NETSIEVE_DECLARE_NATIVE(name) decltype(::name) NetsieveNative_##name;
NETSIEVE_CLIENT_EXPORTS(NETSIEVE_DECLARE_NATIVE)
#undef NETSIEVE_DECLARE_NATIVE
}

namespace netsieve::host {

namespace {

constexpr DriverExports kNative = {
#define NETSIEVE_NATIVE_ADDRESS(name) .name = &NetsieveNative_##name,
    NETSIEVE_CLIENT_EXPORTS(NETSIEVE_NATIVE_ADDRESS)
#undef NETSIEVE_NATIVE_ADDRESS
};

}  // namespace

}  // namespace netsieve::host

using namespace netsieve::host;

// The return address is that of the function this stands in.
#define NETSIEVE_WATCHED(name, ...)                                       \
    WatchedCall<kNative, &DriverExports::name, &ClientWatch::name>::From( \
        __builtin_return_address(0), __VA_ARGS__)

extern "C" {

NTSTATUS NTAPI ITarnHKRegisterFilterEx(const HOOK_FILTER_REGISTRATION_EX* registration,
                                       PVOID context,
                                       HOOK_FILTER** hook) {
    return NETSIEVE_WATCHED(ITarnHKRegisterFilterEx, registration, context, hook);
}

NTSTATUS NTAPI ITarnHKRegisterFilter(const HOOK_FILTER_REGISTRATION* registration,
                                     PVOID context,
                                     ULONG priorityClass,
                                     HOOK_FILTER** hook) {
    return NETSIEVE_WATCHED(ITarnHKRegisterFilter, registration, context, priorityClass, hook);
}

NTSTATUS NTAPI ITarnHKDeregisterFilter(HOOK_FILTER* hook) {
    return NETSIEVE_WATCHED(ITarnHKDeregisterFilter, hook);
}

VOID NTAPI ITarnHKFlowControl(HOOK_FILTER* hook, ULONG state) {
    return NETSIEVE_WATCHED(ITarnHKFlowControl, hook, state);
}

NTSTATUS NTAPI ITarnHKAttachFilter(FILTER_MODULE* module, HOOK_FILTER* hook) {
    return NETSIEVE_WATCHED(ITarnHKAttachFilter, module, hook);
}

NTSTATUS NTAPI ITarnHKDettachFilter(FILTER_MODULE* module, HOOK_FILTER* hook) {
    return NETSIEVE_WATCHED(ITarnHKDettachFilter, module, hook);
}

UCHAR* NTAPI ITarnHKGetBuffer(NIRP* nirp) {
    return NETSIEVE_WATCHED(ITarnHKGetBuffer, nirp);
}

ULONG NTAPI ITarnHKGetBufferLength(NIRP* nirp) {
    return NETSIEVE_WATCHED(ITarnHKGetBufferLength, nirp);
}

NTSTATUS NTAPI ITarnHKGetProtocolName(NIRP* nirp, PROTOCOL_ENTRY** entry) {
    return NETSIEVE_WATCHED(ITarnHKGetProtocolName, nirp, entry);
}

NTSTATUS NTAPI ITarnHKQueryProtocolName(PVOID first, PVOID second) {
    return NETSIEVE_WATCHED(ITarnHKQueryProtocolName, first, second);
}

NTSTATUS NTAPI ITarnHKGetProtocolInfo(NIRP* nirp, HOOK_PROTOCOL_INFO* info) {
    return NETSIEVE_WATCHED(ITarnHKGetProtocolInfo, nirp, info);
}

NTSTATUS NTAPI ITarnHKGetAdapterInfo(NIRP* nirp, HOOK_ADAPTER_INFO* info) {
    return NETSIEVE_WATCHED(ITarnHKGetAdapterInfo, nirp, info);
}

NTSTATUS NTAPI ITarnHKMarkPending(NIRP* nirp) {
    return NETSIEVE_WATCHED(ITarnHKMarkPending, nirp);
}

NTSTATUS NTAPI ITarnHKCompleteRequest(NIRP* nirp, ULONG status) {
    return NETSIEVE_WATCHED(ITarnHKCompleteRequest, nirp, status);
}

NTSTATUS NTAPI ITarnHKSendPacket(PVOID reserved, const VOID* frame, ULONG length) {
    return NETSIEVE_WATCHED(ITarnHKSendPacket, reserved, frame, length);
}

NTSTATUS NTAPI ITarnHKSystemInformationEx(PVOID reserved,
                                          LONG informationClass,
                                          PVOID buffer,
                                          ULONG* bufferSize) {
    return NETSIEVE_WATCHED(ITarnHKSystemInformationEx, reserved, informationClass, buffer,
                            bufferSize);
}

}  // extern "C"
