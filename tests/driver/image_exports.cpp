// The driver's exports in the programs that test its image: each is the export of the loaded image.
#include "client/exports.h"
#include "host/client/watched_exports.h"
#include "host/image/kernel_image.h"
#include "host/machine.h"

namespace netsieve::host {
namespace {

template <typename Function>
Function ExportOf(Function, const char* name) {
    const LoadedDriver* const driver = Machine::Current().FindDriver("NETSIEVE");
    return reinterpret_cast<Function>(WatchedExport(name, driver->image()->FindExport(name)));
}

}  // namespace
}  // namespace netsieve::host

#define NETSIEVE_EXPORT_OF(name) netsieve::host::ExportOf(&name, #name)

extern "C" {

NTSTATUS NTAPI ITarnHKRegisterFilterEx(const HOOK_FILTER_REGISTRATION_EX* registration,
                                       PVOID context,
                                       HOOK_FILTER** hook) {
    return NETSIEVE_EXPORT_OF(ITarnHKRegisterFilterEx)(registration, context, hook);
}
NTSTATUS NTAPI ITarnHKDeregisterFilter(HOOK_FILTER* hook) {
    return NETSIEVE_EXPORT_OF(ITarnHKDeregisterFilter)(hook);
}
VOID NTAPI ITarnHKFlowControl(HOOK_FILTER* hook, ULONG state) {
    NETSIEVE_EXPORT_OF(ITarnHKFlowControl)(hook, state);
}
NTSTATUS NTAPI ITarnHKAttachFilter(FILTER_MODULE* module, HOOK_FILTER* hook) {
    return NETSIEVE_EXPORT_OF(ITarnHKAttachFilter)(module, hook);
}
NTSTATUS NTAPI ITarnHKDettachFilter(FILTER_MODULE* module, HOOK_FILTER* hook) {
    return NETSIEVE_EXPORT_OF(ITarnHKDettachFilter)(module, hook);
}
ULONG NTAPI ITarnHKGetBufferLength(NIRP* nirp) {
    return NETSIEVE_EXPORT_OF(ITarnHKGetBufferLength)(nirp);
}
UCHAR* NTAPI ITarnHKGetBuffer(NIRP* nirp) {
    return NETSIEVE_EXPORT_OF(ITarnHKGetBuffer)(nirp);
}
NTSTATUS NTAPI ITarnHKMarkPending(NIRP* nirp) {
    return NETSIEVE_EXPORT_OF(ITarnHKMarkPending)(nirp);
}
NTSTATUS NTAPI ITarnHKCompleteRequest(NIRP* nirp, ULONG status) {
    return NETSIEVE_EXPORT_OF(ITarnHKCompleteRequest)(nirp, status);
}
NTSTATUS NTAPI ITarnHKSendPacket(PVOID reserved, const VOID* frame, ULONG length) {
    return NETSIEVE_EXPORT_OF(ITarnHKSendPacket)(reserved, frame, length);
}

}  // extern "C"
